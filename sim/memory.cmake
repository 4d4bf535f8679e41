# Sources of the board's memory side: traps, models and the I/O port.
set(SIM_MEMORY_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/decode.cpp
  ${CMAKE_CURRENT_LIST_DIR}/devmem.cpp
  ${CMAKE_CURRENT_LIST_DIR}/flash.cpp
  ${CMAKE_CURRENT_LIST_DIR}/lines.cpp
  ${CMAKE_CURRENT_LIST_DIR}/nvram.cpp
  ${CMAKE_CURRENT_LIST_DIR}/port.cpp
  ${CMAKE_CURRENT_LIST_DIR}/trap.cpp)

# The tests of the board's memories.
post_module(post_mem
  "${CMAKE_CURRENT_LIST_DIR}/nvram_test.cpp"
  "${CMAKE_CURRENT_LIST_DIR}/obfl_test.cpp")

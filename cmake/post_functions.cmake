# post_module(NAME SOURCES...): the object library of one directory of `post` and its libraries.
function(post_module name)
  add_library(${name} OBJECT ${ARGN})
  target_include_directories(${name} PUBLIC "${CMAKE_SOURCE_DIR}" "${CMAKE_SOURCE_DIR}/include")
  # As for a library, though it is a program: what is exported by name stays a function of its own, not inlined into
  # others, so that what stops, counts or replaces it there holds; and stdout is the C library's, not a copy. The linker
  # makes the calls direct all the same.
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
  target_compile_options(${name} PRIVATE -fPIC -fsemantic-interposition -fno-exceptions -fno-rtti)
endfunction()

# post_room(NAME [OBJECT] SOURCES... NEEDS rooms...): the library of one directory of the simulated board or of what it
# shares. Programs link of it what they use; OBJECT: all of it.
function(post_room name)
  cmake_parse_arguments(arg "OBJECT" "" "SOURCES;NEEDS" ${ARGN})
  if(arg_OBJECT)
    add_library(${name} OBJECT ${arg_SOURCES})
  else()
    add_library(${name} STATIC ${arg_SOURCES})
  endif()
  target_include_directories(${name} PUBLIC "${CMAKE_SOURCE_DIR}" "${CMAKE_SOURCE_DIR}/include")
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  target_link_libraries(${name} PUBLIC ${arg_NEEDS})
endfunction()

# post_program(NAME SOURCES...): an executable whose functions and tables stand in its dynamic symbol table.
function(post_program name)
  add_executable(${name} ${ARGN})
  target_include_directories(${name} PRIVATE "${CMAKE_SOURCE_DIR}" "${CMAKE_SOURCE_DIR}/include")
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  target_link_options(${name} PRIVATE -pie)
  if(NOT POST_SANITIZE)
    target_link_options(${name} PRIVATE -static-libstdc++ -static-libgcc)
  endif()
  post_count(${name})
endfunction()

# post_count(NAME): in the preset coverage, a program counts that ends by an assertion, too.
function(post_count name)
  if(POST_COVERAGE)
    target_sources(${name} PRIVATE "${CMAKE_SOURCE_DIR}/tests/support/coverage.cpp")
    target_link_options(${name} PRIVATE -Wl,--wrap=_exit)
  endif()
endfunction()

# post_test(NAME SOURCES files... LIBS targets... LONG tests...): a test program; each of its tests is a ctest of its own.
# LONG: those that sanitizers would make last for minutes, and whose code others run.
function(post_test name)
  cmake_parse_arguments(arg "" "" "SOURCES;LIBS;LONG" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_include_directories(${name} PRIVATE "${CMAKE_SOURCE_DIR}" "${CMAKE_SOURCE_DIR}/include")
  target_link_libraries(${name} PRIVATE ${arg_LIBS} GTest::gmock GTest::gtest GTest::gtest_main)
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  # Tests are compiled more often than they run.
  target_compile_options(${name} PRIVATE -O0 -U_FORTIFY_SOURCE)
  target_precompile_headers(${name} REUSE_FROM test_support)
  target_link_options(${name} PRIVATE -pie -rdynamic)
  post_count(${name})
  target_compile_definitions(${name} PRIVATE POST_BIN_DIR="${CMAKE_RUNTIME_OUTPUT_DIRECTORY}"
    POST_LIB_DIR="${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
  set(filter "")
  if(arg_LONG AND POST_SANITIZE)
    list(JOIN arg_LONG ":" long)
    set(filter TEST_FILTER "-${long}")
  endif()
  gtest_discover_tests(${name} ${filter} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 300)
endfunction()

# post_fuzz(NAME SOURCES files... LIBS targets... OPTIONS link options...): the fuzzer fuzz_NAME. The preset fuzz makes
# it with libFuzzer, for tools/run-fuzz; asan and coverage make a test of it that replays fuzz/corpus/NAME.
function(post_fuzz name)
  cmake_parse_arguments(arg "" "" "SOURCES;LIBS;OPTIONS" ${ARGN})
  add_executable(fuzz_${name} ${arg_SOURCES})
  target_include_directories(fuzz_${name} PRIVATE "${CMAKE_SOURCE_DIR}" "${CMAKE_SOURCE_DIR}/include")
  target_link_libraries(fuzz_${name} PRIVATE ${arg_LIBS})
  set_target_properties(fuzz_${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  target_link_options(fuzz_${name} PRIVATE -pie ${arg_OPTIONS})
  if(POST_FUZZ)
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  else()
    target_sources(fuzz_${name} PRIVATE "${CMAKE_SOURCE_DIR}/fuzz/replay.cpp")
    add_test(NAME fuzz.replays_the_corpus_of_${name}
      COMMAND fuzz_${name} "${CMAKE_SOURCE_DIR}/fuzz/corpus/${name}")
  endif()
endfunction()

# post_programs(NAME): the target NAME builds every program and shared library of the directories added so far.
function(post_programs name)
  set(directories "${CMAKE_CURRENT_SOURCE_DIR}")
  set(programs "")
  while(directories)
    list(POP_FRONT directories directory)
    get_property(below DIRECTORY "${directory}" PROPERTY SUBDIRECTORIES)
    foreach(one IN LISTS below)
      list(APPEND directories "${one}")
    endforeach()
    get_property(targets DIRECTORY "${directory}" PROPERTY BUILDSYSTEM_TARGETS)
    foreach(target IN LISTS targets)
      get_target_property(type ${target} TYPE)
      if(type MATCHES "^(EXECUTABLE|SHARED_LIBRARY)$")
        list(APPEND programs ${target})
      endif()
    endforeach()
  endwhile()
  add_custom_target(${name} DEPENDS ${programs})
endfunction()

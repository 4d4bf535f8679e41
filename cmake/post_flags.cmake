# Language, warnings, word size, hardening and sanitizers: the same for every target.
math(EXPR native_bits "8 * ${CMAKE_SIZEOF_VOID_P}")
set(POST_WORD_SIZE ${native_bits} CACHE STRING "Word size in bits: 32 for the board, else the compiler's own")
option(POST_SANITIZE "Address and undefined-behaviour sanitizers, without recovery" OFF)
option(POST_FUZZ "Fuzzers by clang's libFuzzer; with POST_SANITIZE" OFF)
option(POST_COVERAGE "Instrument for gcov" OFF)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)

# Assertions are part of the interface: no build type switches them off.
set(CMAKE_CXX_FLAGS_DEBUG "-O0 -g")
set(CMAKE_CXX_FLAGS_RELEASE "-O2")
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g")
set(CMAKE_CXX_FLAGS_MINSIZEREL "-Os")

set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
# One run path for the build tree and for every install prefix.
set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)
set(CMAKE_INSTALL_RPATH "$ORIGIN/../lib")
set(CMAKE_INSTALL_LIBDIR "lib" CACHE STRING "Library directory below the install prefix")

add_compile_options(
  -Wall -Wextra -Wpedantic -Werror
  -Wconversion -Wsign-conversion -Wshadow -Wold-style-cast -Wcast-qual -Wnon-virtual-dtor
  -Wmissing-declarations -Wformat=2 -Wundef
  "-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=")
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-Wduplicated-cond -Wlogical-op)
endif()

set(POST_WORD_FLAGS "")
if(POST_WORD_SIZE EQUAL 32)
  set(POST_WORD_FLAGS "-m32")
  # Physical addresses above 2 GiB are file offsets. A 64-bit build has them anyway, and keeps the plain names of the C
  # library's calls, by which preloaded libraries and tracers know them.
  add_compile_definitions(_FILE_OFFSET_BITS=64)
  # The fences need SSE2; with SSE arithmetic, doubles are doubles in both word sizes.
  add_compile_options(-m32 -msse2 -mfpmath=sse)
  add_link_options(-m32)
endif()

if(POST_SANITIZE)
  # What the sanitizers put in takes twice as long to optimise or to describe further; reports need lines only.
  set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-Og -g1")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
else()
  add_compile_options(-fstack-protector-strong)
  if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  endif()
  add_link_options(-Wl,-z,relro,-z,now)
endif()
if(POST_FUZZ)
  # Every library tells the fuzzer what is reached.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
if(POST_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()

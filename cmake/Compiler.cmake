# How every file of the project is compiled.
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -g1")
set(CMAKE_C_FLAGS_RELEASE "-O2 -g1")
set(CMAKE_CXX_FLAGS_SANITIZE "-O1 -g1 -fno-omit-frame-pointer")
set(CMAKE_C_FLAGS_SANITIZE "-O1 -g1 -fno-omit-frame-pointer")

add_compile_options(-Wall -Wextra -Wshadow -Werror)
add_compile_definitions(_FILE_OFFSET_BITS=64)
# Nothing that is committed or logged depends on where the checkout lies.
add_compile_options("-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=")

if(VYN_SANITIZE)
  add_compile_options(-fsanitize=${VYN_SANITIZE} -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VYN_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Instrumented code hides from GCC that the library's own objects are initialised (std::function).
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
  if(VYN_SANITIZE MATCHES "thread")
    # The thread sanitizer does not know stand-alone fences; the standard library's headers have one.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      add_compile_options(-Wno-tsan)
    endif()
  endif()
endif()
if(VYN_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()
if(VYN_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

find_program(VYN_CCACHE ccache)
if(VYN_CCACHE)
  set(CMAKE_C_COMPILER_LAUNCHER ${VYN_CCACHE})
  # ccache takes a file with precompiled headers only when it is told to.
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${VYN_CCACHE})
  add_compile_options($<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fpch-preprocess>)
endif()

# A binary finds its libraries beside itself, wherever the tree is moved to.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

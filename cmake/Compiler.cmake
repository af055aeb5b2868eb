# Compiler options for every file of the project.
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -g1")
set(CMAKE_C_FLAGS_RELEASE "-O2 -g1")
# For a short build.
set(CMAKE_CXX_FLAGS_DEMO "-O1")
set(CMAKE_C_FLAGS_DEMO "-O1")
set(CMAKE_CXX_FLAGS_SANITIZE "-O1 -g1 -fno-omit-frame-pointer")
set(CMAKE_C_FLAGS_SANITIZE "-O1 -g1 -fno-omit-frame-pointer")

add_compile_options(-Wall -Wextra -Wshadow -Werror)
add_compile_definitions(_FILE_OFFSET_BITS=64)
# Removes the folder of the checkout from paths in objects and log lines, so that builds elsewhere give the
# same.
add_compile_options("-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=")

if(VYN_SANITIZE)
  add_compile_options(-fsanitize=${VYN_SANITIZE} -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VYN_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # False positives: in instrumented code GCC does not see that std::function initialises its members.
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
  if(VYN_SANITIZE MATCHES "thread")
    # The thread sanitizer does not support std::atomic_thread_fence, which a header of the standard library
    # uses.
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
  # Without these settings ccache does not cache files that use precompiled headers.
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${VYN_CCACHE})
  add_compile_options($<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fpch-preprocess>)
endif()

# A binary finds its libraries relative to its own folder, also after the build tree was moved.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

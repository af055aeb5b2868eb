# Functions that define the project's targets. They find the sources in the folder, so a new file needs no
# edit here.

# Records a target that is installed. The target `home` (Install.cmake) depends on all of them.
function(vyn_installed name)
  set_property(GLOBAL APPEND PROPERTY VYN_INSTALLED_TARGETS ${name})
endfunction()

# vyn_platform_library(<name> [LINK lib...] [DIRECTORY companion sub-folder])
# A shared library from the .cpp files of the current folder, in lib/common or lib/DIRECTORY.
function(vyn_platform_library name)
  cmake_parse_arguments(ARG "" "DIRECTORY" "LINK;SOURCES" ${ARGN})
  if(NOT ARG_DIRECTORY)
    set(ARG_DIRECTORY common)
  endif()
  if(NOT ARG_SOURCES)
    file(GLOB ARG_SOURCES CONFIGURE_DEPENDS *.cpp)
  endif()
  add_library(${name} SHARED ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/include)
  target_link_libraries(${name} PUBLIC Threads::Threads PRIVATE ${ARG_LINK})
  set_target_properties(${name} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${VYN_STAGE_DIR}/lib/${ARG_DIRECTORY}
    INSTALL_RPATH "$ORIGIN;$ORIGIN/../common")
  install(TARGETS ${name} LIBRARY DESTINATION ${VYN_INSTALL_LIB}/${ARG_DIRECTORY})
  vyn_installed(${name})
endfunction()

# vyn_program(<name> [SOURCES file...] [LINK lib...]): a program in the installation's bin/, from SOURCES or
# from the .cpp files of the current folder.
function(vyn_program name)
  cmake_parse_arguments(ARG "" "" "LINK;SOURCES" ${ARGN})
  if(NOT ARG_SOURCES)
    file(GLOB ARG_SOURCES CONFIGURE_DEPENDS *.cpp)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(${name} PRIVATE ${ARG_LINK})
  set_target_properties(${name} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${VYN_STAGE_DIR}/bin
    INSTALL_RPATH "$ORIGIN/../${VYN_INSTALL_LIB};$ORIGIN/../${VYN_INSTALL_LIB}/common")
  install(TARGETS ${name} RUNTIME DESTINATION bin)
  vyn_installed(${name})
endfunction()

# vyn_tests(<folder>): one program for each *_test.cpp below the folder. A *_slow_test.cpp also gets the label
# "slow". ctest runs every test case in a process of its own, so that process-wide singletons are new in each.
function(vyn_tests folder label)
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${folder}/*_test.cpp)
  foreach(source ${sources})
    file(RELATIVE_PATH name ${CMAKE_CURRENT_SOURCE_DIR} ${source})
    string(REPLACE "/" "." name ${name})
    string(REGEX REPLACE "\\.cpp$" "" name ${name})
    add_executable(${name} ${source})
    target_link_libraries(${name} PRIVATE vyn_test_support GTest::gmock GTest::gmock_main)
    target_precompile_headers(${name} REUSE_FROM vyn_test_headers)
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/bin)
    if(VYN_TEST_PROGRAMS)
      add_dependencies(${name} ${VYN_TEST_PROGRAMS})
    endif()
    gtest_discover_tests(${name} TEST_PREFIX "${name}:" DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                         PROPERTIES LABELS ${label})
    if(name MATCHES "_slow_test$")
      # The long TIMEOUT lets a failing test report what it waited for before ctest ends it.
      # gtest_discover_tests keeps only the first label of a list, so this file sets both labels when ctest
      # has read the names.
      file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake
        "if(${name}_TESTS)\n  set_tests_properties(\${${name}_TESTS} PROPERTIES LABELS \"${label};slow\" TIMEOUT 1200)\nendif()\n")
      set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake)
    endif()
  endforeach()
endfunction()

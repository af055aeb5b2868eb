# The kinds of target that this project has. Sources are found by their place: a new file needs no edit here.

# Every target of the installation tree passes here, so that the staged tree waits for it.
function(vyn_installed name)
  set_property(GLOBAL APPEND PROPERTY VYN_INSTALLED_TARGETS ${name})
endfunction()

# vyn_platform_library(<name> [LINK lib...] [DIRECTORY companion sub-folder])
# One shared library out of the .cpp files of the current folder, in lib/common unless told otherwise.
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

# vyn_program(<name> [SOURCES file...] [LINK lib...]): a program of the installation's bin/. Without SOURCES,
# the .cpp files of the current folder.
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

# vyn_tests(<folder>): one program a *_test.cpp below the folder; *_slow_test.cpp also carries the label
# "slow". Every test case runs in a process of its own, so that process-wide singletons start fresh.
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
      # Their waits are long, so that a failure can say what it waited for before ctest ends it.
      # gtest_discover_tests keeps only the first label of a list: ctest sets both when it has read the names.
      file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake
        "if(${name}_TESTS)\n  set_tests_properties(\${${name}_TESTS} PROPERTIES LABELS \"${label};slow\" TIMEOUT 1200)\nendif()\n")
      set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake)
    endif()
  endforeach()
endfunction()

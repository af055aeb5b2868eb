# The installation tree, which can serve as VYN_HOME. Every build also installs it to ${VYN_STAGE_DIR}/home.
include(CMakePackageConfigHelpers)

install(DIRECTORY include/vyn DESTINATION include FILES_MATCHING PATTERN "*.h")
# The sample configuration. An installation keeps a conf/vyn.conf that somebody has edited: it differs from the
# sample that the last installation left in share/vyn. The new sample then is conf/vyn.conf.new.
install(CODE "set(sample \"${CMAKE_SOURCE_DIR}/conf/vyn.conf\")")
install(CODE [[
  set(prefix "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}")
  set(used "${prefix}/conf/vyn.conf")
  set(earlier "${prefix}/share/vyn/vyn.conf.sample")
  set(target "${used}")
  if(EXISTS "${used}")
    file(SHA256 "${used}" sum)
    file(SHA256 "${sample}" expected)
    if(EXISTS "${earlier}" AND NOT sum STREQUAL expected)
      file(SHA256 "${earlier}" expected)
    endif()
    if(NOT sum STREQUAL expected)
      set(target "${used}.new")
      message(STATUS "Keeping: ${used}, which was edited; the new sample is ${target}")
    endif()
  endif()
  file(MAKE_DIRECTORY "${prefix}/conf" "${prefix}/share/vyn")
  file(COPY_FILE "${sample}" "${target}" ONLY_IF_DIFFERENT)
  file(COPY_FILE "${sample}" "${earlier}" ONLY_IF_DIFFERENT)
]])
install(DIRECTORY DESTINATION logs)

configure_package_config_file(cmake/vyn-config.cmake.in ${CMAKE_BINARY_DIR}/vyn-config.cmake
  INSTALL_DESTINATION lib/cmake/vyn)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/vyn-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/vyn-config.cmake ${CMAKE_BINARY_DIR}/vyn-config-version.cmake
  DESTINATION lib/cmake/vyn)
configure_file(cmake/vyn_broadcast.pc.in ${CMAKE_BINARY_DIR}/vyn_broadcast.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/vyn_broadcast.pc DESTINATION lib/pkgconfig)

add_custom_target(home ALL
  COMMAND ${CMAKE_COMMAND} --install ${CMAKE_BINARY_DIR} --prefix ${VYN_STAGE_DIR}/home > ${CMAKE_BINARY_DIR}/home.log
  COMMENT "Staging the installation tree at ${VYN_STAGE_DIR}/home")
get_property(installed GLOBAL PROPERTY VYN_INSTALLED_TARGETS)
add_dependencies(home vyn_broadcast ${installed})

# The installation tree, which can serve as VYN_HOME. Every build also installs it to ${VYN_STAGE_DIR}/home.
include(CMakePackageConfigHelpers)

install(DIRECTORY include/vyn DESTINATION include FILES_MATCHING PATTERN "*.h")
install(DIRECTORY conf/ DESTINATION conf FILES_MATCHING PATTERN "*.conf")
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

# What an installed library offers: headers, pkg-config module, CMake package.
include(CMakePackageConfigHelpers)

set(KELOTLS_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kelotls)

install(TARGETS kelotls EXPORT kelotls LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
if(KELOTLS_PLATFORM STREQUAL "host")
  # Beside the library, so that a program found through pkg-config links and runs.
  install(TARGETS kelocore kelomustache EXPORT kelotls
          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()
install(DIRECTORY include/kelotls DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT kelotls NAMESPACE kelotls:: DESTINATION ${KELOTLS_CMAKE_DIR}
        FILE kelotls-targets.cmake)

configure_package_config_file(cmake/kelotls-config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/kelotls-config.cmake
  INSTALL_DESTINATION ${KELOTLS_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kelotls-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/kelotls-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/kelotls-config-version.cmake
  DESTINATION ${KELOTLS_CMAKE_DIR})

# Relative, so that a package or a prefix can be moved.
file(RELATIVE_PATH KELOTLS_PKGCONFIG_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" KELOTLS_PKGCONFIG_TO_PREFIX "${KELOTLS_PKGCONFIG_TO_PREFIX}")
configure_file(cmake/kelotls.pc.in ${CMAKE_CURRENT_BINARY_DIR}/kelotls.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kelotls.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

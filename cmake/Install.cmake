# The installed tree: headers under <prefix>/include/KivGCL, the libraries, a CMake package and
# pkg-config files. All of it can be moved as a whole.
include(CMakePackageConfigHelpers)

set(KIVGCL_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/KivGCL)
set(KIVGCL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/KivGCL)

install(TARGETS KivGCL VorTrace
  EXPORT KivGCLTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${KIVGCL_INSTALL_INCLUDEDIR}
)
install(EXPORT KivGCLTargets NAMESPACE KivGCL:: DESTINATION ${KIVGCL_INSTALL_CMAKEDIR})

configure_package_config_file(
  cmake/KivGCLConfig.cmake.in ${PROJECT_BINARY_DIR}/KivGCLConfig.cmake
  INSTALL_DESTINATION ${KIVGCL_INSTALL_CMAKEDIR}
  NO_SET_AND_CHECK_MACRO
)
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/KivGCLConfigVersion.cmake COMPATIBILITY SameMajorVersion
)
install(FILES
  ${PROJECT_BINARY_DIR}/KivGCLConfig.cmake
  ${PROJECT_BINARY_DIR}/KivGCLConfigVersion.cmake
  DESTINATION ${KIVGCL_INSTALL_CMAKEDIR}
)

# pkg-config finds the prefix from the place of its own file, as deep as the library folder is.
string(REGEX REPLACE "[^/]+" ".." KIVGCL_PREFIX_FROM_LIBDIR ${CMAKE_INSTALL_LIBDIR})
foreach(package KivGCL VorTrace)
  configure_file(cmake/${package}.pc.in ${PROJECT_BINARY_DIR}/${package}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${package}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

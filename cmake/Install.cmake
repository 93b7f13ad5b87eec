# The installed tree: headers under <prefix>/include/KivGCL, the libraries, a CMake package and
# pkg-config files. All of it can be moved as a whole.
#
# Each file belongs to a component, and each component to one package:
#   Runtime        the library, for the programs that are linked to it
#   Sink           the stand-alone trace sink
#   Development    what it takes to build programs: headers, links, packages for build systems
#   Documentation  what is read in a browser
#   Tools          programs for users
include(CMakePackageConfigHelpers)

set(KIVGCL_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/KivGCL)
set(KIVGCL_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/KivGCL)

# kivgcl_install_library(<target> <component>)
function(kivgcl_install_library target component)
  install(TARGETS ${target}
    EXPORT KivGCLTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
      COMPONENT ${component} NAMELINK_COMPONENT Development
    FILE_SET HEADERS DESTINATION ${KIVGCL_INSTALL_INCLUDEDIR} COMPONENT Development
  )
endfunction()
kivgcl_install_library(KivGCL Runtime)
kivgcl_install_library(VorTrace Sink)
install(EXPORT KivGCLTargets
  NAMESPACE KivGCL::
  DESTINATION ${KIVGCL_INSTALL_CMAKEDIR}
  COMPONENT Development
)

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
  COMPONENT Development
)

# pkg-config finds the prefix from the place of its own file, as deep as the library folder is.
string(REGEX REPLACE "[^/]+" ".." KIVGCL_PREFIX_FROM_LIBDIR ${CMAKE_INSTALL_LIBDIR})
foreach(package KivGCL VorTrace)
  configure_file(cmake/${package}.pc.in ${PROJECT_BINARY_DIR}/${package}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${package}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)
endforeach()

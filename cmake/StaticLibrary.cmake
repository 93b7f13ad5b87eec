# libKivGCL.a: the library as an archive, for programs that hold the one copy of it in their process
# (Framework/GCL/Api.h says when not to use it). The trace framework stays the process's to provide.
# Where the compiler can, the objects hold machine code and intermediate code alike: a program that
# is linked with -flto, by the same compiler, has the small calls inlined.
add_library(KivGCLStatic STATIC)
add_library(KivGCL::KivGCLStatic ALIAS KivGCLStatic)
get_target_property(kivgcl_sources KivGCL SOURCES)
get_target_property(kivgcl_headers KivGCL HEADER_SET)
target_sources(KivGCLStatic
  PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${kivgcl_headers}
  PRIVATE ${kivgcl_sources}
)
set_target_properties(KivGCLStatic PROPERTIES
  OUTPUT_NAME KivGCL
  POSITION_INDEPENDENT_CODE ON # programs are, as a rule
  CXX_EXTENSIONS OFF
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON
)
# The C libraries that are new enough for the timers hold the threads themselves.
target_link_libraries(KivGCLStatic PRIVATE
  $<BUILD_INTERFACE:kivgcl_options> $<BUILD_INTERFACE:Threads::Threads>)
target_compile_options(KivGCLStatic PRIVATE
  -fno-semantic-interposition
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
)
check_cxx_compiler_flag("-flto -ffat-lto-objects" KIVGCL_HAS_FAT_OBJECTS)
if(KIVGCL_HAS_FAT_OBJECTS AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(KivGCLStatic PRIVATE -flto -ffat-lto-objects)
endif()

install(TARGETS KivGCLStatic
  EXPORT KivGCLTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
  FILE_SET HEADERS DESTINATION ${KIVGCL_INSTALL_INCLUDEDIR} COMPONENT Development
)

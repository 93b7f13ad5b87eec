# clang puts its thread sanitizer into each program, with an operator new that leaves no room for the
# one of the tests. So the sanitizer stands beside it as a shared library, and every program sets it
# up before anything else runs: by the first object that is linked, which is made here.
set(KIVGCL_SANITIZER_OBJECT ${PROJECT_BINARY_DIR}/ClangThreadSanitizer.o)
execute_process(
  COMMAND ${CMAKE_C_COMPILER} -fPIC -c ${PROJECT_SOURCE_DIR}/cmake/ClangThreadSanitizer.c
          -o ${KIVGCL_SANITIZER_OBJECT}
  COMMAND_ERROR_IS_FATAL ANY)
execute_process(
  COMMAND ${CMAKE_CXX_COMPILER} -print-runtime-dir
  OUTPUT_VARIABLE KIVGCL_SANITIZER_DIR OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
add_link_options(
  -shared-libsan "LINKER:-rpath,${KIVGCL_SANITIZER_DIR}"
  $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:${KIVGCL_SANITIZER_OBJECT}>)

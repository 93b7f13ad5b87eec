# Absolute times are 64 bits wide everywhere, also on 32-bit processors and after 2038-01-19. The
# few files that handle them are compiled with the two definitions below; all others keep the
# platform's plain names of the system calls.
include(CheckCXXSourceCompiles)

set(KIVGCL_TIME64_DEFINITIONS _TIME_BITS=64 _FILE_OFFSET_BITS=64)

# Stops the configuration where even those definitions leave time_t at 32 bits.
function(kivgcl_require_time64)
  list(TRANSFORM KIVGCL_TIME64_DEFINITIONS PREPEND -D OUTPUT_VARIABLE CMAKE_REQUIRED_DEFINITIONS)
  check_cxx_source_compiles(
    "#include <ctime>\nstatic_assert(sizeof(time_t) == 8, \"\");\nint main() { return 0; }\n"
    KIVGCL_HAVE_TIME64)
  if(NOT KIVGCL_HAVE_TIME64)
    message(FATAL_ERROR "time_t has 32 bits even with _TIME_BITS=64; "
                        "a C library with 64-bit time is needed (glibc 2.34 or later, musl 1.2)")
  endif()
endfunction()

function(kivgcl_compile_with_time64)
  set_property(SOURCE ${ARGN} APPEND PROPERTY COMPILE_DEFINITIONS ${KIVGCL_TIME64_DEFINITIONS})
endfunction()

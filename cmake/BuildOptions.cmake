# What the project's own targets are compiled and linked with.
find_package(Threads REQUIRED)
include(CheckCXXCompilerFlag)
include(CMakePushCheckState)

# Every target: the language and the warnings.
add_library(kivgcl_options INTERFACE)
target_compile_features(kivgcl_options INTERFACE cxx_std_17 c_std_99)
target_compile_options(kivgcl_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wformat=2 -Wno-format-nonliteral
  $<$<BOOL:${KIVGCL_WARNINGS_AS_ERRORS}>:-Werror>
)

# What the libraries import is called by its address straight away, not by way of a jump; all
# addresses are known at load anyway (-z now). Elsewhere such a call is the longer one.
set(KIVGCL_DIRECT_IMPORTS $<$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},x86_64>:-fno-plt>)

# The shipped libraries. They are position-independent, export what their version script names and
# nothing else, and call their own functions directly. Their data stays preemptible: a program that
# writes GCL_trace reaches the object that the library reads.
function(kivgcl_shared_library target map)
  set_target_properties(${target} PROPERTIES
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    LINK_DEPENDS ${PROJECT_SOURCE_DIR}/${map}
  )
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:kivgcl_options> Threads::Threads)
  target_compile_options(${target} PRIVATE
    -fno-semantic-interposition
    ${KIVGCL_DIRECT_IMPORTS}
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
    $<$<CXX_COMPILER_ID:GNU>:-fstack-usage> # notes for scripts/counts, beside the object files
  )
  target_link_options(${target} PRIVATE
    -Wl,--version-script=${PROJECT_SOURCE_DIR}/${map}
    -Wl,-Bsymbolic-functions
    -Wl,-z,relro,-z,now,-z,noexecstack
    -Wl,--as-needed
  )
endfunction()

# Compiles a source file so that its functions touch each page of the stack that they take. Some
# compilers know the option for some processors only, and warn or stop elsewhere.
function(kivgcl_compile_with_stack_probes source)
  cmake_push_check_state()
  list(APPEND CMAKE_REQUIRED_FLAGS -Werror)
  check_cxx_compiler_flag(-fstack-clash-protection KIVGCL_HAS_STACK_PROBES)
  cmake_pop_check_state()
  if(KIVGCL_HAS_STACK_PROBES)
    set_property(SOURCE ${source} APPEND PROPERTY COMPILE_OPTIONS -fstack-clash-protection)
  else()
    message(WARNING "The compiler has no -fstack-clash-protection for this processor: ${source} "
                    "takes buffers of its caller's size from the stack, and one that is larger "
                    "than the stack may be written to memory beyond its guard page.")
  endif()
endfunction()

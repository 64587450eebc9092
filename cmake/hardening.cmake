# How what ships is compiled and linked; ci/check-hardening looks at the result.

include(CheckCXXSourceCompiles)
include(CheckPIESupported)
check_pie_supported()

option(ZELO_HARDENING "Protect what is built; OFF where the compiler's flags come from a distribution" ON)
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

# libsoup's flags make a program export all its symbols, which would keep unused ones alive.
set_target_properties(PkgConfig::SOUP PROPERTIES INTERFACE_LINK_OPTIONS "")

if(CMAKE_BUILD_TYPE STREQUAL "Debug" OR ZELO_SANITIZERS)
  return()
endif()

target_compile_options(zelo_options INTERFACE
  -ffunction-sections -fdata-sections
  # The same bytes wherever they are built. The build directory comes last: it may be inside the sources.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=./build)
target_link_options(zelo_options INTERFACE -Wl,--gc-sections,--as-needed,--build-id=sha1)

if(ZELO_HARDENING)
  target_compile_options(zelo_options INTERFACE -fstack-protector-strong)
  target_link_options(zelo_options INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)
  # A compiler may have a level of its own, also without flags, but only when it optimises.
  set(CMAKE_REQUIRED_FLAGS -O2)
  check_cxx_source_compiles("#ifndef _FORTIFY_SOURCE\n#error\n#endif\nint main() {}" ZELO_FORTIFIED)
  unset(CMAKE_REQUIRED_FLAGS)
  if(NOT ZELO_FORTIFIED)
    target_compile_definitions(zelo_options INTERFACE _FORTIFY_SOURCE=2)
  endif()
endif()

# How what ships is compiled and linked; ci/check-hardening looks at the result.

include(CheckPIESupported)
check_pie_supported()

set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

# libsoup's flags make a program export all its symbols, which would keep unused ones alive.
set_target_properties(PkgConfig::SOUP PROPERTIES INTERFACE_LINK_OPTIONS "")

if(CMAKE_BUILD_TYPE STREQUAL "Debug" OR ZELO_SANITIZERS)
  return()
endif()

target_compile_options(zelo_options INTERFACE
  -fstack-protector-strong
  -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2
  -ffunction-sections -fdata-sections
  # The same bytes wherever they are built. The build directory comes last: it may lie inside the sources.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=./build)
target_link_options(zelo_options INTERFACE
  -Wl,-z,relro,-z,now,-z,noexecstack
  -Wl,--gc-sections,--as-needed,--build-id=sha1)

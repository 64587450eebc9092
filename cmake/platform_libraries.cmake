# The device's own libraries. One that is missing is reported here, not by the linker.

add_library(zelo_platform INTERFACE)
foreach(library ${ZELO_PLATFORM_LIBRARIES})
  if(IS_ABSOLUTE "${library}")
    set(file "${library}")
  else()
    find_library(ZELO_PLATFORM_LIBRARY_${library} NAMES "${library}")
    set(file "${ZELO_PLATFORM_LIBRARY_${library}}")
  endif()
  if(NOT EXISTS "${file}")
    message(FATAL_ERROR "ZELO_PLATFORM_LIBRARIES: ${library} is missing. Libraries are searched for in "
                        "CMAKE_LIBRARY_PATH, in lib/ of CMAKE_PREFIX_PATH, and where the toolchain does "
                        "(cross-compiling: below CMAKE_FIND_ROOT_PATH and CMAKE_SYSROOT).")
  endif()
  target_link_libraries(zelo_platform INTERFACE "${file}")
endforeach()
# On the device they are elsewhere.
set(CMAKE_SKIP_BUILD_RPATH ON)

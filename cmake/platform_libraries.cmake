# The device's own libraries; one that is missing is found missing here, not when linking.

add_library(zelo_platform INTERFACE)
foreach(library ${ZELO_PLATFORM_LIBRARIES})
  if(IS_ABSOLUTE "${library}")
    set(file "${library}")
  else()
    string(MAKE_C_IDENTIFIER "ZELO_PLATFORM_LIBRARY_${library}" variable)
    find_library(${variable} NAMES "${library}")
    mark_as_advanced(${variable})
    set(file "${${variable}}")
  endif()
  if(NOT EXISTS "${file}")
    message(FATAL_ERROR "ZELO_PLATFORM_LIBRARIES: ${library} is missing. Libraries are sought in "
                        "CMAKE_LIBRARY_PATH, in lib/ of CMAKE_PREFIX_PATH, and where the toolchain seeks them "
                        "(cross-compiling: below CMAKE_FIND_ROOT_PATH and CMAKE_SYSROOT).")
  endif()
  target_link_libraries(zelo_platform INTERFACE "${file}")
endforeach()
# On the device they lie elsewhere.
set(CMAKE_SKIP_BUILD_RPATH ON)

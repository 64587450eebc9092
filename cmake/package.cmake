# `cpack` makes a Debian package of each component.

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_SET_DESTDIR ON)  # or the unit would name the staging directory
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/compress_documents.cmake)

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # else every package gets the same one
set(CPACK_PACKAGE_VENDOR zeloinstall)
set(CPACK_PACKAGE_CONTACT "The zeloinstall developers <zeloinstall@zelo.example>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
if(CMAKE_CROSSCOMPILING)
  execute_process(COMMAND dpkg-architecture -t ${CMAKE_LIBRARY_ARCHITECTURE} -q DEB_HOST_ARCH
                  OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE)
  # DEBIAN/ in the sysroot tells dpkg-shlibdeps which package a library is in.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE}
                                                  ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
endif()

set(debian ${PROJECT_SOURCE_DIR}/cmake/debian)
set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME zeloinstall)
set(CPACK_COMPONENT_DAEMON_DESCRIPTION "daemon that makes one attempt to install a bundle
Each start fetches the signed bundle that is meant for this device, verifies
it and runs its script. zeloinstall.timer, which is not enabled by itself,
starts it after boot and daily.")
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS openssl)
set(CPACK_DEBIAN_DAEMON_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA ${debian}/postinst ${debian}/prerm ${debian}/postrm)

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zelo-bundle-tools)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "tools for the authors of zeloinstall's bundles
zelo-make-bundle packs and signs a bundle; zelo-check-bundle says what a
device would make of it.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "openssl, python3")

include(CPack)

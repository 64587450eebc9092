# What a distribution's package of the daemon holds.

include(GNUInstallDirs)

install(TARGETS zeloinstall RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
if(NOT ZELO_PLATFORM_LIBRARIES)
  # Without it the daemon would not start; what else stands in for a device stays in the build tree.
  install(TARGETS zelo_platform LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_SKIP)
endif()

# Written while installing: only then is the prefix certain.
install(CODE "
  get_filename_component(ZELO_SBINDIR \"${CMAKE_INSTALL_SBINDIR}\" ABSOLUTE BASE_DIR \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${PROJECT_SOURCE_DIR}/doc/zeloinstall.service.in\"
                 \"${PROJECT_BINARY_DIR}/doc/zeloinstall.service\" @ONLY)")
install(FILES ${PROJECT_BINARY_DIR}/doc/zeloinstall.service DESTINATION lib/systemd/system)
install(FILES doc/zeloinstall.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})

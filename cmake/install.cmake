# What is installed, in two components: what a device needs, and what authors of bundles need.

include(GNUInstallDirs)

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME daemon)
install(TARGETS zeloinstall RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
if(NOT ZELO_PLATFORM_LIBRARIES)
  # Without it the daemon would not start; what else stands in for a device stays in the build tree.
  set(platform_place ${CMAKE_INSTALL_LIBDIR}/zeloinstall)
  install(TARGETS zelo_platform LIBRARY DESTINATION ${platform_place} NAMELINK_SKIP)
  file(RELATIVE_PATH from_sbin /${CMAKE_INSTALL_SBINDIR} /${platform_place})
  set_target_properties(zeloinstall PROPERTIES INSTALL_RPATH $ORIGIN/${from_sbin})
endif()

install(FILES doc/zeloinstall.timer DESTINATION lib/systemd/system)
install(FILES doc/zeloinstall.service.in RENAME zeloinstall.service DESTINATION lib/systemd/system)
# Only while installing is the prefix certain.
install(CODE "
  get_filename_component(ZELO_SBINDIR \"${CMAKE_INSTALL_SBINDIR}\" ABSOLUTE
                         BASE_DIR \"\${CMAKE_INSTALL_PREFIX}\")
  set(unit \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/systemd/system/zeloinstall.service\")
  file(READ \"\${unit}\" text)
  string(CONFIGURE \"\${text}\" text @ONLY)
  file(WRITE \"\${unit}\" \"\${text}\")")
install(FILES doc/zeloinstall.tmpfiles RENAME zeloinstall.conf DESTINATION lib/tmpfiles.d)
install(FILES doc/zeloinstall.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES doc/fleet.md doc/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES CHANGELOG.md RENAME changelog DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME tools)
set(tools_place ${CMAKE_INSTALL_DATADIR}/zelo-bundle-tools)
set(tools_docdir ${CMAKE_INSTALL_DATADIR}/doc/zelo-bundle-tools)
install(DIRECTORY tools/ DESTINATION ${tools_place} FILES_MATCHING PATTERN *.py PATTERN __pycache__ EXCLUDE)
install(FILES VERSION DESTINATION ${tools_place})
file(RELATIVE_PATH from_bin /${CMAKE_INSTALL_BINDIR} /${tools_place})
foreach(tool make-bundle check-bundle)
  install(PROGRAMS tools/${tool} DESTINATION ${tools_place})
  file(CREATE_LINK ${from_bin}/${tool} ${PROJECT_BINARY_DIR}/zelo-${tool} SYMBOLIC)
  install(FILES ${PROJECT_BINARY_DIR}/zelo-${tool} DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES doc/zelo-${tool}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endforeach()
install(FILES doc/zelo-bundle.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES doc/copyright DESTINATION ${tools_docdir})
install(PROGRAMS doc/examples/run.sh DESTINATION ${tools_docdir}/examples)
install(FILES CHANGELOG.md RENAME changelog DESTINATION ${tools_docdir})

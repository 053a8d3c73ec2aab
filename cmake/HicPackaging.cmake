# What an installation places; the Debian and RPM packages take it as it is.
include(GNUInstallDirs)

install(TARGETS vn_hostinfo RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS hic_pidfile_guard RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/vn_hostinfo)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/vn_hostinfo.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
# The unit names the daemon and its start helper where this installation
# puts them. It is written at install time, when the prefix is final
# (cmake --install --prefix may change the configured one).
install(CODE "set(HIC_UNIT_DIRS ${CMAKE_INSTALL_SBINDIR} ${CMAKE_INSTALL_LIBEXECDIR})
  set(HIC_UNIT_IN ${PROJECT_SOURCE_DIR}/packaging/vn_hostinfo.service.in)
  set(HIC_UNIT_OUT ${PROJECT_BINARY_DIR}/vn_hostinfo.service)")
install(CODE [[
  list(GET HIC_UNIT_DIRS 0 HIC_SBINDIR)
  list(GET HIC_UNIT_DIRS 1 HIC_LIBEXECDIR)
  cmake_path(ABSOLUTE_PATH HIC_SBINDIR BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}")
  cmake_path(ABSOLUTE_PATH HIC_LIBEXECDIR BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}")
  configure_file("${HIC_UNIT_IN}" "${HIC_UNIT_OUT}" @ONLY)
]])
install(FILES ${PROJECT_BINARY_DIR}/vn_hostinfo.service DESTINATION lib/systemd/system)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/vn_hostinfo.tmpfiles DESTINATION lib/tmpfiles.d
        RENAME vn_hostinfo.conf)
# The daemon's fixed directories: the product's scripts (and the pid file)
# and the log. They are absolute whatever the prefix.
install(DIRECTORY DESTINATION /Vornal/install/otherTools
        DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                              WORLD_READ WORLD_EXECUTE)
install(DIRECTORY DESTINATION /opt/Vornal/log
        DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                              WORLD_READ WORLD_EXECUTE)

# Installation and the Debian package (cmake --build build --target package).
include(GNUInstallDirs)
# Debian names the documentation folder after the package.
set(CMAKE_INSTALL_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/orvane)

set(ORVANE_PKG_DIR ${CMAKE_SOURCE_DIR}/packaging)

install(TARGETS orvane-server RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${ORVANE_PKG_DIR}/settings.ini DESTINATION /etc/orvane)
install(FILES ${ORVANE_PKG_DIR}/orvane.service DESTINATION /lib/systemd/system)
install(FILES ${ORVANE_PKG_DIR}/fail2ban/orvane.conf DESTINATION /etc/fail2ban/filter.d)
install(FILES ${ORVANE_PKG_DIR}/fail2ban/jail-orvane.conf
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES ${ORVANE_PKG_DIR}/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})

# Debian wants the changelog and the manual page compressed with gzip -9n; made when configuring,
# so that installing needs nothing built but the server.
find_program(GZIP_PROGRAM gzip)
if(GZIP_PROGRAM)
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/packaging)
  foreach(pair "changelog|changelog.Debian.gz" "orvane-server.1|orvane-server.1.gz")
    string(REPLACE "|" ";" pair "${pair}")
    list(GET pair 0 source)
    list(GET pair 1 target)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${ORVANE_PKG_DIR}/${source})
    execute_process(COMMAND ${GZIP_PROGRAM} -9nc ${ORVANE_PKG_DIR}/${source}
                    OUTPUT_FILE ${CMAKE_BINARY_DIR}/packaging/${target})
  endforeach()
  install(FILES ${CMAKE_BINARY_DIR}/packaging/changelog.Debian.gz DESTINATION ${CMAKE_INSTALL_DOCDIR})
  install(FILES ${CMAKE_BINARY_DIR}/packaging/orvane-server.1.gz
          DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orvane)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Orvane Server developers <orvane-devel@lists.orvane.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "multi-user FTP and Telnet file server")
set(CPACK_PACKAGE_DESCRIPTION "Orvane Server serves one virtual file system over FTP and over
Telnet, where users get a Unix-like shell. It runs as a systemd service with
per-address limits and bans against password guessing, salted password
hashes and a fail2ban filter.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${ORVANE_PKG_DIR}/debian/postinst ${ORVANE_PKG_DIR}/debian/prerm
    ${ORVANE_PKG_DIR}/debian/postrm ${ORVANE_PKG_DIR}/debian/conffiles)
include(CPack)

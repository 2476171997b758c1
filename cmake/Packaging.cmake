# CPack: one Debian package, velmar-daemon-mib, of everything `cmake --install` puts in
# place (the layout is in packaging/CMakeLists.txt), installed under /usr.
#
#   cd build/default && cpack -G DEB          # velmar-daemon-mib_<version>_<arch>.deb
#
# Dependencies come from dpkg-shlibdeps (libsnmp40, libc6, libstdc++6, ...), which follows
# the RUNPATHs to the package's own libraries in /usr/lib/velmar; the command-line tools
# (snmp) are added by hand, snmpd is recommended for the AgentX mode.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velmar-daemon-mib)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Velmar Networks")
set(CPACK_PACKAGE_CONTACT "Velmar Networks platform team <platform@velmar.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "launcher daemon state over SNMP (VELMAR-DAEMON-MIB)")
set(CPACK_PACKAGE_DESCRIPTION
  "velmar-snmp-agent serves the daemons run by the launcher of a Velmar network operating\n"
  "system as the four read-only tables of VELMAR-DAEMON-MIB: enabled, option, running and\n"
  "data. It reads the launcher's JSON state file, watches it and serves every valid change\n"
  "at once, as a master agent on its own addresses or as an AgentX subagent of snmpd.")
string(JOIN "" CPACK_PACKAGE_DESCRIPTION ${CPACK_PACKAGE_DESCRIPTION})
# Install with DESTDIR under the real prefix, so that the unit and the snmpd.conf fragment
# land in /lib and /etc (see packaging/CMakeLists.txt).
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "snmp")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "snmpd")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "prometheus-snmp-exporter")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packaging/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)

# CPack: one Debian package, velmar-daemon-mib, of everything `cmake --install` puts in
# place (the layout is in packaging/CMakeLists.txt), installed under /usr.
#
#   cd build/default && cpack -G DEB          # velmar-daemon-mib_<version>-<revision>_<arch>.deb
#
# Dependencies come from dpkg-shlibdeps (libsnmp40, libc6, libstdc++6, ...), which follows
# the RUNPATHs to the package's own libraries in /usr/lib/velmar.  snmpd is recommended
# (the AgentX and dlmod modes need it); the command-line tools (snmp) are only suggested:
# nothing in the package runs them.
#
# The copyright file and changelog.Debian.gz are installed by packaging/CMakeLists.txt into
# /usr/share/doc/velmar-daemon-mib; their sources are packaging/copyright (the text of
# LICENSE) and packaging/changelog, whose newest version must be PROJECT_VERSION.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velmar-daemon-mib)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# The Debian revision: the package's version is <upstream>-<revision> (0.1.0-1), and its
# changelog, packaging/changelog, is the Debian one (changelog.Debian.gz).
set(CPACK_DEBIAN_PACKAGE_RELEASE ${VELMAR_DEBIAN_REVISION})
set(CPACK_PACKAGE_VENDOR "Velmar Networks")
set(CPACK_PACKAGE_CONTACT "Velmar Networks platform team <platform@velmar.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "launcher daemon state over SNMP (VELMAR-DAEMON-MIB)")
# The extended description: lines of at most 80 characters (Debian policy 5.6.13). One
# bracket argument: a semicolon in a quoted one would be taken for a list separator.
set(CPACK_PACKAGE_DESCRIPTION [=[velmar-snmp-agent serves the daemons run by the launcher of a Velmar network
operating system as the four read-only tables of VELMAR-DAEMON-MIB: enabled,
option, running and data. It follows the launcher's JSON state file, or the
service units of systemd, and serves every valid change at once: as a master
agent on its own addresses, as an AgentX subagent of snmpd, or inside snmpd
through its dlmod bridge.]=])
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
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "snmpd")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "snmp, prometheus-snmp-exporter")
# Own maintainer scripts: CPack would otherwise write ones that call ldconfig for the
# libraries under /usr/lib/velmar, which are private (found through RUNPATH) and none of
# ldconfig's business.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packaging/conffiles
    ${CMAKE_SOURCE_DIR}/packaging/postinst ${CMAKE_SOURCE_DIR}/packaging/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)

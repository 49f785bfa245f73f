# A Debian package of the installation, made from a build tree with
#   cpack -G DEB            (or: cpack --config CPackConfig.cmake -G DEB)
# nox-gateway_<version>_amd64.deb installs under /usr what `cmake --install`
# lays out (bin/, lib/, share/ucore_nox/conf/, include/ucore_nox/, the CMake
# package and the pkg-config file), and for running it as a service:
#   /usr/lib/systemd/system/nox-gateway.service  the hardened unit
#   /etc/default/nox-gateway                     its options (a conffile)
#   /etc/logrotate.d/nox-gateway                 rotation of /var/log/nox-gateway/*.log
#                                                with SIGHUP (a conffile)
#   /usr/share/doc/nox-gateway/                  README.md, operations.md and
#                                                copyright (machine-readable, Apache-2.0)
# The maintainer scripts in packaging/deb/ make the nox system user and
# enable the unit. Depends is computed from the ELF files (dpkg-shlibdeps,
# from dpkg-dev) plus passwd for useradd.

# cpack packages the build tree as it is, without building it first (as
# `cmake --install` does): build, then package. Without this it would run the
# whole build's "preinstall" step, which the package check in the test suite
# must not do while other tests use the tree.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)

# The service files only go into the package: a `cmake --install --prefix P`
# must not write to /etc. They form the component "service", left out of a
# plain installation and added to the package below.
install(FILES ${CMAKE_SOURCE_DIR}/packaging/deb/nox-gateway.service
        DESTINATION lib/systemd/system COMPONENT service EXCLUDE_FROM_ALL)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/deb/nox-gateway.default
        DESTINATION /etc/default RENAME nox-gateway COMPONENT service EXCLUDE_FROM_ALL)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/deb/nox-gateway.logrotate
        DESTINATION /etc/logrotate.d RENAME nox-gateway COMPONENT service EXCLUDE_FROM_ALL)
install(FILES ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/docs/operations.md
              ${CMAKE_SOURCE_DIR}/packaging/deb/copyright
        DESTINATION share/doc/nox-gateway COMPONENT service EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME nox-gateway)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "NOX gateway developers")
set(CPACK_PACKAGE_CONTACT "NOX gateway developers <nox-dev@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "REST management gateway with the libucore_nox plug-in and a simulated backend")
set(CPACK_PACKAGE_DESCRIPTION
    "nox-gateway serves the routes of the libucore_nox plug-in over HTTP(S): logins and sessions, certificate and CRL import, alarms, backup tasks and the storage configuration. The package holds the gateway, nox-backend, nox-catalog, the plug-in and its reference host libucore_tlv, the message catalogues, the host contract headers for integrators, and a hardened systemd unit running the gateway as the nox user.")
# The licence (Apache-2.0): LICENSE for the generators that show one; a
# Debian package has no licence field in its control file, it carries
# /usr/share/doc/nox-gateway/copyright (above) instead.
set(CPACK_RESOURCE_FILE_LICENSE ${CMAKE_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# The project's own install tree plus the service component.
set(CPACK_INSTALL_CMAKE_PROJECTS
    "${CMAKE_BINARY_DIR};${PROJECT_NAME};ALL;/"
    "${CMAKE_BINARY_DIR};${PROJECT_NAME};service;/")

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)  # nox-gateway_1.0.0_amd64.deb
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "passwd")
# The rotation of the log files; the gateway runs without it.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "logrotate")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_SOURCE_DIR}/packaging/deb/conffiles
    ${CMAKE_SOURCE_DIR}/packaging/deb/postinst
    ${CMAKE_SOURCE_DIR}/packaging/deb/prerm
    ${CMAKE_SOURCE_DIR}/packaging/deb/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)

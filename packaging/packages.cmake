# The Debian packages, one for each component: vesk, vesk-controller, vesk-tools, libvesk-framing1 and
# libvesk-framing-dev. Build the target "package", or run packaging/build-packages, which also makes the build
# reproducible.

# Without the first one CPack makes packages that depend on no library.
find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
find_program(FILE_TYPE_PROGRAM file)
mark_as_advanced(DPKG_SHLIBDEPS FILE_TYPE_PROGRAM)
if(NOT DPKG_SHLIBDEPS OR NOT FILE_TYPE_PROGRAM)
    message(STATUS "dpkg-dev or file is not installed: no Debian packages")
    return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL forwarder)
if(VESK_BUILD_CONTROLLER)
    list(APPEND CPACK_COMPONENTS_ALL controller)
endif()
if(VESK_BUILD_TOOLS)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
if(VESK_BUILD_FRAMING)
    list(APPEND CPACK_COMPONENTS_ALL framing framing_dev)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Vesk developers <vesk@example.org>")
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The symbols are needed to read the core file of a forwarder that crashed. This also strips the programs;
# CPACK_STRIP_FILES would do so before the symbols are extracted.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
# Each package has a description of its own; this text would precede it.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")

set(version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
set(debian ${CMAKE_CURRENT_SOURCE_DIR}/debian)

set(CPACK_DEBIAN_FORWARDER_PACKAGE_NAME vesk)
set(CPACK_DEBIAN_FORWARDER_PACKAGE_SUGGESTS "vesk-controller, vesk-tools")
set(CPACK_DEBIAN_FORWARDER_PACKAGE_CONTROL_EXTRA ${debian}/vesk/conffiles ${debian}/vesk/postinst)
set(CPACK_DEBIAN_FORWARDER_DESCRIPTION "forwarder of authenticated UDP datagrams
Vesk forwards UDP datagrams between remote peers and upstream services. Each
datagram carries an HMAC and a flow label; for each declared label Vesk checks
the HMAC, rewrites the label, signs the datagram with another key and sends
it on. Replies return the same way.

This package contains the forwarder alone. A controlling service runs it,
writes commands to its input and reads its log: either the one in the package
vesk-controller, or your own, which vesk-control(7) helps to write.")

set(CPACK_DEBIAN_CONTROLLER_PACKAGE_NAME vesk-controller)
set(CPACK_DEBIAN_CONTROLLER_PACKAGE_SOURCE vesk)
set(CPACK_DEBIAN_CONTROLLER_PACKAGE_DEPENDS "vesk (= ${version}), adduser")
set(CPACK_DEBIAN_CONTROLLER_PACKAGE_SUGGESTS "prometheus, grafana")
set(CPACK_DEBIAN_CONTROLLER_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_CONTROLLER_PACKAGE_CONTROL_EXTRA
    ${debian}/vesk-controller/conffiles ${debian}/vesk-controller/postinst
    ${debian}/vesk-controller/prerm ${debian}/vesk-controller/postrm)
set(CPACK_DEBIAN_CONTROLLER_DESCRIPTION "controlling service for the Vesk forwarder
Reads the flows from a TOML file, runs the forwarder with them, restarts it if
it ends, applies changes of the file without affecting other flows, and serves
metrics for Prometheus.

It comes with a template unit for systemd, an example, a dashboard for Grafana
and alert rules for Prometheus.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME vesk-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SOURCE vesk)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "vesk, tshark | wireshark")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "traffic generator and dissector for the Vesk forwarder
vesk-traffic plays both ends of a forwarder: peers that send signed datagrams
and an upstream service that answers them. It verifies what arrives and
measures rates, round trips and processor time.

The dissector shows the framing of Vesk's datagrams in Wireshark and tshark,
and whether each HMAC is good.")

# The symbols file has the name of the package and the versions since which it has each function. The trigger makes
# the system's cache of libraries.
set(CPACK_DEBIAN_FRAMING_PACKAGE_NAME libvesk-framing1)
set(CPACK_DEBIAN_FRAMING_PACKAGE_SOURCE vesk)
set(CPACK_DEBIAN_FRAMING_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_FRAMING_PACKAGE_CONTROL_EXTRA
    ${debian}/libvesk-framing1/postinst ${debian}/libvesk-framing1/postrm
    ${debian}/libvesk-framing1/shlibs ${debian}/libvesk-framing1/symbols ${debian}/libvesk-framing1/triggers)
set(CPACK_DEBIAN_FRAMING_DESCRIPTION "datagrams of the Vesk forwarder
Makes, checks and relabels the datagrams that the Vesk forwarder accepts and
sends, for peers and upstream services: the framings UDPv1 and UDPv2, with
HMAC-SHA-256 or HMAC-SHA-1.

This package contains the shared library.")

set(CPACK_DEBIAN_FRAMING_DEV_PACKAGE_NAME libvesk-framing-dev)
set(CPACK_DEBIAN_FRAMING_DEV_PACKAGE_SOURCE vesk)
set(CPACK_DEBIAN_FRAMING_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_FRAMING_DEV_PACKAGE_DEPENDS "libvesk-framing1 (= ${version})")
set(CPACK_DEBIAN_FRAMING_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_FRAMING_DEV_DEBUGINFO_PACKAGE OFF)
set(CPACK_DEBIAN_FRAMING_DEV_DESCRIPTION "datagrams of the Vesk forwarder (development files)
Makes, checks and relabels the datagrams that the Vesk forwarder accepts and
sends, for peers and upstream services: the framings UDPv1 and UDPv2, with
HMAC-SHA-256 or HMAC-SHA-1.

This package contains the headers for C and C++, files for pkg-config and
CMake, a manual page, and test vectors of the wire format for programs that
implement it themselves.")

# Each package has its own changelog and licence, as Debian requires.
add_custom_command(OUTPUT changelog.Debian.gz
    COMMAND gzip --best --no-name --stdout ${debian}/changelog > changelog.Debian.gz
    DEPENDS ${debian}/changelog VERBATIM)
add_custom_target(vesk_changelog ALL DEPENDS changelog.Debian.gz)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} upper)
    install(FILES ${debian}/copyright ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz
        DESTINATION share/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME} COMPONENT ${component})
endforeach()

include(CPack)

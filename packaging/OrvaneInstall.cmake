# What `cmake --install` puts where (GNUInstallDirs), and the Debian package
# that `cpack -G DEB` builds from the same rules:
#   bin/                      orvane-bridge, orvane-gateway-sim, orvane-hex
#   lib/                      liborvane.a, liborvane_ext.a, liborvane_api.a,
#                             liborvanecan.so (the C application interface)
#   include/orvane/           the public headers of the three libraries
#   lib/cmake/Orvane/         find_package(Orvane): Orvane::orvane_api,
#                             Orvane::orvane_can_shared, ...
#   lib/pkgconfig/            orvanecan.pc (C interface), orvane.pc (C++ clients)
#   lib/systemd/system/       orvane-bridge@.service
#   share/man/man1/           the programs' man pages
#   share/doc/orvane/         README, an example per-interface settings file and
#                             a systemd-networkd vcan0 (.netdev, .network)
#   lib/python3/dist-packages/ the python-can interface orvane_can with its
#                             metadata (entry point "orvane"), where Debian's
#                             python3 finds it
include(CMakePackageConfigHelpers)

set(ORVANE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Orvane)

install(TARGETS orvane orvane_ext orvane_api orvane_can_shared
        EXPORT OrvaneTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orvane)
install(TARGETS orvane-bridge orvane-gateway-sim orvane-hex RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

file(GLOB ORVANE_PUBLIC_HEADERS ${PROJECT_SOURCE_DIR}/libOrvane/C++/source/*.h
     ${PROJECT_SOURCE_DIR}/libOrvaneExt/C++/source/*.h ${PROJECT_SOURCE_DIR}/OrvaneAPI/source/*.h)
install(FILES ${ORVANE_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orvane)

install(EXPORT OrvaneTargets NAMESPACE Orvane:: DESTINATION ${ORVANE_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/OrvaneConfig.cmake.in
                              ${CMAKE_CURRENT_BINARY_DIR}/OrvaneConfig.cmake INSTALL_DESTINATION ${ORVANE_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/OrvaneConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/OrvaneConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/OrvaneConfigVersion.cmake
        DESTINATION ${ORVANE_CMAKE_DIR})

# The pkg-config files and the unit name installed paths, whatever prefix
# the install is given (cmake --install --prefix, or /usr in the package):
# they are written at install time from the prefix then in effect.
function(orvane_install_configured template destination)
  get_filename_component(name ${template} NAME)
  string(REGEX REPLACE "\\.in$" "" name ${name})
  install(CODE "
    set(prefix \"\${CMAKE_INSTALL_PREFIX}\")
    set(bindir \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    set(libdir \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}\")
    set(includedir \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_INCLUDEDIR}/orvane\")
    set(PROJECT_VERSION \"${PROJECT_VERSION}\")
    configure_file(\"${template}\" \"${CMAKE_CURRENT_BINARY_DIR}/installed/${name}\" @ONLY)
    file(INSTALL \"${CMAKE_CURRENT_BINARY_DIR}/installed/${name}\" DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${destination}\")")
endfunction()
orvane_install_configured(${CMAKE_CURRENT_LIST_DIR}/orvanecan.pc.in ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
orvane_install_configured(${CMAKE_CURRENT_LIST_DIR}/orvane.pc.in ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
orvane_install_configured(${CMAKE_CURRENT_LIST_DIR}/orvane-bridge@.service.in lib/systemd/system)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/bridge-example.conf ${CMAKE_CURRENT_LIST_DIR}/80-vcan0.netdev
              ${CMAKE_CURRENT_LIST_DIR}/80-vcan0.network ${PROJECT_SOURCE_DIR}/README.md
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/orvane)

install(FILES ${PROJECT_SOURCE_DIR}/doc/man/orvane-bridge.1 ${PROJECT_SOURCE_DIR}/doc/man/orvane-gateway-sim.1
              ${PROJECT_SOURCE_DIR}/doc/man/orvane-hex.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

# The python-can interface. python-can finds interfaces through the
# can.interface entry points of installed distributions, so the package goes
# in with a dist-info folder of its own; the build tree gets the same folder
# in <build>/python, for running it from the source tree (tests, benchmarks).
set(ORVANE_PYTHON_DIR lib/python3/dist-packages)
set(ORVANE_DIST_INFO ${PROJECT_BINARY_DIR}/python/orvane_can-${PROJECT_VERSION}.dist-info)
file(CONFIGURE OUTPUT ${ORVANE_DIST_INFO}/METADATA CONTENT "Metadata-Version: 2.1
Name: orvane-can
Version: ${PROJECT_VERSION}
Summary: python-can interface for the CAN ports of Orvane CAN gateways (through liborvanecan.so)
Requires-Dist: python-can (>=4.0)
")
file(CONFIGURE OUTPUT ${ORVANE_DIST_INFO}/entry_points.txt CONTENT "[can.interface]
orvane = orvane_can:OrvaneBus
")
file(CONFIGURE OUTPUT ${ORVANE_DIST_INFO}/top_level.txt CONTENT "orvane_can
")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/python/orvane_can DESTINATION ${ORVANE_PYTHON_DIR}
        FILES_MATCHING PATTERN "*.py" PATTERN "__pycache__" EXCLUDE)
install(DIRECTORY ${ORVANE_DIST_INFO} DESTINATION ${ORVANE_PYTHON_DIR})
# Tells the package where its library was installed.
orvane_install_configured(${PROJECT_SOURCE_DIR}/python/orvane_can/_installed.py.in ${ORVANE_PYTHON_DIR}/orvane_can)

# Debian package: cpack -G DEB in the build folder.
set(CPACK_PACKAGE_NAME orvane)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Orvane bridge developers")
set(CPACK_PACKAGE_CONTACT "Orvane bridge developers <orvane-bridge@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "SocketCAN bridge and client library for Orvane CAN gateways")
set(CPACK_PACKAGE_DESCRIPTION
    "orvane-bridge makes one CAN port of a networked Orvane CAN gateway appear as a local SocketCAN interface. The package also holds the Orvane client library (static C++ libraries, the C application interface liborvanecan.so and their headers), the gateway simulator orvane-gateway-sim, the firmware image tool orvane-hex, a systemd template unit and man pages.")
set(CPACK_DEBIAN_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON) # Depends from the programs' shared libraries (dpkg-shlibdeps)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "python3-can") # for the python-can interface
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
include(CPack)

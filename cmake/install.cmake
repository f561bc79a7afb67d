# Says which files `cmake --install` installs and where, and makes `cpack` build Debian packages of
# them. There are five components, each of them a package: runtime, dev, python, tools and
# exporter. The top-level CMakeLists.txt includes this file after all targets are defined.

include(CMakePackageConfigHelpers)

set(zeb_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zebstats)
set(zeb_man_dir ${CMAKE_INSTALL_MANDIR})

# ---- The library ---------------------------------------------------------------------------------

set_target_properties(zebstats_static PROPERTIES EXPORT_NAME static)
install(TARGETS zebstats zebstats_static EXPORT zebstatsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/zebstats.h include/zebstats.hpp
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

install(EXPORT zebstatsTargets NAMESPACE zebstats:: DESTINATION ${zeb_cmake_dir} COMPONENT dev)
configure_package_config_file(cmake/zebstatsConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zebstatsConfig.cmake INSTALL_DESTINATION ${zeb_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zebstatsConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zebstatsConfig.cmake
  ${PROJECT_BINARY_DIR}/zebstatsConfigVersion.cmake
  DESTINATION ${zeb_cmake_dir} COMPONENT dev)

# Written during the installation, when the prefix is known: `cmake --install --prefix` and cpack
# can change it.
install(CODE "
  set(ZEB_PC_VERSION \"${PROJECT_VERSION}\")
  set(ZEB_PC_DESCRIPTION \"${PROJECT_DESCRIPTION}\")
  cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX NORMALIZE OUTPUT_VARIABLE CMAKE_INSTALL_PREFIX)
  foreach(dir LIBDIR INCLUDEDIR)
    set(ZEB_PC_LIBDIR_GIVEN \"${CMAKE_INSTALL_LIBDIR}\")
    set(ZEB_PC_INCLUDEDIR_GIVEN \"${CMAKE_INSTALL_INCLUDEDIR}\")
    cmake_path(ABSOLUTE_PATH ZEB_PC_\${dir}_GIVEN
      BASE_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}\" NORMALIZE OUTPUT_VARIABLE ZEB_PC_\${dir})
  endforeach()
  configure_file(
    \"${PROJECT_SOURCE_DIR}/cmake/zebstats.pc.in\" \"${PROJECT_BINARY_DIR}/zebstats.pc\" @ONLY)"
  COMPONENT dev)
install(FILES ${PROJECT_BINARY_DIR}/zebstats.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT dev
  PATTERN "*.py" EXCLUDE)

# ---- Manual pages --------------------------------------------------------------------------------

# Each line is a family of calls. Its manual page has the name of the first call; for the others,
# links to that page are installed.
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/man)
set(zeb_man_families
  "openGatewayConnection openRemoteGatewayConnection closeGatewayConnection \
closeAllGatewayConnections"
  "getStats getStatsByStatId getStatsByStatGroupId getStatIds getStatIdsByStatGroupId \
getResourceGroupIds"
  "getFirstStat getNextStat getFirstId getNextId"
  "copyResultSet freeResultSet dumpResultSet getIdQuery"
  "setAPITimeout getAPITimeout getAPICodeText"
  "setAPITraceLevel getAPITraceLevel setAPITraceFile getStatsAPIVersion dumpState")
install(FILES man/libzebstats.3 DESTINATION ${zeb_man_dir}/man3 COMPONENT dev)
foreach(family ${zeb_man_families})
  separate_arguments(calls UNIX_COMMAND ${family})
  list(POP_FRONT calls page)
  install(FILES man/${page}.3 DESTINATION ${zeb_man_dir}/man3 COMPONENT dev)
  foreach(call ${calls})
    file(CREATE_LINK ${page}.3 ${PROJECT_BINARY_DIR}/man/${call}.3 SYMBOLIC)
    install(FILES ${PROJECT_BINARY_DIR}/man/${call}.3 DESTINATION ${zeb_man_dir}/man3 COMPONENT dev)
  endforeach()
endforeach()

# ---- Python --------------------------------------------------------------------------------------
# Only for the Debian package, because other prefixes have no folder that every Python searches:
# there, `pip install ./python` finds the right one.

set(zeb_python_dir lib/python3/dist-packages)
install(DIRECTORY python/zebstats DESTINATION ${zeb_python_dir} COMPONENT python EXCLUDE_FROM_ALL
  PATTERN __pycache__ EXCLUDE)
file(CONFIGURE OUTPUT python/METADATA
  CONTENT "Metadata-Version: 2.1\nName: zebstats\nVersion: ${PROJECT_VERSION}\n")
install(FILES ${PROJECT_BINARY_DIR}/python/METADATA COMPONENT python EXCLUDE_FROM_ALL
  DESTINATION ${zeb_python_dir}/zebstats-${PROJECT_VERSION}.dist-info)
install(FILES python/README.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/python3-zebstats
  COMPONENT python EXCLUDE_FROM_ALL)
install(FILES examples/poll_gateways.py COMPONENT python EXCLUDE_FROM_ALL
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/python3-zebstats/examples)

# ---- Tools ---------------------------------------------------------------------------------------

if(ZEB_BUILD_TOOLS)
  install(TARGETS zebstat zebgatewaysim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(FILES man/zebstat.1 man/zebstat-live.1 man/zebgatewaysim.1
    DESTINATION ${zeb_man_dir}/man1 COMPONENT tools)
  install(TARGETS zebstats-exporter RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT exporter)
  install(FILES man/zebstats-exporter.1 DESTINATION ${zeb_man_dir}/man1 COMPONENT exporter)
  install(FILES share/zebgatewaysim-metadata.json
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zebstats COMPONENT exporter)
  install(FILES prometheus/alerts.yml
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zebstats/prometheus COMPONENT exporter)
  install(FILES grafana/zebstats.json
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zebstats/grafana COMPONENT exporter)
  install(FILES docs/scale.md
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/zebstats-exporter COMPONENT exporter)

  # The service. A package has its defaults in /etc, any other installation below its prefix.
  set(zeb_defaults_dir ${CMAKE_INSTALL_SYSCONFDIR}/default)
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(zeb_defaults_dir ${CMAKE_INSTALL_FULL_SYSCONFDIR}/default)
  endif()
  cmake_path(ABSOLUTE_PATH zeb_defaults_dir
    BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX} OUTPUT_VARIABLE ZEB_DEFAULTS_DIR)
  configure_file(packaging/exporter/zebstats-exporter.service.in
    ${PROJECT_BINARY_DIR}/zebstats-exporter.service @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/zebstats-exporter.service
    DESTINATION lib/systemd/system COMPONENT exporter)
  install(FILES packaging/exporter/zebstats-exporter.default RENAME zebstats-exporter
    DESTINATION ${zeb_defaults_dir} COMPONENT exporter)
endif()

# ---- Debian packages -----------------------------------------------------------------------------
# They need -DCMAKE_INSTALL_PREFIX=/usr, because the library's folder depends on the prefix.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "zebstats maintainers <maintainers@zebstats.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each component has its own
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev python)
if(ZEB_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools exporter)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/source)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/finish_packages.cmake)
set(CPACK_ZEB_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_ZEB_CHANGELOG ${PROJECT_SOURCE_DIR}/CHANGELOG.md)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzebstats${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# cpack adds scripts, but no trigger.
file(CONFIGURE OUTPUT debian/triggers CONTENT "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "statistics API of a transaction gateway (library)
Monitoring programs read the runtime statistics of a gateway with it.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzebstats-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libzebstats${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION "statistics API of a transaction gateway (development)
The headers for C and C++, the static library, manual pages and examples.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-zebstats)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
  "python3 (>= 3.9), libzebstats${PROJECT_VERSION_MAJOR} (>= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "statistics API of a transaction gateway (Python)
Reads the runtime statistics of gateways into plain Python objects.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zebstats-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "zebstats-exporter")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "shows the statistics of a transaction gateway
zebstat shows and checks statistics; zebgatewaysim is a simulated gateway for
tests without a real one.")
set(CPACK_DEBIAN_EXPORTER_PACKAGE_NAME zebstats-exporter)
set(CPACK_DEBIAN_EXPORTER_PACKAGE_SECTION net)
set(CPACK_DEBIAN_EXPORTER_PACKAGE_DEPENDS
  "libzebstats${PROJECT_VERSION_MAJOR} (>= ${PROJECT_VERSION})")
set(zeb_control ${PROJECT_SOURCE_DIR}/packaging/exporter)
set(CPACK_DEBIAN_EXPORTER_PACKAGE_CONTROL_EXTRA ${zeb_control}/conffiles ${zeb_control}/postinst
  ${zeb_control}/prerm ${zeb_control}/postrm)
set(CPACK_COMPONENT_EXPORTER_DESCRIPTION "serves gateway statistics to Prometheus
zebstats-exporter asks any number of transaction gateways for their runtime
statistics when a Prometheus server scrapes it. The package has its service,
alerts for Prometheus and a dashboard for Grafana.")
include(CPack)

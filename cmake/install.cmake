# What is installed, and where. Headers keep their folders, one level down, so that nothing called
# platform/ lies about in the system's include directory.
include(CMakePackageConfigHelpers)
set(include_dir ${CMAKE_INSTALL_INCLUDEDIR}/tarvo-${PROJECT_VERSION_MAJOR})
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tarvo_mpls_discovery)

set_target_properties(tarvo_mpls_discovery PROPERTIES EXPORT_NAME mpls_discovery)
set_target_properties(tarvo_platform PROPERTIES EXPORT_NAME platform)
set_target_properties(tarvo_mpls_discovery tarvo_platform PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
target_include_directories(tarvo_mpls_discovery INTERFACE $<INSTALL_INTERFACE:${include_dir}>)
target_include_directories(tarvo_platform INTERFACE $<INSTALL_INTERFACE:${include_dir}>)

# Whoever loads the module calls the platform layer too.
target_link_libraries(tarvo_mpls_discovery INTERFACE tarvo_platform)

install(TARGETS tarvo_mpls_discovery tarvo_platform EXPORT targets)
install(TARGETS tarvo-agent)
install(FILES docs/tarvo-agent.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES docs/tarvo-platform-check.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(DIRECTORY include/tarvo DESTINATION ${include_dir} FILES_MATCHING PATTERN *.h)
install(DIRECTORY platform DESTINATION ${include_dir}
  FILES_MATCHING PATTERN *.h PATTERN *_private.h EXCLUDE PATTERN check EXCLUDE)

install(EXPORT targets NAMESPACE tarvo:: DESTINATION ${package_dir}
  FILE tarvo_mpls_discovery-targets.cmake)
write_basic_package_version_file(tarvo_mpls_discovery-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES cmake/tarvo_mpls_discovery-config.cmake
  ${PROJECT_BINARY_DIR}/tarvo_mpls_discovery-config-version.cmake DESTINATION ${package_dir})

# Written at installation, since its prefix may be another than the configured one.
install(CODE "
  file(READ ${PROJECT_SOURCE_DIR}/agent/tarvo-agent.service unit)
  string(REPLACE /usr/bin/ \${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/ unit \"\${unit}\")
  file(WRITE \$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/systemd/system/tarvo-agent.service
    \"\${unit}\")")
foreach(name tarvo-mpls-discovery tarvo-platform)
  install(CODE "
    set(PROJECT_VERSION ${PROJECT_VERSION})
    set(libdir ${CMAKE_INSTALL_LIBDIR})
    set(includedir ${include_dir})
    configure_file(${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in
      \$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig/${name}.pc @ONLY)")
endforeach()

# What is installed beside the targets' own files: how other builds find the library, the manual
# pages and the dissector.

include(CMakePackageConfigHelpers)

# The library needs no other CMake package, so the list of its targets is all of its configuration.
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/velmar_sastox)
install(EXPORT velmar_sastox NAMESPACE velmar_sastox:: FILE velmar_sastox-config.cmake
  DESTINATION ${package_dir} COMPONENT development)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/velmar_sastox-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/velmar_sastox-config-version.cmake
  DESTINATION ${package_dir} COMPONENT development)

dm_install_configured(cmake/velmar_sastox.pc.in ${CMAKE_INSTALL_LIBDIR}/pkgconfig development)

file(GLOB manual_pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.[1-9])
foreach(page IN LISTS manual_pages)
  string(REGEX MATCH "[1-9]$" section ${page})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT tools)
endforeach()

file(GLOB dissectors CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tools/wireshark/*.lua)
install(FILES ${dissectors}
  DESTINATION ${CMAKE_INSTALL_DATADIR}/velmar_sastox/wireshark COMPONENT tools)

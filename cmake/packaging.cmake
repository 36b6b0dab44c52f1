# Debian packages, one for each component: `cpack` makes them, scripts/package.sh does all of it.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "velmar sastox developers")
set(CPACK_PACKAGE_CONTACT "velmar sastox developers <developers@example.org>")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_STRIP_FILES ON)
# The settings' file belongs below /etc, whatever the prefix is.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/add_debian_files.cmake)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SOURCE velmar-sastox)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(package_version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})

# The packages' programs and libraries need each other; the tools find these in the build tree.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvelmar-sastox${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"messaging framework for device-monitoring daemons
The library gives the daemons of a device-monitoring service one messaging
framework over several transports, the event loop that drives it, tasks,
timed locks, queues and containers.

With it comes the platform layer for ordinary Linux machines.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvelmar-sastox-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${package_version})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"messaging framework for device-monitoring daemons (development)
The headers of the library and of its platform layer, files by which
pkg-config and CMake find them, and short examples in C.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME velmar-sastox-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
  "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (>= ${package_version})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/conffiles
  ${PROJECT_SOURCE_DIR}/packaging/postinst
  ${PROJECT_SOURCE_DIR}/packaging/prerm)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
"daemon and command-line peer of a device-monitoring service
dmond answers requests for the state of its machine: load, memory, file
systems, sensors. A systemd unit for it is included.

dmcat sends requests to such daemons, prints their answers, measures round
trips, and answers requests itself.")

include(CPack)

# Run by cpack, between the installation into its directory and the making of the packages: adds
# what Debian wants in each package, and compresses what it wants compressed.

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} name)
  set(package ${CPACK_DEBIAN_${name}_PACKAGE_NAME})
  set(share ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr/share)
  file(COPY ${CMAKE_CURRENT_LIST_DIR}/copyright ${CMAKE_CURRENT_LIST_DIR}/changelog.Debian DESTINATION ${share}/doc/${package}
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  if(EXISTS ${CMAKE_CURRENT_LIST_DIR}/${package}.lintian-overrides)
    file(COPY ${CMAKE_CURRENT_LIST_DIR}/${package}.lintian-overrides DESTINATION ${share}/lintian/overrides
      FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    file(RENAME ${share}/lintian/overrides/${package}.lintian-overrides
      ${share}/lintian/overrides/${package})
  endif()
  file(GLOB pages ${share}/man/man?/*)
  execute_process(COMMAND gzip -9nf ${share}/doc/${package}/changelog.Debian ${pages}
    COMMAND_ERROR_IS_FATAL ANY)
endforeach()

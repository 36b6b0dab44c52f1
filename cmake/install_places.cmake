# Where things are installed, and how installed files find the libraries.

include(GNUInstallDirs)
set(dm_install_headers ${CMAKE_INSTALL_INCLUDEDIR}/velmar_sastox)

# The way is relative, so that the prefix can be moved. Where the loader looks anyway, none is needed.
if(NOT CMAKE_INSTALL_FULL_LIBDIR IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
  file(RELATIVE_PATH libraries ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set(dm_library_rpath $ORIGIN)
  set(dm_program_rpath $ORIGIN/${libraries})
endif()

# dm_install_configured(template destination component): installs NAME of the template NAME.in, with
# the places filled in. That is done with the installation: before it the prefix is not certain.
function(dm_install_configured template destination component)
  cmake_path(GET template STEM LAST_ONLY name)
  install(CODE "
    set(PROJECT_VERSION ${PROJECT_VERSION})
    set(bindir ${CMAKE_INSTALL_BINDIR})
    set(libdir ${CMAKE_INSTALL_LIBDIR})
    set(sysconfdir ${CMAKE_INSTALL_SYSCONFDIR})
    set(headers ${dm_install_headers})
    foreach(place IN ITEMS bindir libdir sysconfdir headers)
      cmake_path(ABSOLUTE_PATH \${place} BASE_DIRECTORY \${CMAKE_INSTALL_PREFIX})
    endforeach()
    configure_file(${CMAKE_CURRENT_SOURCE_DIR}/${template} ${CMAKE_CURRENT_BINARY_DIR}/${name} @ONLY)"
    COMPONENT ${component})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}
    DESTINATION ${destination} COMPONENT ${component})
endfunction()

# The manuals, as they are: man/NAME.SECTION.

foreach(page IN ITEMS
    KELOTLS_acquire_server_context.3
    KELOTLS_release_context.3
    kelotls_APIProvider.3
    kelotls_DataStoreProvider.3
    kelotls_ServiceDesc.3
    kelotls_TlsProfileLevel.3
    libkelotls.3
    kelotls-datastore.5
    kelotls-registration.5
    kelotls-levels.7
    kelotls-template.7
    kelotlsctl.8)
  string(REGEX REPLACE ".*\\." "" section ${page})
  install(FILES man/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()

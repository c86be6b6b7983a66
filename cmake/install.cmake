# What `cmake --install` puts into the system: the programs, their manual pages and completion files.
include(GNUInstallDirs)
install(TARGETS MonitoringAgent RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS kvreg kvlab RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES packaging/man/MonitoringAgent.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${CMAKE_BINARY_DIR}/pages/kvreg.1 ${CMAKE_BINARY_DIR}/pages/kvlab.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_BINARY_DIR}/pages/completions/kvreg ${CMAKE_BINARY_DIR}/pages/completions/kvlab
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)

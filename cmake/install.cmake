# What `cmake --install` puts into the system: the programs, their manual pages and completion files.
include(GNUInstallDirs)
install(TARGETS MonitoringAgent RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS kvagentctl kvreg kvlab RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES packaging/man/MonitoringAgent.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
foreach(program kvagentctl kvreg kvlab)
  install(FILES ${CMAKE_BINARY_DIR}/pages/${program}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES ${CMAKE_BINARY_DIR}/pages/completions/${program}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endforeach()

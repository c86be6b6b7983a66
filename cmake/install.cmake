# What `cmake --install` puts into the system: the programs and their manual pages.
include(GNUInstallDirs)
install(TARGETS MonitoringAgent RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS kvreg kvlab RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES packaging/man/MonitoringAgent.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES packaging/man/kvreg.1 packaging/man/kvlab.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

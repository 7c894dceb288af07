# Installs the programs, their helpers and the manuals. packaging/ has the files for the system:
# service unit, user, rules.
include(GNUInstallDirs)

install(TARGETS gripperd romflasher gripper-gateway RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS gripperctl gripper-simulator gripper-firmware-image
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# gripper-gateway --demo runs `isolated`.
install(PROGRAMS packaging/wait-for-flasher scripts/isolated
        DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/gripperd)
install(FILES completion/gripperctl DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES completion/_gripperctl DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
install(FILES completion/gripperctl.fish
        DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)

foreach(section 1 7 8)
  file(GLOB pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/*.${section})
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()

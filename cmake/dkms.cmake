# The kernel driver's sources and what a machine needs besides, for the package tarvo-dkms alone: an
# installation below a prefix of one's own has no kernel to build for.
set(here ${PROJECT_SOURCE_DIR}/packaging/dkms)
set(made ${PROJECT_BINARY_DIR}/dkms)
set(in_package COMPONENT dkms EXCLUDE_FROM_ALL)
configure_file(${here}/dkms.conf.in ${made}/dkms.conf @ONLY)

set(sources src/tarvo-${PROJECT_VERSION})
install(DIRECTORY kernel/ DESTINATION ${sources} ${in_package}
    FILES_MATCHING PATTERN "*.[ch]" PATTERN Kbuild PATTERN Makefile PATTERN "*.mod.c" EXCLUDE)
install(FILES ${made}/dkms.conf DESTINATION ${sources} ${in_package})
install(FILES ${here}/modprobe.conf DESTINATION etc/modprobe.d RENAME tarvo.conf ${in_package})
install(FILES ${here}/60-tarvo.rules DESTINATION lib/udev/rules.d ${in_package})
install(FILES ${here}/tmpfiles.conf DESTINATION lib/tmpfiles.d RENAME tarvo-dkms.conf ${in_package})
install(FILES kernel/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} ${in_package})
install(FILES ${driver_manual} DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 ${in_package})

# Always enabled; without a region in /etc/modprobe.d it does nothing.
file(MAKE_DIRECTORY ${made}/sysinit.target.wants)
file(CREATE_LINK ../tarvo.service ${made}/sysinit.target.wants/tarvo.service SYMBOLIC)
set(units lib/systemd/system)
install(FILES ${here}/tarvo.service DESTINATION ${units} ${in_package})
install(FILES ${made}/sysinit.target.wants/tarvo.service
    DESTINATION ${units}/sysinit.target.wants ${in_package})

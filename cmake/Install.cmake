# What `cmake --install` puts where, in components that the wheel and the package choose from:
#   program    the program and its man page
#   documents  documents and notices
#   companion  vkctl for Debian's own Python; only if it is asked for by name, as the package does
include(GNUInstallDirs)

set(notices ${CMAKE_INSTALL_DOCDIR})
if(SKBUILD)
  # In a wheel these folders are the environment's.
  set(notices ${SKBUILD_DATA_DIR}/share/doc/vk_rund)
  set(CMAKE_INSTALL_BINDIR ${SKBUILD_SCRIPTS_DIR})
  set(CMAKE_INSTALL_MANDIR ${SKBUILD_DATA_DIR}/share/man)
endif()

foreach(page vk_rund vkctl)
  configure_file(${PROJECT_SOURCE_DIR}/docs/man/${page}.1.in ${PROJECT_BINARY_DIR}/${page}.1 @ONLY)
endforeach()

install(TARGETS vk_rund RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT program)
install(FILES ${PROJECT_BINARY_DIR}/vk_rund.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
  COMPONENT program)
if(MKL_LICENCE)
  install(FILES ${MKL_LICENCE} DESTINATION ${notices} RENAME oneMKL-LICENSE.txt COMPONENT program)
endif()
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/ARCHITECTURE.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documents)
if(SKBUILD)
  install(FILES ${PROJECT_BINARY_DIR}/vkctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
    COMPONENT program)
endif()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION ${CMAKE_INSTALL_DOCDIR}
  COMPONENT documents PATTERN man EXCLUDE)

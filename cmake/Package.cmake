# What `cpack` packs: one Debian package of both programs, for the release it is built on. The solver's
# libraries and the companion's are Debian's own, so the preset `package` takes the open maths libraries.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vk-rund)
set(CPACK_PACKAGE_CONTACT "${VK_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION
  "vk_rund solves the load cases of prepared working directories, in topology-optimisation
loops for example; vkctl prepares the directories, runs the solver and reads its results.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_COMPONENTS_ALL program documents companion)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION science)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS
  "python3 (>= 3.11), python3-numpy, python3-scipy, python3-typer, python3-rich, python3-tomli-w")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "python3-matplotlib, python3-pil")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "python3-gmsh (>= 4.12)")

set(scripts ${PROJECT_BINARY_DIR}/package)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${scripts}/postinst ${scripts}/prerm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
file(CONFIGURE OUTPUT ${scripts}/postinst CONTENT
"#!/bin/sh
set -e
[ \"$1\" != configure ] || py3compile -p vk-rund
" @ONLY)
file(CONFIGURE OUTPUT ${scripts}/prerm CONTENT "#!/bin/sh
set -e
py3clean -p vk-rund
" @ONLY)
file(CONFIGURE OUTPUT ${scripts}/vkctl CONTENT "#!/usr/bin/python3
from vkctl.__main__ import main

main()
" @ONLY)
# By this the companion knows its version.
file(CONFIGURE OUTPUT ${scripts}/METADATA CONTENT "Metadata-Version: 2.1
Name: vkctl
Version: @PROJECT_VERSION@
Summary: @PROJECT_DESCRIPTION@
" @ONLY)

set(python lib/python3/dist-packages)
set(companion COMPONENT companion EXCLUDE_FROM_ALL)
install(PROGRAMS ${scripts}/vkctl DESTINATION ${CMAKE_INSTALL_BINDIR} ${companion})
install(FILES ${PROJECT_BINARY_DIR}/vkctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 ${companion})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/vkctl/src/vkctl DESTINATION ${python} ${companion}
  PATTERN __pycache__ EXCLUDE)
install(FILES ${scripts}/METADATA DESTINATION ${python}/vkctl-${PROJECT_VERSION}.dist-info
  ${companion})
install(FILES ${PROJECT_SOURCE_DIR}/docs/licences.md DESTINATION share/doc/vk-rund
  RENAME copyright ${companion})
include(CPack)

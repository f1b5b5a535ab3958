# SPDX-License-Identifier: Apache-2.0
# Debian packages, which `make packages` builds: the library, what it takes to build against it, the programs.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "Vantrel <packages@example.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_HOMEPAGE_URL https://example.org/vantrel)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library development tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# What the programs find beside them in the build is another package.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(library libvantrel${VANTREL_ABI})

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION
  "make-before-break programming of prioritized hardware tables
 Decides in which order the entries of a TCAM are added, updated, moved and deleted so that at no moment an
 entry lies before another one that should win, and acknowledges what was done.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvantrel-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${library} (= ${PROJECT_VERSION}), libboost1.81-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
  "make-before-break programming of prioritized hardware tables: headers
 What a program needs that is built against ${library}: headers, a CMake package, a pkg-config file.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME vantrel-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${library} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/apps/vantreld/postinst)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
  "make-before-break programming of prioritized hardware tables: programs
 vantreld, the reference agent, with a unit for systemd, and vantrel, the operator's command.")

file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
include(CPack)

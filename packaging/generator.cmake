# SPDX-License-Identifier: MIT
# Read by CPack for each kind of package: a tarball unpacks into a folder of its own, a Debian package into the system.
if(CPACK_GENERATOR STREQUAL DEB)
  set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/debian/tree.cmake)
else()
  set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
endif()

# SPDX-License-Identifier: MIT
# The packages: `cpack -G DEB` makes kvr, kvr-dev and kvr-channel, `cpack -G TGZ` a tarball of each. scripts/package makes them
# from a build of its own.
set(CPACK_PACKAGE_NAME kvr)
set(CPACK_PACKAGE_VENDOR "The maintainers of the message channel")
set(CPACK_PACKAGE_FILE_NAME kvr-${PROJECT_VERSION}) # the folder that a tarball unpacks into
set(CPACK_PACKAGE_CONTACT "Maintainers of the message channel <maintainers@kvr.example.org>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_COMPONENTS_ALL kvr dev channel)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_THREADS 0)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/generator.cmake)

string(TOLOWER "${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR}" system)
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_ARCHIVE_KVR_FILE_NAME kvr-${PROJECT_VERSION}-${system})
set(CPACK_ARCHIVE_DEV_FILE_NAME kvr-dev-${PROJECT_VERSION}-${system})
set(CPACK_ARCHIVE_CHANNEL_FILE_NAME kvr-channel-${PROJECT_VERSION}-${system})

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(KVR_DEBIAN_FOLDER ${CMAKE_CURRENT_BINARY_DIR}/debian)
set(CPACK_KVR_CHANGELOG ${KVR_DEBIAN_FOLDER}/changelog)

set(CPACK_DEBIAN_KVR_PACKAGE_NAME kvr)
set(CPACK_DEBIAN_KVR_PACKAGE_DEPENDS adduser)
set(CPACK_DEBIAN_KVR_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/debian/postinst ${CMAKE_CURRENT_LIST_DIR}/debian/prerm
    ${CMAKE_CURRENT_LIST_DIR}/debian/postrm ${CMAKE_CURRENT_LIST_DIR}/debian/conffiles
    ${CMAKE_CURRENT_LIST_DIR}/debian/shlibs ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)
set(CPACK_COMPONENT_KVR_DESCRIPTION
"message channel between queue managers
A queue manager keeps messages on queues; a channel moves them, with attached
files, to a queue manager of another machine, over TCP or TLS. This package has
the operator's program kvr, the channel with its embedded queue manager, the
listener, units to run them as services, and the library through which programs
put and take messages.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME kvr-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SOURCE kvr)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "kvr (>= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION
"message queues for programs: headers of the library
What C and C++ programs are built with that put and take messages of a queue
manager, alone or several as one unit of work: headers, pkg-config and CMake
packages, examples.")

set(CPACK_DEBIAN_CHANNEL_PACKAGE_NAME kvr-channel)
set(CPACK_DEBIAN_CHANNEL_PACKAGE_SOURCE kvr)
# A site's host brings these; here they only have to be found.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_COMPONENT_CHANNEL_DESCRIPTION
"sending end of a message channel, for a host that a site has
The channel plug-in and its TCP client library, without the queue manager, the
programs and the services of the package kvr. The folder with both may be moved
to wherever the host looks for its plug-ins.")

# The changes stand in CHANGELOG.md; what Debian calls so has the number of the release and its day.
string(TIMESTAMP release_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in ${KVR_DEBIAN_FOLDER}/changelog @ONLY)
include(CPack)

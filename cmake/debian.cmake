# cpack -G DEB: the Debian packages pccast, pccast-receiver and pccast-dev, one of each install component. A build that is
# configured with CMAKE_INSTALL_PREFIX=/usr puts the libraries into Debian's folder of the architecture, any other
# into /usr/lib; both work.
set(PCCAST_DEBIAN ${PROJECT_SOURCE_DIR}/packaging/debian)
set(PCCAST_PACKAGE_MAINTAINER "PCCAST maintainers"
    CACHE STRING "Who answers for the Debian packages; Debian itself wants Name <address>")

set(CPACK_PACKAGE_NAME pccast)
set(CPACK_PACKAGE_VENDOR PCCAST)
set(CPACK_PACKAGE_CONTACT "${PCCAST_PACKAGE_MAINTAINER}")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime receiver development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
# Owner root and no write permission for the group, whatever the umask of the one who builds.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# Compresses what policy wants compressed, takes the run paths out, adds the files of share/doc.
set(CPACK_PRE_BUILD_SCRIPTS ${PCCAST_DEBIAN}/finish.cmake)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME pccast)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION net)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${PCCAST_DEBIAN}/postinst ${PCCAST_DEBIAN}/prerm ${PCCAST_DEBIAN}/postrm
    ${PCCAST_DEBIAN}/shlibs ${PCCAST_DEBIAN}/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
"PCCAST relays live UDP streams to multicast groups, plays stored MPEG
transport streams and ASF files to them, announces what is on air, and
broadcasts text messages.

This package has the plug-in, the program that hosts it and hands requests
to it, a systemd unit, and samples.")

# tune and receive are commands of the program pccast, so this package needs that of the program.
set(CPACK_DEBIAN_RECEIVER_PACKAGE_NAME pccast-receiver)
set(CPACK_DEBIAN_RECEIVER_PACKAGE_SECTION video)
set(CPACK_DEBIAN_RECEIVER_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_RECEIVER_PACKAGE_DEPENDS "pccast (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_RECEIVER_PACKAGE_RECOMMENDS mpv)
set(CPACK_DEBIAN_RECEIVER_PACKAGE_SUGGESTS python3)
set(CPACK_COMPONENT_RECEIVER_DESCRIPTION
"PCCAST relays live UDP streams to multicast groups, plays stored files to
them, announces what is on air, and broadcasts text messages.

This package makes a machine a receiver: with pccast tune it shows the cast
that is on air, and messages over it. It has the systemd user unit for a
screen, and an example of a receiver of one's own.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME pccast-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "pccast (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
"PCCAST relays live UDP streams to multicast groups, plays stored files to
them, announces what is on air, and broadcasts text messages.

This package has what a host component in C or C++ is built with: the
headers, the pkg-config file, the CMake package and an example.")

include(CPack)

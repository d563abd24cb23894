# The Debian package: run cpack in the folder of a release build. It holds the component corvane,
# installed below /usr.

if(NOT CMAKE_INSTALL_SBINDIR STREQUAL "sbin" OR NOT CORVANE_UNIT_DIR STREQUAL "lib/systemd/system"
        OR NOT CORVANE_UDEV_RULES_DIR STREQUAL "lib/udev/rules.d")
    message(STATUS "Folders have been chosen that Debian does not use: no package can be made")
    return()
endif()

set(CORVANE_DEBIAN_DIR ${CMAKE_CURRENT_SOURCE_DIR}/debian)
set(CORVANE_MAINTAINER "Corvane maintainers <maintainers@corvane.example>" CACHE STRING
    "Whom the package names as its maintainer")

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL corvane)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CORVANE_DEBIAN_DIR}/finish_stage.cmake)
# Its parts are in lower case, and there is one package.
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_CORVANE_PACKAGE_NAME corvane)
set(CPACK_DEBIAN_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CORVANE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "guest agent for virtual machines of QEMU and libvirt")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"Corvane is a service inside a virtual machine through which the host
controls it without a network: it runs programs, moves files, and answers
whether the guest is alive. It serves the QEMU guest agent protocol on a
virtio serial port, or on vsock.
.
The service starts when the host has given the machine the port
org.qemu.guest_agent.0. Whoever can write to the host's end of it has root
in the guest.")
# The shared libraries, as dpkg-shlibdeps finds them in the binary.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Those start the agent. A guest without them starts it from its own init.
if(CORVANE_SYSTEMD)
    set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "systemd, udev")
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CORVANE_DEBIAN_DIR}/postinst ${CORVANE_DEBIAN_DIR}/prerm ${CORVANE_DEBIAN_DIR}/postrm)
include(CPack)

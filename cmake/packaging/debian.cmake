# Debian packages, one a component: `cmake/packaging/build_packages.sh` makes them.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vswitchctl)
set(CPACK_PACKAGE_VENDOR "vswitchctl maintainers")
set(CPACK_PACKAGE_CONTACT "vswitchctl maintainers <maintainers@vswitchctl.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL runtime dev vsctl host python)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/packaging/finish.cmake)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR} ${CMAKE_BINARY_DIR}/platform)

set(same_version "libvswitchctl1 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(about "The control library creates and destroys the virtual switches of a hypervisor host,
 adds ports and uplinks, reads and changes policies (VLAN, teaming, security,
 MAC learning, mirroring, MTU) and asks the kernel's switch driver for its state.
 .
")
function(debian_package component name section synopsis text)
    foreach(pair "PACKAGE_NAME;${name}" "PACKAGE_SECTION;${section}" "DESCRIPTION;${synopsis}\n ${about} ${text}"
                 ${ARGN})
        list(POP_FRONT pair key)
        set(CPACK_DEBIAN_${component}_${key} "${pair}" PARENT_SCOPE)
    endforeach()
endfunction()
debian_package(RUNTIME libvswitchctl1 libs "control of a hypervisor host's virtual switches"
               "This package has the shared library." "PACKAGE_SHLIBDEPS;ON" "PACKAGE_GENERATE_SHLIBS;ON"
               "PACKAGE_MULTIARCH;same")
debian_package(DEV libvswitchctl-dev libdevel "control of virtual switches - development files"
               "This package has the header, what the linker needs, and the reference."
               "PACKAGE_DEPENDS;${same_version}" "PACKAGE_SHLIBDEPS;OFF" "PACKAGE_MULTIARCH;same"
               "PACKAGE_SUGGESTS;vswitchctl-host, pkg-config")
debian_package(VSCTL vsctl net "command for a hypervisor host's virtual switches"
               "This package has the vsctl command." "PACKAGE_SHLIBDEPS;ON" "PACKAGE_DEPENDS;${same_version}")
debian_package(HOST vswitchctl-host net "embedded hypervisor host to run switch control on"
               "This package has an emulated host: configuration store, switch driver and
 shell, so that programs that control switches run and are tested without root." "PACKAGE_SHLIBDEPS;ON")
debian_package(PYTHON python3-vswitchctl python "control of virtual switches - Python module"
               "This package has the Python module." "PACKAGE_DEPENDS;${same_version}, python3"
               "PACKAGE_ARCHITECTURE;all" "PACKAGE_SHLIBDEPS;OFF")
include(CPack)

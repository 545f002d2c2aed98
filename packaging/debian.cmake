# Debian packages, one a component: `packaging/build_packages.sh` makes them.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vswitchctl)
set(CPACK_PACKAGE_VENDOR "vswitchctl maintainers")
set(CPACK_PACKAGE_CONTACT "vswitchctl maintainers <maintainers@vswitchctl.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL runtime dev vsctl ${fleet_component} host ${live_component} python)
if(live_component) # one package has both
    list(APPEND CPACK_COMPONENTS_ALL machine)
    set(CPACK_COMPONENT_LIVE_GROUP live)
    set(CPACK_COMPONENT_MACHINE_GROUP live)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/finish.cmake)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR} ${CMAKE_BINARY_DIR}/platform)

# debian_package(COMPONENT, what it has, FIELD VALUE, …): a package's control fields.
set(about "The control library creates and destroys the virtual switches of a
hypervisor host, adds ports and uplinks, reads and changes policies (VLAN,
teaming, security, MAC learning, mirroring, MTU) and asks the kernel's switch
driver for its state.")
function(debian_package component synopsis text)
    set(CPACK_DEBIAN_${component}_DESCRIPTION "${synopsis}\n${about}\n\n${text}" PARENT_SCOPE)
    while(ARGN)
        list(POP_FRONT ARGN field value)
        set(CPACK_DEBIAN_${component}_${field} "${value}" PARENT_SCOPE)
    endwhile()
endfunction()
set(same_version "libvswitchctl1 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
debian_package(RUNTIME "control of a hypervisor host's virtual switches" "This package has the shared library."
    PACKAGE_NAME libvswitchctl1 PACKAGE_SECTION libs
    PACKAGE_SHLIBDEPS ON PACKAGE_MULTIARCH same)
set(control ${CMAKE_BINARY_DIR}/debian)
file(WRITE ${control}/shlibs "libvswitchctl ${PROJECT_VERSION_MAJOR} libvswitchctl1 (>= ${PROJECT_VERSION})\n")
file(WRITE ${control}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${control}/shlibs ${control}/triggers)
debian_package(DEV "control of virtual switches - development files"
    "This package has the header, what the linker needs, and the reference."
    PACKAGE_NAME libvswitchctl-dev PACKAGE_SECTION libdevel PACKAGE_DEPENDS ${same_version}
    PACKAGE_SUGGESTS "vswitchctl-host, pkg-config" PACKAGE_MULTIARCH same)
debian_package(VSCTL "command for a hypervisor host's virtual switches" "This package has the vsctl command."
    PACKAGE_NAME vsctl PACKAGE_SECTION net PACKAGE_DEPENDS ${same_version} PACKAGE_SUGGESTS graphviz PACKAGE_SHLIBDEPS ON)
debian_package(VSFLEET "one desired state for the virtual switches of many hosts"
    "This package has vsfleet: the agent of a host, the driver of rollouts, and the
command for operators. Hosts follow documents that are kept in etcd."
    PACKAGE_NAME vsfleet PACKAGE_SECTION net PACKAGE_SHLIBDEPS ON PACKAGE_SUGGESTS "etcd-server, etcd-client"
    PACKAGE_RECOMMENDS "vsctl (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
debian_package(HOST "embedded hypervisor host to run switch control on"
    "This package has an emulated host: configuration store, switch driver and
shell, so that programs that control switches run and are tested without root."
    PACKAGE_NAME vswitchctl-host PACKAGE_SECTION net PACKAGE_SHLIBDEPS ON PACKAGE_SUGGESTS vswitchctl-live)
debian_package(LIVE "live hypervisor host, whose virtual switches forward packets"
    "This package makes the machine a live host: the service vshostd forwards
packets in the kernel, and programs that control switches find the store, the
switch driver and the shell."
    PACKAGE_NAME vswitchctl-live PACKAGE_SECTION net PACKAGE_SHLIBDEPS ON
    PACKAGE_DEPENDS "adduser, vswitchctl-host (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})"
    PACKAGE_RECOMMENDS iproute2)
file(STRINGS ${PROJECT_SOURCE_DIR}/platform/live/maps.h layout REGEX "LIVE_LAYOUT_VERSION [0-9]+")
string(REGEX REPLACE ".*LIVE_LAYOUT_VERSION ([0-9]+).*" "\\1" layout "${layout}")
set(libdir ${CMAKE_INSTALL_LIBDIR})
# maintainer_scripts(COMPONENT DIRECTORY SCRIPT…): made of the templates in that directory.
function(maintainer_scripts component directory)
    foreach(script ${ARGN})
        set(made ${control}/${component}/${script})
        configure_file(packaging/${directory}/${script}.in ${made} @ONLY)
        file(CHMOD ${made} PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
             WORLD_EXECUTE)
        list(APPEND scripts ${made})
    endforeach()
    set(CPACK_DEBIAN_${component}_PACKAGE_CONTROL_EXTRA ${scripts} PARENT_SCOPE)
endfunction()
maintainer_scripts(LIVE live preinst postinst prerm postrm)
set(units vsctl-boot.service)
set(state /var/lib/vsctl)
maintainer_scripts(VSCTL units postinst prerm postrm)
set(units "vsfleet-agent.service vsfleet-drive.service")
set(state /var/lib/vswitchctl/fleet)
maintainer_scripts(VSFLEET units postinst prerm postrm)
debian_package(PYTHON "control of virtual switches - Python module" "This package has the Python module."
    PACKAGE_NAME python3-vswitchctl PACKAGE_SECTION python PACKAGE_ARCHITECTURE all
    PACKAGE_DEPENDS "python3:any, ${same_version}")
maintainer_scripts(PYTHON python prerm)
include(CPack)

# What `cmake --install` puts where. Components: runtime, dev, vsctl, vsfleet, host, live, python; machine, which is
# installed only when it is named.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(stub_dir ${CMAKE_INSTALL_LIBDIR}/vswitchctl/stubs)
set(host_dir ${CMAKE_INSTALL_LIBDIR}/vswitchctl-host)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vswitchctl)

# A file with @…@, filled in when it is installed, so that it names the prefix that was asked for.
function(install_configured template destination component)
    install(CODE "
        set(prefix \"\${CMAKE_INSTALL_PREFIX}\")
        set(libdir \"${CMAKE_INSTALL_LIBDIR}\")
        set(includedir \"${CMAKE_INSTALL_INCLUDEDIR}\")
        set(stub_dir \"${stub_dir}\")
        set(host_dir \"${host_dir}\")
        set(version \"${PROJECT_VERSION}\")
        set(soversion \"${PROJECT_VERSION_MAJOR}\")
        configure_file(\"${PROJECT_SOURCE_DIR}/packaging/${template}\"
                       \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${destination}\" @ONLY)"
        COMPONENT ${component})
endfunction()

# The library and what compiles against it.
install(TARGETS vswitchctl LIBRARY COMPONENT runtime NAMELINK_COMPONENT dev DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES include/vswitchctl.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
write_basic_package_version_file(vswitchctl-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vswitchctl-config-version.cmake
        DESTINATION ${package_dir} COMPONENT dev)
install_configured(vswitchctl-config.cmake.in ${package_dir}/vswitchctl-config.cmake dev)
install_configured(vswitchctl.pc.in ${CMAKE_INSTALL_LIBDIR}/pkgconfig/vswitchctl.pc dev)

# The names that the library takes from the platform's store, and nothing behind them: a program links
# where there is no platform. The folder is not on any run path, so that the stub is never loaded.
set(stub ${CMAKE_BINARY_DIR}/stubs/liborkPublic.so)
add_custom_command(OUTPUT ${stub}
    COMMAND ${PROJECT_SOURCE_DIR}/packaging/link_stub.sh ${CMAKE_C_COMPILER} $<TARGET_FILE:vswitchctl> ${stub}
    DEPENDS vswitchctl packaging/link_stub.sh VERBATIM)
add_custom_target(link_stub ALL DEPENDS ${stub})
install(FILES ${stub} DESTINATION ${stub_dir} COMPONENT dev)

# The embedded host, in a folder of its own: its store never stands in for a platform's.
set(host_parts vshostcore orkPublic vshost tybel vshost_launcher)
set_target_properties(${host_parts} PROPERTIES INSTALL_RPATH $ORIGIN)
# The loader may find it by a link from the folder above.
set_target_properties(orkPublic PROPERTIES INSTALL_RPATH "$ORIGIN;$ORIGIN/vswitchctl-host")
install(TARGETS ${host_parts} COMPONENT host
        RUNTIME DESTINATION ${host_dir} LIBRARY DESTINATION ${host_dir})
install(FILES platform/include/vshost.h platform/include/vswitch_driver.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT host)

# A link to TARGET from DIRECTORY/NAME. Further arguments are those of install().
function(install_link target directory name component)
    install(CODE "
        file(MAKE_DIRECTORY \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${directory}\")
        file(CREATE_LINK ${target} \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${directory}/${name}\" SYMBOLIC)"
        COMPONENT ${component} ${ARGN})
endfunction()
install_link(../${host_dir}/vshost ${CMAKE_INSTALL_BINDIR} vshost host)
install_configured(vshost.pc.in ${CMAKE_INSTALL_LIBDIR}/pkgconfig/vshost.pc host)
install_configured(vshost-config.cmake.in ${CMAKE_INSTALL_LIBDIR}/cmake/vshost/vshost-config.cmake host)

# What makes it a live host; it needs more libraries than the host itself.
if(TARGET vshostd)
    set(live_component live)
    set_target_properties(vshostd PROPERTIES INSTALL_RPATH $ORIGIN)
    install(TARGETS vshostd COMPONENT live RUNTIME DESTINATION ${host_dir})
    install_link(../${host_dir}/vshostd ${CMAKE_INSTALL_SBINDIR} vshostd live)

    # What makes the machine itself a host: it takes names that belong to a platform, so nothing installs it by the way.
    install_link(vswitchctl-host/liborkPublic.so ${CMAKE_INSTALL_LIBDIR} liborkPublic.so machine EXCLUDE_FROM_ALL)
    install_link(../${host_dir}/tybel ${CMAKE_INSTALL_BINDIR} tybel machine EXCLUDE_FROM_ALL)
    install_link(/var/lib/vswitchctl/host ${host_dir} machine machine EXCLUDE_FROM_ALL)
    install(FILES packaging/live/tybel.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT machine EXCLUDE_FROM_ALL)
    install(FILES packaging/live/vshostd.service DESTINATION lib/systemd/system COMPONENT machine EXCLUDE_FROM_ALL)
endif()

# A prefix such as $HOME is on no search path of the loader's. The system's own libraries need no help.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    file(RELATIVE_PATH library_dir /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
    set_target_properties(vsctl PROPERTIES INSTALL_RPATH $ORIGIN/${library_dir})
endif()
install(TARGETS vsctl DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT vsctl)
set(unit_dir lib/systemd/system)
install(FILES packaging/vsctl-boot.service DESTINATION ${unit_dir} COMPONENT vsctl)
if(TARGET vsfleet)
    set(fleet_component vsfleet)
    install(TARGETS vsfleet DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT vsfleet)
    install(FILES packaging/vsfleet-agent.service packaging/vsfleet-drive.service DESTINATION ${unit_dir}
            COMPONENT vsfleet)
    install(FILES docs/fleet.md docs/fleet-rollout.svg docs/fleet-host.svg
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/vsfleet COMPONENT vsfleet)
endif()

# Manual pages, the HTML reference and the Python module, made from the header's documentation and the commands' help.
if(VSWITCHCTL_SANITIZE OR VSWITCHCTL_COVERAGE)
    return()
endif()
find_program(DOXYGEN doxygen)
find_package(Python3 COMPONENTS Interpreter)
if(NOT DOXYGEN OR NOT Python3_FOUND)
    message(STATUS "No reference: doxygen or python3 is missing")
    return()
endif()

set(REFERENCE_DIRECTORY ${CMAKE_BINARY_DIR}/reference)
set(reference_tools tools/families.awk tools/header.py tools/example.py
                    tools/manpages.py tools/reference.css
                    tools/command_page.py tools/vsctl_pages.py tools/schema_page.py tools/vshost.roff tools/vshostd.roff
                    tools/vsctl.roff tools/vsfleet.roff tools/command_files.sh)
if(TARGET vshostd)
    set(live_host vshostd)
    set(live_program $<TARGET_FILE:vshostd>)
endif()
if(TARGET vsfleet)
    set(fleet_page COMMAND ${CMAKE_COMMAND} -E make_directory ${REFERENCE_DIRECTORY}/vsfleet/man/man1
        COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/tools/command_page.py $<TARGET_FILE:vsfleet> ${PROJECT_VERSION}
                ${PROJECT_SOURCE_DIR}/tools/vsfleet.roff ${REFERENCE_DIRECTORY}/vsfleet/man/man1/vsfleet.1)
endif()
set(scenario_schema ${PROJECT_SOURCE_DIR}/platform/scenario/scenario.schema.json)
configure_file(tools/Doxyfile.in ${CMAKE_BINARY_DIR}/Doxyfile @ONLY)
add_custom_command(OUTPUT ${REFERENCE_DIRECTORY}/made
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${REFERENCE_DIRECTORY}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${REFERENCE_DIRECTORY}
    COMMAND ${DOXYGEN} ${CMAKE_BINARY_DIR}/Doxyfile
    COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/tools/manpages.py ${REFERENCE_DIRECTORY}/xml
            ${PROJECT_SOURCE_DIR}/include/vswitchctl.h ${REFERENCE_DIRECTORY}/man ${PROJECT_VERSION}
    COMMAND ${PROJECT_SOURCE_DIR}/tools/command_files.sh ${PROJECT_SOURCE_DIR} ${Python3_EXECUTABLE}
            ${PROJECT_VERSION} $<TARGET_FILE:vshost_launcher> $<TARGET_FILE:vsctl> ${REFERENCE_DIRECTORY} ${live_program}
    ${fleet_page}
    COMMAND ${CMAKE_COMMAND} -E touch ${REFERENCE_DIRECTORY}/made
    DEPENDS vshost_launcher vsctl ${live_host} ${fleet_component} ${scenario_schema} include/vswitchctl.h ${CMAKE_BINARY_DIR}/Doxyfile ${reference_tools}
    COMMENT "Reference" VERBATIM)
add_custom_target(reference ALL DEPENDS ${REFERENCE_DIRECTORY}/made)
# The Python module: what is written by hand, and a function for each operation of the header.
set(PYTHON_MODULE ${CMAKE_BINARY_DIR}/python)
file(GLOB written CONFIGURE_DEPENDS bindings/python/vswitchctl/*)
add_custom_command(OUTPUT ${PYTHON_MODULE}/made
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${PYTHON_MODULE}
    COMMAND ${CMAKE_COMMAND} -E copy_directory ${PROJECT_SOURCE_DIR}/bindings/python/vswitchctl ${PYTHON_MODULE}/vswitchctl
    COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/tools/python_module.py ${REFERENCE_DIRECTORY}/xml
            ${PROJECT_SOURCE_DIR}/include/vswitchctl.h ${PYTHON_MODULE}/vswitchctl
    COMMAND ${CMAKE_COMMAND} -E touch ${PYTHON_MODULE}/made
    DEPENDS ${REFERENCE_DIRECTORY}/made tools/python_module.py ${written}
    COMMENT "Python module" VERBATIM)
add_custom_target(python_module ALL DEPENDS ${PYTHON_MODULE}/made)
add_custom_target(installed DEPENDS vswitchctl link_stub ${host_parts} ${live_host} ${fleet_component} vsctl reference python_module)

install(DIRECTORY ${REFERENCE_DIRECTORY}/man/man3 ${REFERENCE_DIRECTORY}/man/man7
        DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT dev)
install(DIRECTORY ${REFERENCE_DIRECTORY}/html DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libvswitchctl-dev COMPONENT dev)
foreach(component host vsctl ${live_component} ${fleet_component})
    install(DIRECTORY ${REFERENCE_DIRECTORY}/${component}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT ${component})
endforeach()
install(DIRECTORY ${REFERENCE_DIRECTORY}/vsctl/share/ DESTINATION ${CMAKE_INSTALL_DATADIR} COMPONENT vsctl)
install(DIRECTORY ${PYTHON_MODULE}/vswitchctl DESTINATION lib/python3/dist-packages COMPONENT python
        FILES_MATCHING PATTERN *.py PATTERN py.typed)
install(FILES ${scenario_schema} DESTINATION ${CMAKE_INSTALL_DATADIR}/vswitchctl COMPONENT host)

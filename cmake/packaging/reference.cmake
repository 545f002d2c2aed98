# Manual pages and the HTML reference, made from the header's documentation.
find_program(DOXYGEN doxygen)
find_package(Python3 COMPONENTS Interpreter)
if(NOT DOXYGEN OR NOT Python3_FOUND)
    message(STATUS "No reference: doxygen or python3 is missing")
    return()
endif()

set(REFERENCE_DIRECTORY ${CMAKE_BINARY_DIR}/reference)
set(reference_tools docs/reference/families.awk docs/reference/header.py docs/reference/example.py
                    docs/reference/manpages.py docs/reference/reference.css
                    docs/reference/command_page.py docs/reference/schema_page.py docs/reference/vshost.roff)
set(scenario_schema ${PROJECT_SOURCE_DIR}/platform/launcher/scenario.schema.json)
configure_file(docs/reference/Doxyfile.in ${CMAKE_BINARY_DIR}/Doxyfile @ONLY)
add_custom_command(OUTPUT ${REFERENCE_DIRECTORY}/made
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${REFERENCE_DIRECTORY}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${REFERENCE_DIRECTORY}
    COMMAND ${DOXYGEN} ${CMAKE_BINARY_DIR}/Doxyfile
    COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/docs/reference/manpages.py ${REFERENCE_DIRECTORY}/xml
            ${PROJECT_SOURCE_DIR}/include/vswitchctl.h ${REFERENCE_DIRECTORY}/man ${PROJECT_VERSION}
    COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/docs/reference/command_page.py $<TARGET_FILE:vshost_launcher>
            ${PROJECT_VERSION} ${PROJECT_SOURCE_DIR}/docs/reference/vshost.roff ${REFERENCE_DIRECTORY}/vshost.1
    COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/docs/reference/schema_page.py ${scenario_schema}
            ${PROJECT_VERSION} ${REFERENCE_DIRECTORY}/vshost-scenario.5
    COMMAND ${CMAKE_COMMAND} -E touch ${REFERENCE_DIRECTORY}/made
    DEPENDS vshost_launcher ${scenario_schema} include/vswitchctl.h ${CMAKE_BINARY_DIR}/Doxyfile ${reference_tools}
    COMMENT "Reference" VERBATIM)
add_custom_target(reference ALL DEPENDS ${REFERENCE_DIRECTORY}/made)

install(DIRECTORY ${REFERENCE_DIRECTORY}/man/man3 ${REFERENCE_DIRECTORY}/man/man7
        DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT dev)
install(DIRECTORY ${REFERENCE_DIRECTORY}/html DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libvswitchctl-dev COMPONENT dev)
install(FILES ${REFERENCE_DIRECTORY}/vshost.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT host)
install(FILES ${REFERENCE_DIRECTORY}/vshost-scenario.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT host)
install(FILES ${scenario_schema} DESTINATION ${CMAKE_INSTALL_DATADIR}/vswitchctl COMPONENT host)

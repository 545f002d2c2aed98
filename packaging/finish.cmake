# Run by CPack over the staged trees, before the packages are made of them.
file(GLOB trees ${CPACK_TEMPORARY_DIRECTORY}/*)
foreach(tree ${trees})
    get_filename_component(component ${tree} NAME)
    string(TOUPPER ${component} upper)
    execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/finish_tree.sh ${tree} ${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
                            ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}
                    COMMAND_ERROR_IS_FATAL ANY)
endforeach()

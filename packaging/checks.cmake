# Light checks of what is installed and documented, for builds that could be shipped.
if(NOT TARGET reference)
    return()
endif()
enable_testing()
set(on_host $<TARGET_FILE:vshost_launcher> run -- ${CMAKE_COMMAND} -E env
            LD_LIBRARY_PATH=${CMAKE_BINARY_DIR}:${CMAKE_BINARY_DIR}/platform)
function(package_test name)
    add_test(NAME package.${name} COMMAND ${ARGN})
    set_tests_properties(package.${name} PROPERTIES LABELS package TIMEOUT 300)
endfunction()

package_test(manual_pages ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/tools/check_manpages.py
             ${PROJECT_SOURCE_DIR}/cmake/vswitchctl.map ${REFERENCE_DIRECTORY}/man)
package_test(examples_compile ${PROJECT_SOURCE_DIR}/tests/package/examples_test.sh
             ${PROJECT_SOURCE_DIR} ${CMAKE_BINARY_DIR})
package_test(install ${PROJECT_SOURCE_DIR}/tests/package/install_test.sh ${PROJECT_SOURCE_DIR} ${CMAKE_BINARY_DIR})
package_test(languages ${PROJECT_SOURCE_DIR}/tests/package/languages_test.sh ${PROJECT_SOURCE_DIR} ${CMAKE_BINARY_DIR})
package_test(python ${on_host} PYTHONPATH=${PYTHON_MODULE} PYTHONDONTWRITEBYTECODE=1
             ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/tests/package/python_test.py
             ${PROJECT_SOURCE_DIR}/cmake/vswitchctl.map)
package_test(python_host ${on_host} PYTHONPATH=${PYTHON_MODULE} PYTHONDONTWRITEBYTECODE=1
             ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/tests/package/host_test.py
             ${PROJECT_SOURCE_DIR} $<TARGET_FILE:vsctl>)
package_test(python_types ${CMAKE_COMMAND} -E env MYPYPATH=${PYTHON_MODULE} mypy --strict --cache-dir=/dev/null
             ${PROJECT_SOURCE_DIR}/tests/package/typed.py)
package_test(python_page ${CMAKE_COMMAND} -E env PYTHONPATH=${PYTHON_MODULE} PYTHONDONTWRITEBYTECODE=1
             ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/tools/python_page.py ${PROJECT_SOURCE_DIR}/docs/python.md --check)
package_test(pip ${PROJECT_SOURCE_DIR}/tests/package/pip_test.sh ${PROJECT_SOURCE_DIR} ${PYTHON_MODULE})
package_test(abi ${PROJECT_SOURCE_DIR}/tests/package/abi_test.sh ${PROJECT_SOURCE_DIR} ${CMAKE_BINARY_DIR})
package_test(guides ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/tests/package/guides_test.py
             ${PROJECT_SOURCE_DIR} ${CMAKE_BINARY_DIR})
package_test(extending ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/tests/package/extending_test.py
             ${PROJECT_SOURCE_DIR} ${CMAKE_BINARY_DIR})
package_test(picture ${PROJECT_SOURCE_DIR}/tests/package/picture_test.sh ${PROJECT_SOURCE_DIR})
set_tests_properties(package.install package.guides PROPERTIES RESOURCE_LOCK install_manifest)
set_tests_properties(package.extending PROPERTIES TIMEOUT 600) # builds a copy of the tree
if(TARGET vshostd)
    package_test(live_page ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/tests/package/live_page_test.py
                 ${PROJECT_SOURCE_DIR} ${CMAKE_BINARY_DIR})
    set_tests_properties(package.live_page PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 300)
endif()

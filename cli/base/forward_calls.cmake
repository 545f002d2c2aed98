# Writes a function for each operation of the library, which loads the library and calls the operation. So vsctl
# starts without a platform, which the library needs. Also writes the table of statuses: names, and what the comments
# say of them. Usage: cmake -D HEADER=… -D OUTPUT=… -P forward_calls.cmake
file(READ ${HEADER} header)
string(REGEX MATCHALL "\nVSWITCHCTL_API [^;]+" declarations "${header}")
set(text "// Made from vswitchctl.h.\n#include \"cli/base/error.h\"\n#include \"cli/base/forward.h\"\n")
foreach(declaration IN LISTS declarations)
    string(REGEX REPLACE "^\nVSWITCHCTL_API " "" declaration "${declaration}")
    string(REGEX REPLACE "[ \n]+" " " declaration "${declaration}")
    if(NOT declaration MATCHES "^[^(]*[ *]([A-Za-z0-9_]+)\\((.*)\\)$")
        message(FATAL_ERROR "${HEADER}: cannot read '${declaration}'")
    endif()
    set(name ${CMAKE_MATCH_1})
    set(parameters "${CMAKE_MATCH_2}")
    if(parameters MATCHES "\\.\\.\\.") # Log and its like, which vsctl does not call
        continue()
    endif()
    set(arguments "")
    if(NOT parameters STREQUAL "void")
        # The last name of each parameter.
        string(REGEX REPLACE "(^|,)[^,]*[ *]([A-Za-z0-9_]+)(\\[[^]]*\\])?" "\\1\\2" arguments "${parameters}")
        string(REPLACE "," ", " arguments "${arguments}")
    endif()
    string(APPEND text "\n${declaration}\n{\n"
           "    static auto *const call = vsctl::Operation<decltype(${name})>(\"${name}\");\n"
           "    return call(${arguments});\n}\n")
endforeach()

string(REPLACE ";" "," statuses "${header}") # a list of CMake ends its entries so
string(REGEX MATCHALL "#define STATUS_[A-Z_]+ 0[^\n]*\\*/" statuses "${statuses}")
string(APPEND text "\nstatic constexpr vsctl::StatusText STATUSES[] = {\n")
foreach(status IN LISTS statuses)
    string(REGEX MATCH "(STATUS_[A-Z_]+).*/\\*\\*< ([A-Z0-9]+: )?(.*) \\*/" status "${status}")
    string(APPEND text "    {${CMAKE_MATCH_1}, \"${CMAKE_MATCH_1}\", \"${CMAKE_MATCH_3}\"},\n")
endforeach()
string(APPEND text "};\n\nstd::span<const vsctl::StatusText> vsctl::StatusTexts() { return STATUSES; }\n")
file(WRITE ${OUTPUT} "${text}")

# Usage: cmake -DNM=... -DPLUGIN=libKestNDI.so.1 -DHOST=libKestHost.so -DSURFACE=hostsurface.txt -P check-surface.cmake
# Fails when the plug-in imports a symbol of the host library that the appliance's host does not
# export: the appliance's loader would refuse the plug-in.
cmake_minimum_required(VERSION 3.25)
execute_process(COMMAND ${NM} -D -C -j --undefined-only ${PLUGIN} OUTPUT_VARIABLE imports OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${NM} -D -C -j --defined-only ${HOST} OUTPUT_VARIABLE exports OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
# One list item per symbol. Our host library has no symbol versions; were it given some, no
# import would match an export and the count check below fails.
string(REPLACE "\n" ";" imports "${imports}")
string(REPLACE "\n" ";" exports "${exports}")
file(STRINGS ${SURFACE} surface REGEX "^[^#]")
foreach(symbol IN LISTS imports)
    if(symbol IN_LIST exports)
        list(APPEND host "${symbol}")
    endif()
endforeach()
set(outside ${host})
list(REMOVE_ITEM outside ${surface})
list(LENGTH host count)
if(outside OR count LESS 20)
    list(JOIN outside "\n  " outside)
    message(FATAL_ERROR "libKestNDI imports host symbols the appliance does not export (${count} host imports found):\n  ${outside}")
endif()
message(STATUS "${count} host imports, all in the declared surface")

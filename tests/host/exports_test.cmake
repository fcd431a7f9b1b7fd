# cmake -DNM=.. -DLIBRARY=.. -P exports_test.cmake: compares the library's symbols with its interface.
set(expected _Z10ServerPortPv _Z14StopHTTPserverPv _Z15StartHTTPServerPKciS0_S0_S0_S0_)
execute_process(COMMAND ${NM} -D --defined-only --format=posix ${LIBRARY} OUTPUT_VARIABLE lines
                COMMAND_ERROR_IS_FATAL ANY)
string(REGEX REPLACE " [^\n]*\n" ";" found "${lines}")
list(REMOVE_ITEM found "")
list(SORT found)
if(NOT found STREQUAL expected)
  message(FATAL_ERROR "exported: ${found}\nexpected: ${expected}")
endif()

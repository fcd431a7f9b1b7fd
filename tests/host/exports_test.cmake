# cmake -DNM=.. -DLIBRARY=.. -DSERVER=.. -P exports_test.cmake: compares the libraries' symbols with their
# interfaces.
cmake_policy(SET CMP0007 NEW)
set(expected _Z10ServerPortPv _Z14StopHTTPserverPv _Z15StartHTTPServerPKciS0_S0_S0_S0_)
execute_process(COMMAND ${NM} -D --defined-only --format=posix ${LIBRARY} OUTPUT_VARIABLE lines
                COMMAND_ERROR_IS_FATAL ANY)
string(REGEX REPLACE " [^\n]*\n" ";" found "${lines}")
list(REMOVE_ITEM found "")
list(SORT found)
if(NOT found STREQUAL expected)
  message(FATAL_ERROR "exported: ${found}\nexpected: ${expected}")
endif()

# Of the C++ interface, by their demangled names: what the public headers declare.
execute_process(COMMAND ${NM} -DC --defined-only --format=posix ${SERVER} OUTPUT_VARIABLE lines
                COMMAND_ERROR_IS_FATAL ANY)
set(classes Answer Client ClientError Document DocumentError Element Later Node Outcome Part Request
            RequestError Server ServerError Store StoreError Stream Upload)
set(functions Ask BasicAuthentication BearerAuthentication Escape SameSecret Unescape)
string(REPLACE ";" "|" classes "${classes}")
string(REPLACE ";" "|" functions "${functions}")
string(REGEX REPLACE "[][;]" "" lines "${lines}")
string(REGEX REPLACE "\n" ";" lines "${lines}")
list(FILTER lines EXCLUDE REGEX
     "^(typeinfo |typeinfo name |vtable )(for velkoro::[A-Za-z]+Error)@@|^velkoro::(${classes})::[~A-Za-z=* ]+[(a]|^velkoro::(${functions})[(a]|^VELKORO_SERVER_1")
list(REMOVE_ITEM lines "")
if(lines)
  message(FATAL_ERROR "exported beside the interface: ${lines}")
endif()

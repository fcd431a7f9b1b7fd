# velkoro animate writes what the command makes, and says with its status when that is the error text.
function(expect status output)
  execute_process(COMMAND "${VELKORO}" animate ${ARGN} RESULT_VARIABLE result
                  OUTPUT_VARIABLE written ERROR_VARIABLE errors TIMEOUT 20)
  if(NOT result EQUAL status OR NOT written MATCHES "^${output}")
    message(FATAL_ERROR "animate ${ARGN}: status ${result}, output ${written}, errors ${errors}")
  endif()
endfunction()

expect(0 "\\.a0 {\n  -webkit-animation: a0 1s 1;\n.*@keyframes a1 {\n.*}\n\n$"
       "!linearanimation(.a,1s,1,2,on,off,5)")
expect(0 "$" "!linearanimation(.a,1s,1,1,on,off,5)")
expect(1 "/\\* error \\*/\n$" "linearanimation(.a,1s,1,2,on,off,5)")
expect(2 "$")

# velkoro markup reads, writes and queries documents, and says on standard error what is wrong with
# them, with nothing on standard output.
function(expect status output errors input)
  file(WRITE "${FOLDER}/input" "${input}")
  execute_process(COMMAND "${VELKORO}" markup ${ARGN} INPUT_FILE "${FOLDER}/input"
                  RESULT_VARIABLE result OUTPUT_VARIABLE written ERROR_VARIABLE said TIMEOUT 20)
  if(NOT result EQUAL status OR NOT written STREQUAL output OR NOT said STREQUAL errors)
    message(FATAL_ERROR "markup ${ARGN}: status ${result}, output '${written}', errors '${said}'")
  endif()
endfunction()

set(document "<?xml version=\"1.0\"?>\n<!-- c -->\n<r><a k='1'/><a k='2'><b/></a></r>\n")
file(WRITE "${FOLDER}/document.xml" "${document}")

expect(0 "<?xml version=\"1.0\"?>\n<!-- c -->\n<r>\n<a k=\"1\" />\n<a k=\"2\">\n<b />\n</a>\n</r>\n" ""
       "${document}" write -)
expect(0 "<a k=\"1\" />\n<a k=\"2\">\n<b />\n</a>" "" "" query ${FOLDER}/document.xml r.a)
expect(0 "1\n2\n" "" "${document}" query - a --attribute k)
expect(1 "" "" "${document}" query - a.b.c)
expect(1 "" "" "${document}" query - a --attribute none)
expect(0 "a{b: c;}" "" "a{b:c}" write --dtd css -)
expect(0 "<p>\nx\n</p>" "" "<!DOCTYPE html><html><body><p>x</p></body></html>"
       query - body.p --dtd html)
expect(0 "{\nvar newelem = document.createElement('div');\nnewelem.setAttribute('id','a');\nnewelem.innerHTML=\"\";\ndocument.appendChild(newelem);\n }"
       "" "<div id='a'></div>" script -)
expect(1 "" "-: wrong closing tag '/a' instead '/b' around line 2\n" "<a>\n<b></a>" write -)
expect(1 "" "-: style syntax wrong at: >a :b:c<  around line 2\n" "<p style='a\n:b:c'/>" write --dtd html -)
expect(1 "" "-: no HTML element to make a script of\n" "<unknown/><p/>" script -)
expect(1 "" "${FOLDER}/none: cannot be read\n" "" write ${FOLDER}/none)

execute_process(COMMAND "${VELKORO}" markup write "${FOLDER}" RESULT_VARIABLE result
                OUTPUT_VARIABLE written ERROR_VARIABLE said TIMEOUT 20)
if(NOT result EQUAL 1 OR NOT written STREQUAL "" OR NOT said MATCHES "^${FOLDER}: [^\n]+\n$")
  message(FATAL_ERROR "a folder: status ${result}, output '${written}', errors '${said}'")
endif()

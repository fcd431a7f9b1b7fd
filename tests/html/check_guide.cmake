# Compares a guide with the programs beside this script: below each line "<!-- program: NAME -->" the
# guide shows NAME.cpp, below "<!-- output: NAME -->" what that program prints. Each program stands in
# PROGRAMS as NAME=PATH and has to be shown in both ways.

file(READ "${GUIDE}" guide)

# The text of the code block that follows the marker; sets `block`.
function(block_after marker)
  string(FIND "${guide}" "${marker}\n```" start)
  if(start EQUAL -1)
    message(FATAL_ERROR "${GUIDE} has no block after ${marker}")
  endif()
  string(LENGTH "${marker}\n```" skipped)
  math(EXPR start "${start} + ${skipped}")
  string(SUBSTRING "${guide}" ${start} -1 rest)
  string(FIND "${rest}" "\n" line)
  string(SUBSTRING "${rest}" ${line} -1 rest)
  string(FIND "${rest}" "\n```" end)
  math(EXPR end "${end} - 1")
  if(end LESS 1)
    message(FATAL_ERROR "The block after ${marker} is empty or has no end")
  endif()
  string(SUBSTRING "${rest}" 1 ${end} text)
  set(block "${text}\n" PARENT_SCOPE)
endfunction()

foreach(program IN LISTS PROGRAMS)
  string(REGEX MATCH "^([^=]+)=(.+)$" matched "${program}")
  set(name "${CMAKE_MATCH_1}")
  set(path "${CMAKE_MATCH_2}")

  block_after("<!-- program: ${name} -->")
  file(READ "${SOURCES}/${name}.cpp" source)
  if(NOT block STREQUAL source)
    message(FATAL_ERROR "The guide shows another ${name}.cpp:\n${block}")
  endif()

  execute_process(COMMAND "${path}" OUTPUT_VARIABLE output RESULT_VARIABLE result TIMEOUT 20)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${name} ended with ${result}")
  endif()
  block_after("<!-- output: ${name} -->")
  if(NOT block STREQUAL output)
    message(FATAL_ERROR "The guide shows another output of ${name}; it is:\n${output}")
  endif()
endforeach()

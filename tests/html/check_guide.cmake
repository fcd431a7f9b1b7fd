# Compares a guide with programs: below each line "<!-- program: NAME -->" the guide shows NAME.cpp of
# SOURCES, below "<!-- output: NAME -->" what that program prints. Each program stands in PROGRAMS as
# NAME=PATH and has to be shown in both ways.

file(READ "${GUIDE}" guide)

function(expect_shown marker text)
  foreach(language cpp html text xml)
    string(FIND "${guide}" "${marker}\n```${language}\n${text}```\n" place)
    if(NOT place EQUAL -1)
      return()
    endif()
  endforeach()
  message(FATAL_ERROR "Below ${marker} the guide does not show:\n${text}")
endfunction()

foreach(program IN LISTS PROGRAMS)
  string(REGEX MATCH "^([^=]+)=(.+)$" matched "${program}")
  set(name "${CMAKE_MATCH_1}")
  file(READ "${SOURCES}/${name}.cpp" source)
  execute_process(COMMAND "${CMAKE_MATCH_2}" OUTPUT_VARIABLE output RESULT_VARIABLE result TIMEOUT 20)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${name} ended with ${result}")
  endif()
  expect_shown("<!-- program: ${name} -->" "${source}")
  expect_shown("<!-- output: ${name} -->" "${output}")
endforeach()

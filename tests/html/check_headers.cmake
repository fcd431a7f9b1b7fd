# Compiles each public header alone, with both compilers and both standards, and with folders on the
# include path that bear the names of the library's own.
file(MAKE_DIRECTORY "${WORK}/http" "${WORK}/host" "${WORK}/markup")
foreach(hostile http/fwd.h host/application.h markup/parse.h)
  file(WRITE "${WORK}/${hostile}" "#error \"a header of the library's inside\"\n")
endforeach()
file(GLOB headers "${INCLUDE}/velkoro/*.h")
# clang++ is among the packages of the checks, not of every build.
set(compilers g++)
find_program(clang clang++)
if(clang)
  list(APPEND compilers clang++)
endif()
foreach(header IN LISTS headers)
  foreach(compiler IN LISTS compilers)
    foreach(standard c++20 c++2b)
      execute_process(COMMAND ${compiler} -std=${standard} -fsyntax-only -Wall -Wextra -Wconversion
                              -pedantic -Werror "-I${WORK}" "-I${INCLUDE}" -x c++ -include "${header}"
                              /dev/null
                      RESULT_VARIABLE result ERROR_VARIABLE error)
      if(NOT result EQUAL 0)
        message(FATAL_ERROR "${compiler} -std=${standard} ${header}\n${error}")
      endif()
    endforeach()
  endforeach()
endforeach()

# Compiles each public header alone, and all together with both compilers and both standards; with folders on
# the include path that bear the names of the library's own.
file(GLOB_RECURSE inner RELATIVE "${INCLUDE}/../src" "${INCLUDE}/../src/*.h")
foreach(hostile IN LISTS inner)
  file(WRITE "${WORK}/${hostile}" "#error \"a header of the library's inside\"\n")
endforeach()
file(GLOB headers "${INCLUDE}/velkoro/*.h")
# ... and all together, with what the templates become in a program.
file(WRITE "${WORK}/program.h" [[
#include <velkoro/client.h>
#include <velkoro/documents.h>
#include <velkoro/host.h>
#include <velkoro/server.h>
#include <velkoro/store.h>
inline void Use(const velkoro::Request& request, velkoro::Answer& answer) {
  const double number = request.Field<double>("x") + request.Field("y", 1.5F);
  const long long place = request.Path<long long>("n") + request.Path<unsigned char>("m");
  if (request.Field<bool>("b") || request.Field("c", false)) answer.Text(std::to_string(number));
  answer.Status(static_cast<int>(place));
}
]])
# clang++ is among the packages of the checks, not of every build.
set(compilers g++)
find_program(clang clang++)
if(clang)
  list(APPEND compilers clang++)
endif()
function(compile compiler standard header)
  execute_process(COMMAND ${compiler} -std=${standard} -fsyntax-only -Wall -Wextra -Wconversion -pedantic
                          -Werror "-I${WORK}" "-I${INCLUDE}" -x c++ -include "${header}" /dev/null
                  RESULT_VARIABLE result ERROR_VARIABLE error)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${compiler} -std=${standard} ${header}\n${error}")
  endif()
endfunction()
foreach(header IN LISTS headers)
  compile(g++ c++20 "${header}")
endforeach()
foreach(compiler IN LISTS compilers)
  compile(${compiler} c++20 "${WORK}/program.h")
  compile(${compiler} c++2b "${WORK}/program.h")
endforeach()

#include "base/path.h"

#include <algorithm>

namespace zr {

std::string NormalizeDirectoryPath(std::string_view path) {
  std::string result(path);
  if (!result.empty() && result.back() != '/' && result.back() != '\\') result += '/';
  std::replace(result.begin(), result.end(), '/', '\\');
  return result;
}

}  // namespace zr

#pragma once
// The form in which directory texts are stored, compared and printed.

#include <string>
#include <string_view>

namespace zr {

/// Brings a directory into its stored form: a trailing separator, every "/" a "\". An empty path
/// stays empty; applying it twice changes nothing more.
std::string NormalizeDirectoryPath(std::string_view path);

}  // namespace zr

#pragma once
// Files and folders that only their owner may read. Threads: any.

#include <string>
#include <string_view>

namespace zr {

/// Writes a new file of mode 0600 and brings it to the disk. Throws std::system_error naming the
/// path, also when the file exists already. EINTR is retried; the descriptor is never inherited.
void WritePrivateFile(const std::string& path, std::string_view bytes);

/// Makes a new folder of mode 0700 beside `path`, with a name that starts with it and was not there
/// before; returns that name. Throws std::system_error naming the path.
std::string MakePrivateFolder(const std::string& path);

}  // namespace zr

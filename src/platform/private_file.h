#pragma once
// Files and folders that only their owner may read. Threads: any.

#include <chrono>
#include <string>
#include <string_view>

#include "platform/descriptor.h"

namespace zr {

/// Writes a new file of mode 0600 and brings it to the disk. Throws std::system_error naming the
/// path, also when the file exists already. EINTR is retried; the descriptor is never inherited.
void WritePrivateFile(const std::string& path, std::string_view bytes);

/// Makes a new folder of mode 0700. Throws std::system_error naming the path, also when it exists.
void MakePrivateFolder(const std::string& path);

/// Waits, at most that long, until nobody else of this process or another one holds the lock of
/// that folder, which goes with the descriptor, or with the process however that ends. Throws
/// std::system_error naming the path, of std::errc::timed_out when somebody still holds it.
ZrDescriptor LockFolder(const std::string& path, std::chrono::milliseconds limit);

}  // namespace zr

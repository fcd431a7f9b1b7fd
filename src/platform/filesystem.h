#pragma once
// Whole files and directories, for configuration, state and keys. Paths are in the system's form
// (see zr::SystemDirectory). Rules: descriptors are close-on-exec, EINTR is retried, failures are
// results and never exceptions (but std::bad_alloc). Threads: any.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zr {

enum class ZrPathKind { kMissing, kRegular, kDirectory, kOther };

/// What stands at the path, links followed. A path that cannot be examined counts as missing.
ZrPathKind PathKind(const std::string& path);
/// The path from the root: a relative one is put behind the current directory, nothing is resolved.
/// Unchanged when there is no current directory.
std::string AbsolutePath(std::string path);

enum class ZrAccess { kRead, kWrite, kEnter };
/// 0 when this process may do that with what stands at the path, else the system's error number.
[[nodiscard]] int CheckAccess(const std::string& path, ZrAccess access);

/// All bytes up to the end of a file of any kind, which is waited for where it comes bit by bit;
/// of the standard input for "-". Nothing when it cannot be read or is longer than `limit`; `error`
/// then gets the system's error number.
std::optional<std::string> ReadToEnd(const std::string& path, std::size_t limit, int& error);
/// All bytes of a regular file of at most `limit` bytes. Nothing when it is missing, unreadable, no
/// regular file or longer; `error` (may be null) then gets the system's error number.
std::optional<std::string> ReadWholeFile(const std::string& path, std::size_t limit,
                                         int* error = nullptr);
/// Puts the bytes into the file in one step: readers see the old content or the new one, also when
/// the machine stops in between. `mode` is the file's permission, whatever the umask says.
/// Returns 0 or the system's error number; on an error the old file is untouched.
[[nodiscard]] int ReplaceFile(const std::string& path, std::string_view bytes, unsigned mode);
/// The same for a file that belongs to a user: a link to it stays one, and a file that is there
/// keeps its permission; `mode` is for a new one.
[[nodiscard]] int RewriteFile(const std::string& path, std::string_view bytes, unsigned mode);
/// Makes a directory and those above it that are missing, with that permission. Returns 0, also
/// when it was there, or the system's error number.
[[nodiscard]] int MakeDirectories(const std::string& path, unsigned mode);
/// The names in a directory without "." and "..", sorted byte-wise; empty when it cannot be read.
std::vector<std::string> DirectoryNames(const std::string& path);
/// Removes a file; a missing one is success. Returns 0 or the system's error number.
[[nodiscard]] int RemoveFile(const std::string& path);

}  // namespace zr

#pragma once
// The access log of a program that serves: a file that can be moved away and opened anew.

#include <string>
#include <string_view>

#include "platform/filesystem.h"
#include "platform/sync.h"

namespace zr::cli {

/// Threads: any.
class AccessLog {
 public:
  /// Throws std::runtime_error naming a file that cannot be opened.
  explicit AccessLog(std::string path);
  /// Adds one line in one write.
  void Write(std::string_view line) ZR_EXCLUDES(lock_);
  /// Opens the file of that name again; a failure is said on standard error and the open file stays
  /// in use.
  void Reopen() ZR_EXCLUDES(lock_);

 private:
  const std::string path_;
  ZrMutex lock_;
  ZrAppendFile file_ ZR_GUARDED_BY(lock_);
};

}  // namespace zr::cli

#pragma once
// The access log of a program that serves: a file that can be moved away and opened anew.

#include <memory>
#include <string>
#include <string_view>

#include "base/line_writer.h"

namespace zr::cli {

/// Threads: Write from any, the others one at a time.
class AccessLog {
 public:
  /// Throws std::runtime_error naming a file that cannot be opened.
  explicit AccessLog(std::string path);
  /// Lines that are still queued are written or lost within a second from the process's end.
  ~AccessLog();
  AccessLog(const AccessLog&) = delete;
  AccessLog& operator=(const AccessLog&) = delete;

  /// Adds one line; it is written soon.
  void Write(std::string_view line) { lines_->Push(line); }
  /// Opens the file of that name again; a failure is said on standard error and the open file stays
  /// in use.
  void Reopen();

 private:
  const std::string path_;
  std::shared_ptr<ZrLineQueue> lines_;
};

}  // namespace zr::cli

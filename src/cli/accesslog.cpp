#include "cli/accesslog.h"

#include <stdexcept>
#include <utility>

#include "cli/command.h"
#include "platform/io.h"

namespace zr::cli {

AccessLog::AccessLog(std::string path) : path_(std::move(path)) {
  ZrLock hold(lock_);
  if (const int error = file_.Open(path_); error != 0) {
    throw std::runtime_error("the log file '" + path_ + "' cannot be opened: " +
                             SystemErrorText(error) + "; choose another with --log");
  }
}

void AccessLog::Write(std::string_view line) {
  std::string text(line);
  text += '\n';
  ZrLock hold(lock_);
  file_.Write(text);
}

void AccessLog::Reopen() {
  ZrLock hold(lock_);
  if (const int error = file_.Open(path_); error != 0) {
    PrintError("the log file '" + path_ + "' cannot be opened again: " + SystemErrorText(error) +
               "; the old one stays in use");
  }
}

}  // namespace zr::cli

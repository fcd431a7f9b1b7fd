#include "cli/accesslog.h"

#include <stdexcept>
#include <utility>

#include "platform/io.h"

namespace zr::cli {

AccessLog::AccessLog(std::string path) : path_(std::move(path)) {
  ZrLineSink sink;
  if (const int error = ZrLineSink::OpenFile(path_, sink); error != 0) {
    throw std::runtime_error("the log file '" + path_ + "' cannot be opened: " +
                             SystemErrorText(error) + "; choose another with --log");
  }
  lines_ = ZrLineWriter::Instance().Open(std::move(sink), "the log file '" + path_ + "'");
}

AccessLog::~AccessLog() { ZrLineWriter::Instance().Close(*lines_); }

void AccessLog::Reopen() {
  ZrLineSink sink;
  if (const int error = ZrLineSink::OpenFile(path_, sink); error != 0) {
    WriteErrorLine("velkoro: the log file '" + path_ + "' cannot be opened again: " +
                   SystemErrorText(error) + "; the old one stays in use");
    return;
  }
  lines_->Replace(std::move(sink));
}

}  // namespace zr::cli

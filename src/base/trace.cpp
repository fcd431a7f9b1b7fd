#include "base/trace.h"

ZrTrace& ZrTrace::Instance() {
  static ZrTrace trace;
  return trace;
}

void ZrTrace::Line(std::size_t channel, std::string_view text) {
  const ZrLock hold(lock_);
  if (std::ostream* const stream = channels_.at(channel)) *stream << text << '\n';
}

void ZrTrace::Redirect(std::size_t channel, std::ostream* stream) {
  const ZrLock hold(lock_);
  channels_.at(channel) = stream;
}

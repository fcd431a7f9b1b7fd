#include "http/access_log.h"

#include <array>
#include <charconv>

#include "base/printable.h"
#include "platform/time_text.h"

namespace {

using zr::AppendPrintable;

void AppendNumber(std::string& line, std::uint64_t number) {
  std::array<char, 24> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  line.append(digits.data(), end);
}

}  // namespace

std::string zr::AccessLogLine(const AccessLogEntry& entry) {
  std::string line;
  line.reserve(96 + entry.remote.size() + entry.requestText.size() + entry.referer.size() +
               entry.userAgent.size());
  AppendPrintable(line, entry.remote);
  line += " - ";
  line += entry.scheme;
  line += " - [";
  line += LocalTimeText(entry.seconds);
  line += "] \"";
  AppendPrintable(line, entry.requestText);
  line += "\" --> ";
  AppendNumber(line, entry.status);
  line += ' ';
  AppendNumber(line, entry.bytes);
  line += " \"";
  AppendPrintable(line, entry.referer);
  line += "\" \"";
  AppendPrintable(line, entry.userAgent);
  line += '"';
  return line;
}

#include "http/access_log.h"

#include <array>
#include <charconv>

#include "platform/time_text.h"

namespace {

bool IsControl(char byte) { return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f; }

void AppendPrintable(std::string& line, std::string_view text) {
  static constexpr std::string_view kDigits = "0123456789ABCDEF";
  for (const char byte : text) {
    if (!IsControl(byte)) {
      line += byte;
      continue;
    }
    const auto value = static_cast<unsigned char>(byte);
    line += "\\x";
    line += kDigits[value >> 4];
    line += kDigits[value & 15];
  }
}

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

#include "http/access_log.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "base/exception.h"
#include "base/printable.h"
#include "base/text_cursor.h"
#include "http/http_date.h"
#include "platform/clock.h"
#include "platform/time_text.h"

namespace {

using zr::AppendPrintable;

constexpr std::int64_t kTicksPerSecond = 10'000'000;
constexpr std::int64_t kTicksPerMicrosecond = 10;

void AppendNumber(std::string& line, std::uint64_t number) {
  std::array<char, 24> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  line.append(digits.data(), end);
}

/// A text of others as it stands in a line: itself, or printable.
class Shown {
 public:
  explicit Shown(std::string_view text) : text_(text) {
    if (zr::IsPrintable(text)) return;
    AppendPrintable(made_, text);
    text_ = made_;
  }
  Shown(const Shown&) = delete;
  Shown& operator=(const Shown&) = delete;
  std::string_view Text() const { return text_; }

 private:
  std::string_view text_;
  std::string made_;
};

void AppendVelkoroLine(std::string& line, const zr::AccessLogEntry& entry) {
  const Shown remote(entry.remote);
  const Shown request(entry.requestText);
  const Shown referer(entry.referer);
  const Shown userAgent(entry.userAgent);
  const std::string_view time = zr::LocalTime(entry.created / kTicksPerSecond);
  constexpr std::size_t kFrame = 96;  // more than all that is the same in every line
  const std::size_t before = line.size();
  line.resize(before + kFrame + entry.scheme.size() + time.size() + remote.Text().size() +
              request.Text().size() + referer.Text().size() + userAgent.Text().size());
  zr::TextCursor text(line.data() + before);
  text.Add(remote.Text());
  text.Add(" - ");
  text.Add(entry.scheme);
  text.Add(" - [");
  text.Add(time);
  text.Add("] \"");
  text.Add(request.Text());
  text.Add("\" --> ");
  text.AddNumber(entry.status);
  text.Add(' ');
  text.AddNumber(entry.bytes);
  text.Add(" \"");
  text.Add(referer.Text());
  text.Add("\" \"");
  text.Add(userAgent.Text());
  text.Add('"');
  line.resize(static_cast<std::size_t>(text.End() - line.data()));
}

// ---- Combined ----------------------------------------------------------------------------------

void AppendQuoted(std::string& line, std::string_view text) {
  line += " \"";
  for (const char& c : text) {
    if (c == '"' || c == '\\') line += '\\';
    AppendPrintable(line, {&c, 1});
  }
  line += '"';
}

std::uint64_t BodyBytes(const zr::AccessLogEntry& entry) {
  return entry.bytes - std::min(entry.bytes, entry.headBytes);
}

std::string CombinedLine(const zr::AccessLogEntry& entry) {
  const std::string time = zr::HttpDate(entry.created / kTicksPerSecond);
  std::string line;
  AppendPrintable(line, entry.remote);
  line.append(" - - [").append(time, 5, 2).append("/").append(time, 8, 3).append("/");
  line.append(time, 12, 4).append(":").append(time, 17, 8).append(" +0000]");
  std::string request(entry.requestText);
  if (!entry.version.empty()) request.append(" ").append(entry.version);
  AppendQuoted(line, request);
  line += ' ';
  AppendNumber(line, entry.status);
  line += ' ';
  if (const std::uint64_t bytes = BodyBytes(entry); bytes > 0)
    AppendNumber(line, bytes);
  else
    line += '-';
  AppendQuoted(line, entry.referer);
  AppendQuoted(line, entry.userAgent);
  return line;
}

// ---- JSON --------------------------------------------------------------------------------------

// The length of the character that the text begins with, 0 when that is none of UTF-8 (RFC 3629):
// no overlong forms, no halves of pairs, nothing beyond U+10FFFF.
std::size_t CharacterSize(std::string_view text) {
  const auto byte = [&text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned first = byte(0);
  if (first < 0x80) return 1;
  const std::size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < size) return 0;
  for (std::size_t i = 1; i < size; ++i)
    if ((byte(i) & 0xC0) != 0x80) return 0;
  const unsigned second = byte(1);
  if ((first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
      (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F))
    return 0;
  return size;
}

void AppendJsonText(std::string& line, std::string_view name, std::string_view text) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  line.append(",\"").append(name).append("\":\"");
  while (!text.empty()) {
    const std::size_t size = CharacterSize(text);
    const auto byte = static_cast<unsigned char>(text.front());
    if (size == 0 || byte < 0x20 || byte == 0x7f) {
      line.append("\\u00").append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 15]);
    } else {
      if (byte == '"' || byte == '\\') line += '\\';
      line += text.substr(0, size);
    }
    text.remove_prefix(std::max<std::size_t>(size, 1));
  }
  line += '"';
}

void AppendPadded(std::string& line, std::uint64_t number, std::size_t digits) {
  const std::string text = std::to_string(number);
  line.append(digits - std::min(digits, text.size()), '0').append(text);
}

// RFC 3339, in UTC.
std::string TimeStamp(std::int64_t seconds) {
  constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
  const std::string date = zr::HttpDate(seconds);
  std::string text = date.substr(12, 4) + "-";
  AppendPadded(text, kMonths.find(date.substr(8, 3)) / 3 + 1, 2);
  return text.append("-").append(date, 5, 2).append("T").append(date, 17, 8).append("Z");
}

std::string JsonLine(const zr::AccessLogEntry& entry) {
  const std::size_t blank = std::min(entry.requestText.find(' '), entry.requestText.size());
  const std::size_t target = std::min(blank + 1, entry.requestText.size());
  const std::int64_t used = ZrClock::System().SystemTicks() - entry.created;
  const std::uint64_t micros =
      static_cast<std::uint64_t>(std::max<std::int64_t>(used, 0) / kTicksPerMicrosecond);
  std::string line = "{\"time\":\"" + TimeStamp(entry.created / kTicksPerSecond) + "\"";
  AppendJsonText(line, "remote", entry.remote);
  AppendJsonText(line, "scheme", entry.scheme);
  AppendJsonText(line, "method", entry.requestText.substr(0, blank));
  AppendJsonText(line, "target", entry.requestText.substr(target));
  AppendJsonText(line, "protocol", entry.version);
  line += ",\"status\":";
  AppendNumber(line, entry.status);
  line += ",\"bytes\":";
  AppendNumber(line, BodyBytes(entry));
  line += ",\"seconds\":";
  AppendNumber(line, micros / 1'000'000);
  line += '.';
  AppendPadded(line, micros % 1'000'000, 6);
  const auto told = [](std::string_view text) { return text == "-" ? std::string_view() : text; };
  AppendJsonText(line, "referer", told(entry.referer));
  AppendJsonText(line, "user_agent", told(entry.userAgent));
  return line + "}";
}

}  // namespace

zr::AccessLogFormat zr::AccessLogFormatNamed(std::string_view name) {
  if (name.empty() || name == "velkoro") return AccessLogFormat::kVelkoro;
  if (name == "combined") return AccessLogFormat::kCombined;
  if (name == "json") return AccessLogFormat::kJson;
  throw ZrException("unknown log format: " + std::string(name), __LINE__, "src");
}

void zr::AppendAccessLogLine(std::string& line, const AccessLogEntry& entry,
                             AccessLogFormat format) {
  switch (format) {
    case AccessLogFormat::kVelkoro:
      return AppendVelkoroLine(line, entry);
    case AccessLogFormat::kCombined:
      line += CombinedLine(entry);
      return;
    case AccessLogFormat::kJson:
      line += JsonLine(entry);
      return;
  }
}

std::string zr::AccessLogLine(const AccessLogEntry& entry, AccessLogFormat format) {
  std::string line;
  AppendAccessLogLine(line, entry, format);
  return line;
}

#include "markup/document_text.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <string>

#include "markup/byte_set.h"
#include "velkoro/documents.h"

namespace {

constexpr struct {
  char byte;
  std::string_view reference;
} kReferences[] = {{'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}, {'\'', "&apos;"}};

void AppendUtf8(std::string& text, std::uint32_t code) {
  const auto byte = [&](std::uint32_t value) { text += static_cast<char>(value); };
  if (code < 0x80) {
    byte(code);
  } else if (code < 0x800) {
    byte(0xc0 | code >> 6);
    byte(0x80 | (code & 0x3f));
  } else if (code < 0x10000) {
    byte(0xe0 | code >> 12);
    byte(0x80 | (code >> 6 & 0x3f));
    byte(0x80 | (code & 0x3f));
  } else {
    byte(0xf0 | code >> 18);
    byte(0x80 | (code >> 12 & 0x3f));
    byte(0x80 | (code >> 6 & 0x3f));
    byte(0x80 | (code & 0x3f));
  }
}

// Appends what the reference "&...;" stands for. No: it is none that is known.
bool AppendReferred(std::string& text, std::string_view reference) {
  for (const auto& known : kReferences) {
    if (reference != known.reference) continue;
    text += known.byte;
    return true;
  }
  if (reference.size() < 4 || reference[1] != '#') return false;
  const bool hexadecimal = reference[2] == 'x' || reference[2] == 'X';
  const std::string_view digits =
      reference.substr(hexadecimal ? 3 : 2, reference.size() - (hexadecimal ? 4 : 3));
  std::uint32_t code = 0;
  const char* const end = digits.data() + digits.size();
  const auto result = std::from_chars(digits.data(), end, code, hexadecimal ? 16 : 10);
  const bool surrogate = code >= 0xd800 && code < 0xe000;
  if (result.ec != std::errc() || result.ptr != end || code == 0 || code > 0x10ffff || surrogate)
    return false;
  AppendUtf8(text, code);
  return true;
}

}  // namespace

bool zr::IsDocumentName(std::string_view name) {
  return !name.empty() && zr::kXmlNameStart.Has(name.front()) &&
         std::all_of(
             name.begin(), name.end(), [](char c) { return zr::kXmlNameBytes.Has(c); });
}

bool zr::EqualsLower(std::string_view text, std::string_view lower) {
  return std::equal(
      text.begin(), text.end(), lower.begin(), lower.end(),
      [](char a, char b) {
        return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b;
      });
}

bool zr::IsVoidTag(std::string_view name) {
  constexpr std::string_view kVoid[] = {"area",   "base",   "br",    "col",  "embed", "frame",
                                        "hr",     "img",    "input", "link", "meta",  "param",
                                        "keygen", "source", "track", "wbr"};
  return std::find(std::begin(kVoid), std::end(kVoid), name) != std::end(kVoid);
}

std::string velkoro::Escape(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size() + text.size() / 8);
  for (const char c : text) {
    const auto* const known = std::find_if(std::begin(kReferences), std::end(kReferences),
                                           [c](const auto& row) { return row.byte == c; });
    if (known == std::end(kReferences))
      escaped += c;
    else
      escaped += known->reference;
  }
  return escaped;
}

std::string velkoro::Unescape(std::string_view text) {
  constexpr std::size_t kLongest = 12;  // "&#x10ffff;" with a zero or two in front
  std::string plain;
  plain.reserve(text.size());
  while (!text.empty()) {
    const std::size_t begin = std::min(text.find('&'), text.size());
    plain += text.substr(0, begin);
    text.remove_prefix(begin);
    if (text.empty()) break;
    const std::size_t end = text.substr(0, kLongest).find(';');
    if (end != std::string_view::npos && AppendReferred(plain, text.substr(0, end + 1))) {
      text.remove_prefix(end + 1);
    } else {
      plain += text.front();
      text.remove_prefix(1);
    }
  }
  return plain;
}

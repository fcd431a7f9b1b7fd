#include "http/form_writer.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <string_view>

namespace {

constexpr int kBoundaryDigits = 24;
constexpr std::string_view kLineEnd = "\r\n";

std::string MakeBoundary(std::random_device& chance) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::uniform_int_distribution<std::size_t> digit(0, kDigits.size() - 1);
  std::string boundary = "velkoro-";
  for (int i = 0; i < kBoundaryDigits; ++i) boundary += kDigits[digit(chance)];
  return boundary;
}

std::string EncodedName(std::string_view name) {
  std::string text;
  for (const char c : name) {
    switch (c) {
      case '"':
        text += "%22";
        break;
      case '\r':
        text += "%0D";
        break;
      case '\n':
        text += "%0A";
        break;
      default:
        text += c;
    }
  }
  return text;
}

}  // namespace

void zr::SetFormBody(ZrXHeader& head, const FormFields& fields) {
  std::random_device chance;
  do {
    head.boundary = MakeBoundary(chance);
  } while (std::any_of(fields.begin(), fields.end(), [&head](const auto& field) {
    return field.second.find(head.boundary) != std::string::npos;
  }));
  head.messageType = ZrMessageType::kPost;
  head.body = std::make_unique<ZrStringBuf>();
  for (const auto& [name, value] : fields) {
    for (const std::string_view piece :
         {std::string_view("--"), std::string_view(head.boundary), kLineEnd,
          std::string_view("Content-Disposition: form-data; name=\"")})
      head.body->Append(piece);
    head.body->Append(EncodedName(name));
    head.body->Append("\"\r\n\r\n");
    head.body->Append(value);
    head.body->Append(kLineEnd);
  }
  head.body->Append("--" + head.boundary + "--\r\n");
}

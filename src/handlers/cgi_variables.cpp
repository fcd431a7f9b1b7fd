#include "handlers/cgi_variables.h"

#include <string>
#include <string_view>

#include "http/message_head.h"

namespace {

constexpr std::string_view kFieldPrefix = "HTTP_";

/// Enters the variable unless it is there; programs cannot see text behind a NUL byte.
void Add(ZrCgiVariables& variables, std::string name, std::string_view value) {
  if (value.find('\0') == std::string_view::npos) variables.try_emplace(std::move(name), value);
}

/// The variable of a field; empty for one that must not become any.
std::string VariableName(std::string_view field) {
  std::string name(kFieldPrefix);
  name.reserve(kFieldPrefix.size() + field.size());
  for (const char c : field) {
    // Spelled out instead of asked of the C library, whose answer depends on the host's locale.
    if (c >= 'a' && c <= 'z') {
      name += static_cast<char>(c - 'a' + 'A');
    } else if ((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_') {
      name += c;
    } else if (c == '-') {
      name += '_';
    } else {
      return {};
    }
  }
  return name == "HTTP_PROXY" ? std::string() : name;
}

}  // namespace

namespace zr {

bool BuildCgiVariables(const ZrXHeader& request, ZrCgiVariables& variables) {
  const ZrMessageType type = request.messageType;
  if (type != ZrMessageType::kGet && type != ZrMessageType::kPost) return false;
  Add(variables, "REQUEST_METHOD", type == ZrMessageType::kGet ? "GET" : "POST");
  if (type == ZrMessageType::kGet) {
    Add(variables, "QUERY_STRING", request.query);
  } else {
    std::string_view contentType =
        request.headers.First("content-type", "application/x-www-form-urlencoded");
    contentType = contentType.substr(0, contentType.find_last_not_of("\r\n") + 1);
    Add(variables, "CONTENT_TYPE", contentType);
    if (request.headers.contains("content-length")) {
      Add(variables, "CONTENT_LENGTH", request.headers.First("content-length"));
    }
  }
  // In byte order "-" comes before "_", and the first of two equal names stays.
  for (const auto& [field, values] : request.headers) {
    if (values.empty()) continue;
    std::string name = VariableName(field);
    if (!name.empty()) Add(variables, std::move(name), values.front());
  }
  return true;
}

}  // namespace zr

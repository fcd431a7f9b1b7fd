#include "handlers/cgi_variables.h"

#include <algorithm>
#include <string>
#include <utility>

#include "base/number.h"
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
    if (c >= 'a' && c <= 'z')
      name += static_cast<char>(c - 'a' + 'A');
    else if ((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_')
      name += c;
    else if (c == '-')
      name += '_';
    else
      return {};
  }
  return name == "HTTP_PROXY" ? std::string() : name;
}

struct HostAndPort {
  std::string_view name;
  std::string_view port;
};

/// An address of version 6 keeps its brackets, as it does in addresses of pages.
HostAndPort SplitHost(std::string_view host) {
  const std::size_t bracket = host.starts_with('[') ? host.find(']') : 0;
  const std::size_t colon = host.find(':', bracket == std::string_view::npos ? 0 : bracket);
  if (colon == std::string_view::npos) return {host, {}};
  const std::string_view port = host.substr(colon + 1);
  return {host.substr(0, colon), zr::ParseDigits(port) ? port : std::string_view()};
}

std::string Joined(const ZrHeaderFields::Values& values, std::string_view separator) {
  std::string joined;
  for (const std::string_view value : values) {
    if (!joined.empty()) joined += separator;
    joined += value;
  }
  return joined;
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
    if (request.headers.contains("content-length"))
      Add(variables, "CONTENT_LENGTH", request.headers.First("content-length"));
  }
  // In byte order "-" comes before "_", and the first of two equal names stays.
  for (const auto& [field, values] : request.headers) {
    if (values.empty()) continue;
    std::string name = VariableName(field);
    if (!name.empty()) Add(variables, std::move(name), values.front());
  }
  return true;
}

void BuildStandardVariables(const ProgramRequest& request, ZrCgiVariables& variables) {
  const ZrHeaderFields& fields = *request.fields;
  const HostAndPort host = SplitHost(fields.First("host"));
  const std::pair<const char*, std::string_view> always[] = {
      {"GATEWAY_INTERFACE", "CGI/1.1"},
      {"SERVER_SOFTWARE", kServerProduct.substr(0, kServerProduct.find('('))},
      {"SERVER_PROTOCOL", request.protocol},
      {"SERVER_NAME", host.name.empty() ? request.serverAddress : host.name},
      {"SERVER_PORT", host.port.empty() ? request.serverPort : host.port},
      {"SERVER_ADDR", request.serverAddress},
      {"REMOTE_ADDR", request.remoteAddress},
      {"REMOTE_HOST", request.remoteAddress},
      {"REMOTE_PORT", request.remotePort},
      {"REQUEST_METHOD", request.method},
      {"REQUEST_URI", request.target},
      {"REQUEST_SCHEME", request.secure ? "https" : "http"},
      {"QUERY_STRING", request.query},
      {"SCRIPT_NAME", request.scriptName},
      {"SCRIPT_FILENAME", request.scriptFile},
      {"DOCUMENT_ROOT", request.documentRoot},
      // The PHP interpreter refuses to run without it.
      {"REDIRECT_STATUS", "200"},
  };
  for (const auto& [name, value] : always) Add(variables, name, value);
  if (request.secure) Add(variables, "HTTPS", "on");
  if (!request.extraPath.empty()) {
    Add(variables, "PATH_INFO", request.extraPath);
    Add(variables, "PATH_TRANSLATED", std::string(request.documentRoot).append(request.extraPath));
  }
  if (request.bodyBytes) Add(variables, "CONTENT_LENGTH", std::to_string(*request.bodyBytes));
  if (fields.contains("content-type")) Add(variables, "CONTENT_TYPE", fields.First("content-type"));
  // Programs trust these two: they are there only for a user whom the server has asked for and
  // knows. A program that asks by itself looks at HTTP_AUTHORIZATION.
  if (!request.user.empty()) {
    const std::string_view credentials = fields.First("authorization");
    Add(variables, "AUTH_TYPE", credentials.substr(0, credentials.find(' ')));
    Add(variables, "REMOTE_USER", request.user);
  }
  for (const auto& [field, values] : fields) {
    std::string name = VariableName(field);
    if (!name.empty() && !values.empty())
      Add(variables, std::move(name), Joined(values, field == "cookie" ? "; " : ", "));
  }
}

std::optional<ProgramPath> SplitProgramPath(
    std::string_view path, const std::function<ZrPathKind(std::string_view)>& kindOf) {
  for (std::size_t end = 0; end < path.size();) {
    end = std::min(path.find('/', end + 1), path.size());
    const std::string_view program = path.substr(0, end);
    switch (kindOf(program)) {
      case ZrPathKind::kDirectory:
        break;
      case ZrPathKind::kRegular:
        return ProgramPath{program, path.substr(end)};
      case ZrPathKind::kMissing:
      case ZrPathKind::kOther:
        return std::nullopt;
    }
  }
  return std::nullopt;
}

}  // namespace zr

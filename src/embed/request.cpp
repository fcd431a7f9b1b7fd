// What a program's handler sees of a request: velkoro::Request over the message.

#include <algorithm>
#include <utility>

#include "base/number.h"
#include "embed/exchange.h"
#include "http/field_list.h"
#include "http/form_body.h"
#include "platform/filesystem.h"
#include "platform/io.h"
#include "transceiver/message_ends.h"
#include "transceiver/tls_connection.h"

namespace velkoro {
namespace {

constexpr unsigned kFileMode = 0644;

/// The value of a parameter of a "content-disposition" (RFC 6266, as forms have it); nothing when
/// it is absent.
std::optional<std::string> DispositionParameter(std::string_view value, std::string_view name) {
  for (std::size_t at = value.find(';'); at != std::string_view::npos;) {
    ++at;
    at = std::min(value.find_first_not_of(" \t", at), value.size());
    const std::size_t equals = value.find('=', at);
    if (equals == std::string_view::npos) break;
    const bool wanted = zr::EqualsIgnoringCase(zr::TrimBlanks(value.substr(at, equals - at)), name);
    std::size_t end = equals + 1;
    std::string text;
    if (end < value.size() && value[end] == '"') {
      // Browsers write %22 for a quote; others may put a backslash before it.
      for (++end; end < value.size() && value[end] != '"'; ++end) {
        if (value[end] == '\\' && end + 1 < value.size() && value[end + 1] == '"') ++end;
        const bool quote = value.substr(end).starts_with("%22");
        text += quote ? '"' : value[end];
        if (quote) end += 2;
      }
      end = value.find(';', end);
    } else {
      end = value.find(';', equals);
      text = zr::TrimBlanks(value.substr(
          equals + 1, end == std::string_view::npos ? std::string_view::npos : end - equals - 1));
    }
    if (wanted) return text;
    at = end;
  }
  return std::nullopt;
}

std::optional<Upload> UploadOf(const ZrHTTPMessageBlock& block) {
  const auto lines = block.partHeaders.find("content-disposition");
  if (lines == block.partHeaders.end() || lines->second.empty()) return std::nullopt;
  std::optional<std::string> name = DispositionParameter(lines->second.front(), "filename");
  if (!name || (name->empty() && block.Text().empty())) return std::nullopt;
  return Upload{std::string(block.Name()), *std::move(name), block.attributes.at("mimetype"),
                block.Text()};
}

Endpoint End(const ZrXHeader& request, std::string_view side) {
  const ZrOptionMap& record = request.PeerRecord().info;
  const auto port = zr::ParseDigits(record.Get(std::string(side) + "port"));
  return {record.Get(std::string(side) + "address"), static_cast<int>(port.value_or(0))};
}

}  // namespace

void Upload::SaveTo(const std::string& path) const {
  if (const int error = zr::RewriteFile(path, bytes, kFileMode); error != 0)
    throw ServerError(path + ": " + zr::SystemErrorText(error));
}

std::string_view Request::Method() const {
  const auto words = exchange_.Asked().headers[zr::kFirstLine];
  return words.empty() ? std::string_view("GET") : words[0];
}

std::string Request::Target() const {
  const auto words = exchange_.Asked().headers[zr::kFirstLine];
  return words.size() < 2 ? Path() : std::string(words[1]);
}

const std::string& Request::Path() const { return exchange_.Asked().path; }

std::string Request::Path(std::string_view name) const { return exchange_.PathValue(name); }

const std::string& Request::Query() const { return exchange_.Asked().query; }

std::optional<std::string> Request::Find(std::string_view name) const {
  const ZrXHeader& asked = exchange_.AskedWithForm();
  const auto found = asked.allFields.find(name);
  if (found == asked.allFields.end()) return std::nullopt;
  return std::string(found->second->Text());
}

std::string Request::Field(std::string_view name, std::string_view whenAbsent) const {
  return Find(name).value_or(std::string(whenAbsent));
}

std::vector<std::string> Request::Fields(std::string_view name) const {
  std::vector<std::string> texts;
  for (const auto& block : exchange_.AskedWithForm().blocks)
    if (block->Name() == name) texts.emplace_back(block->Text());
  return texts;
}

std::vector<Upload> Request::Uploads() const {
  std::vector<Upload> uploads;
  for (const auto& block : exchange_.AskedWithForm().blocks)
    if (auto upload = UploadOf(*block)) uploads.push_back(*std::move(upload));
  return uploads;
}

std::optional<Upload> Request::File(std::string_view field) const {
  for (const auto& block : exchange_.AskedWithForm().blocks) {
    if (block->Name() != field) continue;
    if (auto upload = UploadOf(*block)) return upload;
  }
  return std::nullopt;
}

std::string Request::Header(std::string_view name, std::string_view whenAbsent) const {
  return std::string(exchange_.Asked().headers.First(zr::LowerCase(name), whenAbsent));
}

std::vector<std::string> Request::Headers(std::string_view name) const {
  const auto values = exchange_.Asked().headers[zr::LowerCase(name)];
  return {values.begin(), values.end()};
}

std::string Request::Cookie(std::string_view name, std::string_view whenAbsent) const {
  for (std::string_view line : exchange_.Asked().headers["cookie"]) {
    while (!line.empty()) {
      const std::string_view pair = zr::TrimBlanks(line.substr(0, line.find(';')));
      line.remove_prefix(std::min(line.find(';'), line.size() - 1) + 1);
      if (pair.size() > name.size() && pair.starts_with(name) && pair[name.size()] == '=')
        return std::string(pair.substr(name.size() + 1));
    }
  }
  return std::string(whenAbsent);
}

std::string_view Request::Body() const {
  const ZrXHeader& asked = exchange_.Asked();
  return asked.body ? asked.body->Unread() : std::string_view();
}

std::unique_ptr<std::istream> Request::BodyStream() const {
  struct Reading : std::istream {
    explicit Reading(std::string_view text) : std::istream(nullptr), bytes(text, Nobody()) {
      rdbuf(&bytes);
    }
    // The bytes are the request's.
    static std::shared_ptr<const void> Nobody() {
      static constexpr char kHere = 0;
      return {std::shared_ptr<const void>(), &kHere};
    }
    ZrStringBuf bytes;
  };
  return std::make_unique<Reading>(Body());
}

Endpoint Request::Peer() const { return End(exchange_.Asked(), "remote"); }

Endpoint Request::Local() const { return End(exchange_.Asked(), "local"); }

bool Request::Secure() const { return exchange_.Asked().ProtocolKind() == zr::kProtocolHttps; }

std::optional<TlsFacts> Request::Tls() const {
  const ZrXHeader& asked = exchange_.Asked();
  const std::shared_ptr<ZrTransceiverConnection> connection =
      asked.ends ? asked.ends->connection.lock() : nullptr;
  auto* const safe = dynamic_cast<ZrTransceiverConnection_SSLAddon*>(connection.get());
  if (safe == nullptr) return std::nullopt;
  ZrTlsEngine::Facts facts = safe->Agreed();
  if (facts.version.empty()) return std::nullopt;
  return TlsFacts{std::move(facts.version), std::move(facts.cipher), std::move(facts.serverName)};
}

std::string Request::Origin() const {
  const ZrXHeader& asked = exchange_.Asked();
  std::string host(asked.authority.empty() ? asked.headers.First("host")
                                           : std::string_view(asked.authority));
  if (host.empty()) {
    const Endpoint here = Local();
    host = here.address + ":" + std::to_string(here.port);
  }
  return std::string(asked.SchemeName()) + "://" + host;
}

const std::string& Request::User() const { return exchange_.User(); }

void Request::SetUser(std::string name) const { exchange_.SetUser(std::move(name)); }

bool Request::Gone() const { return exchange_.Gone(); }

void Request::OnGone(std::function<void()> action) const { exchange_.OnGone(std::move(action)); }

void Request::Refuse(std::string_view name, int status) {
  throw RequestError(status, status == 404
                                 ? "there is no such page"
                                 : "the field '" + std::string(name) + "' has an unusable value");
}

std::optional<bool> Request::Truth(std::string_view text) {
  for (const std::string_view yes : {"true", "yes", "on", "1"})
    if (text == yes) return true;
  for (const std::string_view no : {"false", "no", "off", "0"})
    if (text == no) return false;
  return std::nullopt;
}

}  // namespace velkoro

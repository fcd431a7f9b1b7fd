#include "http/message_head.h"

#include <array>
#include <cstdlib>
#include <utility>

#include "http/field_list.h"
#include "http/field_syntax.h"
#include "http/response_head.h"
#include "http/server_head.h"
#include "platform/clock.h"

namespace {

// What IsReadyToSend() also takes for ready; nothing here sets it.
constexpr std::uint32_t kStateAlmostComplete = 5;

constexpr std::int64_t kTicksPerMicrosecond = 10;

/// A name of a field in lower case, in place where it has a usual length; empty for what is no
/// token.
class LowerToken {
 public:
  explicit LowerToken(std::string_view name) {
    char* to = few_.data();
    if (name.size() > few_.size()) to = (many_ = name).data();
    text_ = {to, name.size()};
    for (const char c : name) {
      *to = zr::LowerTokenByte(c);
      if (*to++ == '\0') text_ = {};
    }
  }
  LowerToken(const LowerToken&) = delete;
  LowerToken& operator=(const LowerToken&) = delete;
  std::string_view Text() const { return text_; }

 private:
  std::array<char, 40> few_;
  std::string many_;
  std::string_view text_;
};

}  // namespace

std::string zr::BareHost(std::string_view host) {
  const bool bracketed = host.size() > 2 && host.starts_with('[') && host.ends_with(']');
  return std::string(bracketed ? host.substr(1, host.size() - 2) : host);
}

ZrXHeader::ZrXHeader(ZrMessageType type, std::uint32_t protocolKind)
    : ZrXHeader(type, protocolKind, ZrClock::System().SystemTicks()) {}

ZrXHeader::ZrXHeader(ZrMessageType type, std::uint32_t protocolKind, std::int64_t createdTicks)
    : protocol(protocolKind), messageType(type), created(createdTicks) {}

ZrXHeader::~ZrXHeader() = default;
ZrXResponseHeader::~ZrXResponseHeader() = default;

bool ZrXHeader::IsReadyToSend() {
  ZrLock hold(headLock);
  const std::uint32_t state = State();
  return (state == zr::kHeadStateComplete || state == kStateAlmostComplete) && !headWritten_ &&
         status >= 100;
}

bool ZrXHeader::HeadWritten() const {
  ZrLock hold(headLock);
  return headWritten_;
}

std::shared_ptr<ZrXResponseHeader> ZrXHeader::MakeResponse() const {
  auto answer = zr::MakeJob<ZrXResponseHeader>(protocol, created);
  answer->kind = ZrMessageKind::kResponse;
  answer->semantics = semantics;
  answer->method = method;
  answer->oldVersion = oldVersion;
  answer->keepsOld = keepsOld;
  answer->closeRequested = closeRequested;
  answer->path = path;
  answer->requestHeaders = headers;
  const ZrHeaderFields::Values words = headers[zr::kFirstLine];
  if (words.size() >= 2) {
    answer->requestSummary.reserve(words[0].size() + 1 + words[1].size());
    answer->requestSummary.assign(words[0]).append(1, ' ').append(words[1]);
  }
  answer->route = route.Reversed();
  answer->ends = ends;
  answer->inlet = inlet;
  return answer;
}

void ZrXHeader::SetStatus(std::uint64_t code) {
  if (!semantics->StatusPhrase(code).empty()) status = code;
}

bool ZrXHeader::SetField(std::string_view name, std::string_view value) {
  const LowerToken lower(name);
  if (lower.Text().empty() || !zr::IsFieldValue(value)) return false;
  if (headers.contains(lower.Text())) {
    ZrHeaderFields others;
    for (const auto& [other, values] : headers) {
      if (zr::EqualsIgnoringCase(lower.Text(), other)) continue;
      for (const std::string_view kept : values) others.Append(other, kept);
    }
    others.Append(lower.Text(), value);  // which may be one of those that go
    headers = std::move(others);
  } else {
    headers.Append(lower.Text(), value);
  }
  return true;
}

bool ZrXHeader::AddField(std::string_view name, std::string_view value) {
  const LowerToken lower(name);
  if (lower.Text().empty() || !zr::IsFieldValue(value)) return false;
  headers.Append(lower.Text(), value);
  return true;
}

void ZrXHeader::UnfoldReadyFields() {
  const auto ready = std::exchange(readyFields, nullptr);
  if (!ready) return;
  std::string_view lines = std::string_view(*ready).substr(0, std::exchange(readyBytes, 0));
  while (!lines.empty()) {
    const std::size_t end = lines.find("\r\n");
    const std::size_t colon = lines.find(": ");
    SetField(lines.substr(0, colon), lines.substr(colon + 2, end - colon - 2));
    lines.remove_prefix(end + 2);
  }
}

void ZrXHeader::SetBodyText(std::string_view text) {
  if (!body) body = std::make_unique<ZrStringBuf>();
  body->Append(text);
  status = 200;
  SetState(zr::kHeadStateComplete);
}

void ZrXHeader::SetFileBody(std::string filePathText, std::uint64_t length) {
  filePath = std::move(filePathText);
  contentLength = length;
}

void ZrXHeader::SetBytesBody(std::shared_ptr<const std::string> bytes) {
  filePath.clear();
  bodyFile = nullptr;
  fileBytes = nullptr;
  const std::string_view all = *bytes;
  body = std::make_unique<ZrStringBuf>(all, std::move(bytes));
}

void ZrXHeader::SetFileBody(std::shared_ptr<const ZrFile> file, std::uint64_t length) {
  bodyFile = std::move(file);
  contentLength = length;
}

std::unique_ptr<ZrStringBuf> ZrXHeader::TakeBody() {
  return body ? std::move(body) : std::make_unique<ZrStringBuf>();
}

void ZrXHeader::FillAccessFields(ZrOptionMap& fields) const {
  const std::int64_t ticks = ZrClock::System().SystemTicks() - created;
  // The clock of the system may have been set back meanwhile.
  const char* const sign = ticks < 0 ? "-" : "";
  const std::int64_t size = std::abs(ticks);
  fields.Set("time_used", sign + std::to_string(size / kTicksPerMicrosecond) + "." +
                              std::to_string(size % kTicksPerMicrosecond) + "00000");
  fields.Set("status_code", std::to_string(status));
}

std::string_view ZrXHeader::SchemeName() const {
  const bool named = protocol != zr::kProtocolFile && zr::ProtocolSchemeName(protocol) != "none";
  return named ? zr::ProtocolSchemeName(protocol) : "unknown";
}

void ZrXHeader::SetPeerRecord(const ZrServerCallback_t& record) {
  peerRecord_ = std::make_shared<const ZrServerCallback_t>(record);
}

void ZrXHeader::SetPeerRecord(std::shared_ptr<const ZrServerCallback_t> record) {
  peerRecord_ = std::move(record);
}

const ZrServerCallback_t& ZrXHeader::PeerRecord() const {
  static const ZrServerCallback_t kNone;
  return peerRecord_ ? *peerRecord_ : kNone;
}

std::string ZrXHeader::TargetUrl() const {
  if (host.empty()) return {};
  std::string url(SchemeName());
  url += "://";
  if (!userInfo.empty()) url.append(userInfo).append(1, '@');
  return url.append(host).append(1, ':').append(std::to_string(port));
}

bool ZrXHeader::AcceptsPeer(const ZrOptionMap& peer) const {
  const std::string type = peer.Get("type", "none");
  return type == "HTTP" || type == "HTTPS" || type == "DirectSocket" || type == "QUARN";
}

ZrHTTPMessageBlock& ZrXHeader::AddBlock() {
  blocks.push_back(std::make_unique<ZrHTTPMessageBlock>());
  ZrHTTPMessageBlock& block = *blocks.back();
  byPosition.insert_or_assign(std::to_string(blocks.size() - 1), &block);
  return block;
}

ZrXServerHeader::ZrXServerHeader(bool enabledFlag, std::uint32_t protocolKind)
    : ZrXHeader(ZrMessageType::kPost, protocolKind), enabled(enabledFlag) {}

ZrXServerHeader::~ZrXServerHeader() = default;

std::string ZrXServerHeader::GetOption(std::string_view name, std::string_view defaultValue) const {
  ZrLock hold(headLock);
  return options_.Get(name, defaultValue);
}

void ZrXServerHeader::SetOption(std::string_view name, std::string value) {
  ZrLock hold(headLock);
  options_.Set(name, std::move(value));
}

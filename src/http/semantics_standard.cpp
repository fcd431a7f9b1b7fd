#include "http/semantics_standard.h"

#include <algorithm>
#include <string>
#include <utility>

#include "base/number.h"
#include "http/field_list.h"
#include "http/field_syntax.h"
#include "http/head_text.h"
#include "http/http_date.h"
#include "http/message_head.h"
#include "http/response_head.h"
#include "http/standard_head.h"
#include "http/status_phrases.h"

namespace {

constexpr std::uint64_t kResetContent = 205;
constexpr std::uint64_t kBadRequest = 400;
constexpr std::uint64_t kRequestTimeout = 408;
constexpr std::uint64_t kContentTooLarge = 413;
constexpr std::uint64_t kInternalError = 500;
constexpr std::uint64_t kInsufficientStorage = 507;

// The rest of a refused request is not read, so the connection cannot be used again.
ZrReadStep Refuse(ZrXHeader& message, std::uint64_t status) {
  message.refusal = status;
  message.closeRequested = true;
  message.reading = {};
  message.reading.inHead = false;
  message.declaredLength = 0;
  message.body = std::make_unique<ZrStringBuf>();
  return ZrReadStep::kComplete;
}

// Moves so many bytes, of those that have come, from the input to the body.
std::size_t MoveToBody(ZrXHeader& message, std::uint64_t most) {
  ZrStringBuf& input = *message.reading.input;
  const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(most, input.Size()));
  if (message.body->Empty() && count == input.Size()) {
    std::swap(*message.body, input);
  } else {
    message.body->Append(input.Unread().substr(0, count));
    input.Consume(count);
  }
  return count;
}

ZrReadStep Complete(ZrXHeader& message) {
  if (!message.FinishBody()) return Refuse(message, kInsufficientStorage);
  if (message.reading.input && !message.reading.input->Empty())
    message.surplus = std::move(message.reading.input);
  message.reading.input = nullptr;
  return ZrReadStep::kComplete;
}

ZrReadStep Incomplete(ZrXHeader& message, std::uint64_t expected) {
  if (!message.KeepBody(expected)) return Refuse(message, kInsufficientStorage);
  const bool waits = std::exchange(message.reading.expectsContinue, false);
  return waits && message.BodyBytes() == 0 ? ZrReadStep::kContinue : ZrReadStep::kBody;
}

ZrReadStep ReadChunks(ZrXHeader& message) {
  ZrChunkedDecoder& chunks = *message.reading.chunks;
  for (;;) {
    const ZrChunkedDecoder::Next next = chunks.Read(*message.reading.input);
    if (chunks.Remaining() > zr::kMaxBodyBytes - message.BodyBytes())
      return Refuse(message, kContentTooLarge);
    switch (next) {
      case ZrChunkedDecoder::Next::kIncomplete:
        return Incomplete(message, message.BodyBytes());
      case ZrChunkedDecoder::Next::kData:
        chunks.Took(MoveToBody(message, chunks.Remaining()));
        break;
      case ZrChunkedDecoder::Next::kEnd:
        message.declaredLength = message.BodyBytes();
        return Complete(message);
      case ZrChunkedDecoder::Next::kNoSize:
      case ZrChunkedDecoder::Next::kNoEnd:
      case ZrChunkedDecoder::Next::kTrailers:
        return Refuse(message, kBadRequest);
    }
  }
}

ZrReadStep ReadBody(ZrXHeader& message) {
  if (message.reading.chunks) return ReadChunks(message);
  MoveToBody(message, message.declaredLength - message.BodyBytes());
  if (message.BodyBytes() == message.declaredLength) return Complete(message);
  return Incomplete(message, message.declaredLength);
}

ZrReadStep BeginBody(ZrXHeader& message) {
  ZrMessageReading& place = message.reading;
  // The usual request has no body and nothing behind it, or its body and nothing else.
  if (!place.chunks && message.body->Size() == message.declaredLength) return ZrReadStep::kComplete;
  if (place.expectsContinue && message.bodyUnwanted && message.body->Empty()) {
    // Whether the body comes all the same is the client's choice, which cannot be known here.
    message.closeRequested = true;
    message.declaredLength = 0;
    return ZrReadStep::kComplete;
  }
  place.input = std::exchange(message.body, std::make_unique<ZrStringBuf>());
  return ReadBody(message);
}

// ---- Answers -----------------------------------------------------------------------------------

bool HasNoBody(std::uint64_t status) { return status < 200 || status == 204 || status == 304; }

// More than the lines that are the server's own.
constexpr std::size_t kOwnLines = 384;
// Of a field beside its name and value.
constexpr std::size_t kFieldFrame = 4;

std::size_t BytesOf(const ZrHeaderFields& fields) {
  std::size_t bytes = 0;
  for (const auto& [name, values] : fields)
    for (const std::string_view value : values) bytes += name.size() + value.size() + kFieldFrame;
  return bytes;
}

// The site's fields. What an answer says of itself is not said twice, but for lists.
void AddSitesFields(const ZrXHeader& answer, zr::HeadText& head) {
  for (const auto& [name, values] : *answer.addedFields) {
    const bool list = name == "vary" || name == "link" || name == "set-cookie";
    if (!list && answer.headers.contains(name)) continue;
    for (const std::string_view value : values) head.AddField(name, value);
  }
}

// What the answer says of its body.
void AddBodyFields(const ZrXHeader& answer, bool endless, zr::HeadText& head) {
  if (!endless) {
    head.Add("\r\nContent-Length: ");
    head.AddNumber(answer.contentLength);
  } else if (!answer.oldVersion && answer.method != ZrMethod::kHead) {
    // Of a HEAD request nobody knows how long its page would be, or whether it would come in chunks
    // at all: what only the making of a page tells may be left out (RFC 9110, 9.3.2).
    head.Add("\r\nTransfer-Encoding: chunked");
  }
  const bool typed = answer.readyFields && answer.readyBytes == answer.readyFields->size();
  if ((answer.contentLength != 0 || endless) && !typed &&
      !answer.headers.contains("content-type")) {
    head.Add(answer.HasFileBody() ? "\r\nContent-Type: application/octet-stream"
                                  : "\r\nContent-Type: text/html; charset=utf-8");
  }
  head.Add("\r\nX-Content-Type-Options: nosniff");
}

}  // namespace

bool zr::IsServersOwnField(std::string_view name) {
  return name == "content-length" || name == "transfer-encoding" || name == "connection" ||
         name == "date" || name == "server" || name == "keep-alive";
}

ZrReadStep ZrStandardSemantics::Read(ZrXHeader& message, const HeadCallback& onHead) const {
  if (message.refusal != 0) return ZrReadStep::kComplete;
  if (!message.InHead()) return ReadBody(message);
  message.kind = ZrMessageKind::kRequest;
  if (const std::uint64_t refusal = zr::ReadStandardHead(message); refusal != 0)
    return Refuse(message, refusal);
  if (message.InHead()) return ZrReadStep::kHead;
  if (!onHead(message)) return ZrReadStep::kClose;
  return BeginBody(message);
}

bool ZrStandardSemantics::RefuseLate(ZrXHeader& message) const {
  Refuse(message, kRequestTimeout);
  return true;
}

std::string_view ZrStandardSemantics::StatusPhrase(std::uint64_t status) const {
  constexpr std::string_view kKinds[] = {"Success", "Redirection", "Client Error", "Server Error"};
  const std::string_view phrase = zr::StandardPhrase(status);
  // One that nobody has registered means what the first of its hundred does (RFC 9110, 15).
  return phrase.empty() && status >= 200 && status <= 599 ? kKinds[status / 100 - 2] : phrase;
}

bool ZrStandardSemantics::SendsBody(const ZrXHeader& answer) const {
  return answer.method != ZrMethod::kHead && !HasNoBody(answer.status) &&
         answer.status != kResetContent;
}

void ZrStandardSemantics::WriteAnswerHead(ZrXHeader& answer, ZrStringBuf& out) const {
  if (answer.status < 200 || answer.status > 599) answer.status = kInternalError;
  if (!answer.HasFileBody() && !answer.streamed)
    answer.contentLength = answer.body ? answer.body->Size() : 0;
  // An empty body is one, and has its length (RFC 9110, 15.3.6).
  const bool emptied = answer.status == kResetContent;
  if (emptied) answer.contentLength = 0;
  // A client of the old version finds the end of a streamed body at the end of the connection.
  const bool endless =
      answer.streamed && !answer.lengthKnown && !HasNoBody(answer.status) && !emptied;
  if (endless && answer.oldVersion) answer.closeRequested = true;

  zr::HeadText head(out, kOwnLines + answer.readyBytes + answer.location.size() +
                             BytesOf(answer.headers) +
                             (answer.addedFields ? BytesOf(*answer.addedFields) : 0));
  head.Add("HTTP/1.1 ");
  head.AddNumber(answer.status);
  head.Add(" ");
  head.Add(StatusPhrase(answer.status));
  head.Add("\r\nDate: ");
  head.Add(zr::HttpDateNow());
  head.Add("\r\nServer: ");
  head.Add(zr::kServerProduct);
  if (answer.closeRequested)
    head.Add("\r\nConnection: close");
  else if (answer.keepsOld)
    head.Add("\r\nConnection: keep-alive");
  if (!HasNoBody(answer.status)) AddBodyFields(answer, endless, head);
  head.Add("\r\n");
  if (answer.readyFields)
    head.Add(std::string_view(*answer.readyFields).substr(0, answer.readyBytes));
  if (!answer.location.empty() && !answer.headers.contains("location"))
    head.AddField("Location", zr::WithoutLineEnds(answer.location));
  for (const auto& [name, values] : answer.headers) {
    if (!zr::IsToken(name) || zr::IsServersOwnField(name)) continue;
    for (const std::string_view value : values)
      if (zr::IsFieldValue(value)) head.AddField(name, value);
  }
  if (answer.addedFields) AddSitesFields(answer, head);
  head.Add("\r\n");
}

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
    switch (chunks.Read(*message.reading.input)) {
      case ZrChunkedDecoder::Next::kIncomplete:
        return Incomplete(message, message.BodyBytes());
      case ZrChunkedDecoder::Next::kData:
        if (chunks.Remaining() > zr::kMaxBodyBytes - message.BodyBytes())
          return Refuse(message, kContentTooLarge);
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

// Fields that only the server can give: they say where the answer ends, or what it is.
bool IsServersOwn(std::string_view name) {
  return name == "content-length" || name == "transfer-encoding" || name == "connection" ||
         name == "date" || name == "server" || name == "keep-alive";
}

bool HasNoBody(std::uint64_t status) { return status < 200 || status == 204 || status == 304; }

void AppendField(ZrStringBuf& out, std::string_view name, std::string_view value) {
  std::string written(name);
  bool begins = true;
  for (char& c : written) {
    if (begins && c >= 'a' && c <= 'z') c = static_cast<char>(c & ~0x20);
    begins = c == '-';
  }
  out.Append(written.append(": "));
  out.Append(value);
  out.Append("\r\n");
}

}  // namespace

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

std::string ZrStandardSemantics::LateAnswer() const {
  const auto answer = zr::MakeJob<ZrXResponseHeader>(zr::kProtocolHttp);
  answer->status = kRequestTimeout;
  answer->closeRequested = true;
  ZrStringBuf out;
  WriteAnswerHead(*answer, out);
  return out.Take();
}

std::string_view ZrStandardSemantics::StatusPhrase(std::uint64_t status) const {
  return zr::StandardPhrase(status);
}

bool ZrStandardSemantics::SendsBody(const ZrXHeader& answer) const {
  return answer.method != ZrMethod::kHead && !HasNoBody(answer.status);
}

void ZrStandardSemantics::WriteAnswerHead(ZrXHeader& answer, ZrStringBuf& out) const {
  if (StatusPhrase(answer.status).empty() || answer.status < 200) answer.status = kInternalError;
  if (answer.filePath.empty() && !answer.streamed)
    answer.contentLength = answer.body ? answer.body->Size() : 0;
  // A client of the old version finds the end of a streamed body at the end of the connection.
  const bool endless = answer.streamed && !answer.lengthKnown && !HasNoBody(answer.status);
  if (endless && answer.oldVersion) answer.closeRequested = true;

  out.Append("HTTP/1.1 ");
  zr::AppendNumber(out, answer.status);
  out.Append(' ');
  out.Append(StatusPhrase(answer.status));
  out.Append("\r\nDate: ");
  out.Append(zr::HttpDateNow());
  out.Append("\r\nServer: ");
  out.Append(zr::kServerProduct);
  if (answer.closeRequested)
    out.Append("\r\nConnection: close");
  else if (answer.keepsOld)
    out.Append("\r\nConnection: keep-alive");
  if (!HasNoBody(answer.status)) {
    if (!endless) {
      out.Append("\r\nContent-Length: ");
      zr::AppendNumber(out, answer.contentLength);
    } else if (!answer.oldVersion) {
      out.Append("\r\nTransfer-Encoding: chunked");
    }
    if ((answer.contentLength != 0 || endless) && !answer.headers.contains("content-type")) {
      out.Append(answer.filePath.empty() ? "\r\nContent-Type: text/html; charset=utf-8"
                                         : "\r\nContent-Type: application/octet-stream");
    }
    out.Append("\r\nX-Content-Type-Options: nosniff");
  }
  out.Append("\r\n");
  if (!answer.location.empty() && !answer.headers.contains("location")) {
    out.Append("Location: ");
    zr::AppendText(out, answer.location);
    out.Append("\r\n");
  }
  for (const auto& [name, values] : answer.headers) {
    if (!zr::IsToken(name) || IsServersOwn(name)) continue;
    for (const std::string_view value : values)
      if (zr::IsFieldValue(value)) AppendField(out, name, value);
  }
  out.Append("\r\n");
}

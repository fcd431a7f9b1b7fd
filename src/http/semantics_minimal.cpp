#include "http/semantics_minimal.h"

#include <array>
#include <string>
#include <utility>

#include "http/head_text.h"
#include "http/message_head.h"
#include "http/program_head.h"

namespace {

struct Reason {
  std::uint64_t status;
  std::string_view phrase;
};
constexpr std::array<Reason, 8> kReasons = {{{200, "OK"},
                                             {201, "Created"},
                                             {303, "Redirect"},
                                             {400, "Bad Request"},
                                             {404, "Not Found"},
                                             {417, "Expectation Failed"},
                                             {500, "Internal Error"},
                                             {502, "Server Error"}}};

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::uint64_t kRedirect = 303;
constexpr std::uint64_t kInternalError = 500;
// More than the texts that are the server's own, and the numbers.
constexpr std::size_t kOwnLines = 192;

// Such bytes begin no message whatever follows, and the end of their line may never come: a peer
// that speaks TLS to a plain port waits for an answer to them.
bool BeginsNoMessage(const ZrXHeader& message) {
  const std::string_view bytes = message.body->Unread();
  if (!message.InHead() || message.LineCount() > 0 || bytes.empty()) return false;
  const char first = bytes.front();
  return static_cast<unsigned char>(first) < 0x20 && first != '\t' && first != '\r';
}

}  // namespace

ZrReadStep ZrMinimalSemantics::Read(ZrXHeader& message, const HeadCallback& onHead) const {
  // More than was declared, when it stands behind the body at once, makes this no request; what
  // comes later is the next one.
  switch (message.ReadHead(onHead)) {
    case ZrReadResult::kIncomplete:
      if (message.InHead())
        return BeginsNoMessage(message) ? ZrReadStep::kClose : ZrReadStep::kHead;
      return message.KeepBody(message.declaredLength) ? ZrReadStep::kBody : ZrReadStep::kClose;
    case ZrReadResult::kRejected:
      return ZrReadStep::kClose;
    case ZrReadResult::kComplete:
      break;
  }
  // Neither garbage nor an answer that nobody asked for is replied to.
  if (message.kind != ZrMessageKind::kRequest || !message.FinishBody()) return ZrReadStep::kClose;
  // What follows a request that announces no body is the next request.
  if (message.messageType == ZrMessageType::kGet && !message.body->Empty() &&
      !message.headers.contains("content-length"))
    message.surplus = std::exchange(message.body, std::make_unique<ZrStringBuf>());
  return ZrReadStep::kComplete;
}

std::string_view ZrMinimalSemantics::StatusPhrase(std::uint64_t status) const {
  for (const Reason& reason : kReasons)
    if (reason.status == status) return reason.phrase;
  return {};
}

void ZrMinimalSemantics::WriteAnswerHead(ZrXHeader& answer, ZrStringBuf& out) const {
  // A status without a phrase may mean to a client that no body follows.
  std::string_view phrase = StatusPhrase(answer.status);
  if (phrase.empty()) phrase = StatusPhrase(answer.status = kInternalError);
  // The head of a program goes only with a body that has one; every answer gets its empty line, or
  // the client would take the body for more of the head.
  std::string programHead;
  if (!answer.HasFileBody()) {
    if (answer.cgiHeadPending && answer.body) {
      const std::string_view output = answer.body->Unread();
      programHead = output.substr(0, zr::ProgramHeadSize(output));
      answer.body->Consume(programHead.size());
    }
    answer.contentLength = answer.body ? answer.body->Size() : 0;
  }
  answer.cgiHeadPending = !programHead.empty();

  {
    zr::HeadText head(out, kOwnLines + answer.version.size() + answer.location.size());
    head.Add("HTTP/");
    head.AddWithoutLineEnds(answer.version);
    head.Add(' ');
    head.AddNumber(answer.status);
    head.Add(' ');
    head.Add(phrase);
    head.Add("\r\nServer: ");
    head.Add(zr::kServerProduct);
    head.Add("\r\nContent-Length: ");
    head.AddNumber(answer.contentLength);
    head.Add(kLineEnd);
    if (answer.status == kRedirect) {
      head.Add("Location: ");
      head.AddWithoutLineEnds(answer.location);
      head.Add(kLineEnd);
    }
    if (!answer.cgiHeadPending) head.Add(kLineEnd);
  }
  if (answer.cgiHeadPending) zr::AppendProgramHead(out, programHead, answer.contentLength);
}

// Writes the heads of answers and of outgoing requests.

#include <charconv>
#include <ostream>

#include "http/message_head.h"

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kHeadEnd = "\r\n\r\n";

// More than the fixed part of a head, so that it is written into one piece of memory.
constexpr std::size_t kUsualHeadBytes = 160;

// Texts that handlers set are written without CR and LF: none can begin a line of its own.
void AppendText(ZrStringBuf& out, std::string_view text) {
  while (!text.empty()) {
    const std::size_t bad = text.find_first_of(kLineEnd);
    out.Append(text.substr(0, bad));
    text.remove_prefix(bad == std::string_view::npos ? text.size() : bad + 1);
  }
}

void AppendNumber(ZrStringBuf& out, std::uint64_t number) {
  char digits[20];
  const auto result = std::to_chars(digits, digits + sizeof digits, number);
  out.Append(std::string_view(digits, static_cast<std::size_t>(result.ptr - digits)));
}

}  // namespace

bool ZrXHeader::WriteHead(ZrStringBuf& out) {
  ZrLock hold(headLock);
  if (State() != zr::kHeadStateComplete || messageType == ZrMessageType::kNone) return false;
  out.Reserve(out.Size() + kUsualHeadBytes);
  if (messageType == ZrMessageType::kAnswer) {
    WriteResponseHead(out);
  } else {
    WriteRequestHead(out);
  }
  headWritten_ = true;
  return true;
}

bool ZrXHeader::WriteHead(std::ostream& out) {
  ZrStringBuf head;
  if (!WriteHead(head)) return false;
  out << head.Unread();
  return true;
}

void ZrXHeader::WriteRequestHead(ZrStringBuf& out) {
  const bool post = messageType == ZrMessageType::kPost;
  out.Append(post ? "POST " : "GET ");
  AppendText(out, path);
  AppendText(out, query);
  out.Append(" HTTP/");
  AppendText(out, version);
  out.Append("\r\nHost: ");
  AppendText(out, host);
  out.Append("\r\nUser-Agent: ");
  out.Append(zr::kServerProduct);
  out.Append(kLineEnd);
  if (post) {
    if (body) contentLength = body->Size();
    out.Append("Content-Length: ");
    AppendNumber(out, contentLength);
    out.Append(kLineEnd);
    if (contentLength != 0) {
      out.Append("Content-Type: multipart/form-data; boundary=");
      AppendText(out, boundary);
      out.Append(kLineEnd);
    }
  }
  out.Append(kLineEnd);
}

void ZrXHeader::WriteResponseHead(ZrStringBuf& out) {
  // The head of a program goes only with a body that has one; every answer gets its empty line, or
  // the client would take the body for more of the head.
  std::string cgiHead;
  if (filePath.empty()) {
    if (cgiHeadPending && body) {
      const std::size_t end = body->Unread().find(kHeadEnd);
      if (end != std::string_view::npos) {
        // A program that begins with an empty line has ended its head with it: what follows is page
        // for the client in any case, and has to be counted as such.
        const bool noLines = body->Unread().starts_with(kLineEnd);
        cgiHead = body->Unread().substr(0, noLines ? kLineEnd.size() : end + kHeadEnd.size());
        body->Consume(cgiHead.size());
      }
    }
    contentLength = body ? body->Size() : 0;
  }
  cgiHeadPending = !cgiHead.empty();

  out.Append("HTTP/");
  AppendText(out, version);
  out.Append(' ');
  AppendNumber(out, status);
  out.Append(' ');
  out.Append(zr::StatusReason(status));
  out.Append("\r\nServer: ");
  out.Append(zr::kServerProduct);
  out.Append("\r\nContent-Length: ");
  AppendNumber(out, contentLength);
  out.Append(kLineEnd);
  if (status == 303) {
    out.Append("Location: ");
    AppendText(out, location);
    out.Append(kLineEnd);
  }
  out.Append(cgiHeadPending ? std::string_view(cgiHead) : kLineEnd);
}

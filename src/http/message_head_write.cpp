// Writes the heads of outgoing requests; those of answers are the semantics' own.

#include <ostream>
#include <string>

#include "http/head_text.h"
#include "http/message_head.h"

namespace {

constexpr std::string_view kLineEnd = "\r\n";

std::string_view MethodText(const ZrXHeader& request) {
  const bool post = request.messageType == ZrMessageType::kPost;
  switch (request.method) {
    case ZrMethod::kHead:
      return "HEAD";
    case ZrMethod::kPut:
      return "PUT";
    case ZrMethod::kPatch:
      return "PATCH";
    case ZrMethod::kDelete:
      return "DELETE";
    default:
      return post ? "POST" : "GET";
  }
}

}  // namespace

bool ZrXHeader::WriteHead(ZrStringBuf& out) {
  ZrLock hold(headLock);
  if (State() != zr::kHeadStateComplete || messageType == ZrMessageType::kNone) return false;
  const std::uint64_t before = out.Size();
  if (messageType == ZrMessageType::kAnswer)
    semantics->WriteAnswerHead(*this, out);
  else
    WriteRequestHead(out);
  headBytes = out.Size() - before;
  headWritten_ = true;
  return true;
}

bool ZrXHeader::WriteHead(std::ostream& out) {
  ZrStringBuf head;
  if (!WriteHead(head)) return false;
  out << head.Unread();
  return true;
}

// A request of standard semantics: any method, the authority as it was given, and the fields.
void ZrXHeader::WriteStandardRequestHead(ZrStringBuf& out) {
  out.Append(MethodText(*this));
  out.Append(' ');
  zr::AppendText(out, path);
  zr::AppendText(out, query);
  out.Append(" HTTP/1.1");
  const auto field = [&out](std::string_view name, std::string_view value) {
    out.Append(kLineEnd);
    out.Append(name);
    out.Append(": ");
    zr::AppendText(out, value);
  };
  if (!headers.contains("host")) field("host", authority.empty() ? host : authority);
  if (!headers.contains("user-agent")) field("user-agent", zr::kServerProduct);
  for (const auto& [name, values] : headers) {
    if (name == "content-length" || name == "transfer-encoding" || name == "connection") continue;
    for (const std::string_view value : values) field(name, value);
  }
  if (messageType == ZrMessageType::kPost) {
    contentLength = body ? body->Size() : 0;
    field("content-length", std::to_string(contentLength));
  }
  out.Append("\r\n\r\n");
}

void ZrXHeader::WriteRequestHead(ZrStringBuf& out) {
  if (semantics->IsStandard()) return WriteStandardRequestHead(out);
  const bool post = messageType == ZrMessageType::kPost;
  out.Append(post ? "POST " : "GET ");
  zr::AppendText(out, path);
  zr::AppendText(out, query);
  out.Append(" HTTP/");
  zr::AppendText(out, version);
  out.Append("\r\nHost: ");
  zr::AppendText(out, host);
  out.Append("\r\nUser-Agent: ");
  out.Append(zr::kServerProduct);
  out.Append(kLineEnd);
  if (post) {
    if (filePath.empty()) contentLength = body ? body->Size() : 0;
    out.Append("Content-Length: ");
    zr::AppendNumber(out, contentLength);
    out.Append(kLineEnd);
    if (contentLength != 0) {
      out.Append("Content-Type: multipart/form-data; boundary=");
      zr::AppendText(out, boundary);
      out.Append(kLineEnd);
    }
  }
  out.Append(kLineEnd);
}

#include "servers/head_output.h"

#include <memory>
#include <span>
#include <utility>

#include "http/message_head.h"
#include "platform/file.h"
#include "transceiver/connection.h"

namespace {

// The head stands in the buffer. A small file is read in behind it: one call to the system then
// sends both. The length was announced; a file that has fewer bytes by now ends the connection.
void QueueFile(ZrTransceiverConnection& connection, ZrStringBuf& out,
               std::shared_ptr<const ZrFile> file, std::uint64_t offset, std::uint64_t length) {
  std::uint64_t inlined = 0;
  if (length <= zr::kInlineFileSize) {
    const std::span<char> space = out.Prepare(static_cast<std::size_t>(length));
    const std::size_t got =
        file->ReadAt(offset, space.first(static_cast<std::size_t>(length))).value_or(0);
    out.Commit(got);
    inlined = got;
  }
  if (inlined == length) return;
  connection.SendBuffer(std::move(out));
  connection.SendFileBytes(std::move(file), offset + inlined, length - inlined);
}

std::unique_ptr<ZrStringBuf> CopyOf(const std::unique_ptr<ZrStringBuf>& body) {
  auto copy = std::make_unique<ZrStringBuf>();
  if (body) copy->Append(body->Unread());
  return copy;
}

constexpr std::size_t kUsualHead = 768;

// What stood behind a head that announces no body would be read as the next message.
bool SendsBody(const ZrXHeader& head) {
  if (head.kind == ZrMessageKind::kRequest) return head.messageType == ZrMessageType::kPost;
  return head.semantics->SendsBody(head);
}

}  // namespace

std::uint64_t zr::WriteMessage(ZrTransceiverConnection& connection, ZrXHeader& head,
                               ZrStringBuf& out) {
  // One piece of memory for both, where they go out together.
  const std::uint64_t length = head.HasFileBody() ? head.contentLength
                               : head.body        ? head.body->Size()
                                                  : 0;
  if (length <= kInlineFileSize) out.Reserve(kUsualHead + static_cast<std::size_t>(length));
  if (!head.WriteHead(out)) return out.Size();
  const std::uint64_t headSize = out.Size();
  if (!SendsBody(head)) return headSize;
  if (!head.HasFileBody()) {
    // A request may have to be sent again.
    std::unique_ptr<ZrStringBuf> body =
        head.kind == ZrMessageKind::kRequest ? CopyOf(head.body) : head.TakeBody();
    const std::uint64_t bodySize = body->Size();
    if (bodySize <= kInlineFileSize) {
      out.Append(body->Unread());
    } else {
      connection.SendBuffer(std::move(out));
      connection.SendBuffer(body);
    }
    return headSize + bodySize;
  }
  std::shared_ptr<const ZrFile> file =
      head.bodyFile ? std::move(head.bodyFile) : ZrFile::Open(head.filePath);
  if (!file) {
    if (head.contentLength > 0) connection.CloseAfterItem();
    return headSize;
  }
  if (head.fileBytes && head.fileBytes->size() == head.contentLength) {
    out.Append(*head.fileBytes);
    return headSize + head.contentLength;
  }
  QueueFile(connection, out, std::move(file), head.fileOffset, head.contentLength);
  return headSize + head.contentLength;
}

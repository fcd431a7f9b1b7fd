// Where the body of a received message lies while it comes, and how much of it is there.

#include <utility>

#include "http/message_head.h"

ZrReadResult ZrXHeader::BodyState() const {
  const std::uint64_t size = BodyBytes();
  if (size == declaredLength) return ZrReadResult::kComplete;
  return size < declaredLength ? ZrReadResult::kIncomplete : ZrReadResult::kRejected;
}

bool ZrXHeader::KeepBody(std::uint64_t expected) {
  if (bodyFlows) return true;
  if (!reading.store) {
    if (!bodyUnwanted && expected <= ZrBodyStore::kHeapLimit) return true;
    reading.store = bodyUnwanted ? ZrBodyStore::Nowhere() : ZrBodyStore::InAFile();
    if (!reading.store) return false;
  }
  if (!reading.store->Take(*body)) return false;
  reading.elsewhere = reading.store->Size();
  return true;
}

std::size_t ZrXHeader::TakeArrivedBody(ZrStringBuf& to) {
  const std::size_t count = body->Size();
  reading.elsewhere += count;
  if (to.Empty())
    std::swap(to, *body);
  else
    to.Append(body->Unread());
  body->Clear();
  return count;
}

std::shared_ptr<ZrXHeader> ZrXHeader::MakeBodyReader() {
  auto reader = zr::MakeJob<ZrXHeader>(messageType, protocol);
  reader->semantics = semantics;
  reader->kind = kind.load();
  reader->bodyFlows = true;
  reader->declaredLength = declaredLength;
  reader->reading = std::exchange(reading, {});
  reading.inHead = false;
  reader->body = std::exchange(body, std::make_unique<ZrStringBuf>());
  return reader;
}

bool ZrXHeader::FinishBody() {
  if (!reading.store) return true;
  if (!KeepBody(0)) return false;
  std::unique_ptr<ZrStringBuf> whole = reading.store->Finish();
  reading.store = nullptr;
  if (!whole) return false;
  body = std::move(whole);
  // Unwanted bytes were there, and are in no buffer.
  if (!bodyUnwanted) reading.elsewhere = 0;
  return true;
}

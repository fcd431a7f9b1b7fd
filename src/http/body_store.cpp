#include "http/body_store.h"

#include <utility>

#include "platform/spill_file.h"

ZrBodyStore::ZrBodyStore(std::unique_ptr<ZrSpillFile> file) : file_(std::move(file)) {}
ZrBodyStore::~ZrBodyStore() = default;

std::unique_ptr<ZrBodyStore> ZrBodyStore::Nowhere() {
  return std::unique_ptr<ZrBodyStore>(new ZrBodyStore(nullptr));
}

std::unique_ptr<ZrBodyStore> ZrBodyStore::InAFile() {
  std::unique_ptr<ZrSpillFile> file = ZrSpillFile::Create();
  if (!file) return nullptr;
  return std::unique_ptr<ZrBodyStore>(new ZrBodyStore(std::move(file)));
}

bool ZrBodyStore::Take(ZrStringBuf& bytes) {
  if (file_ && !file_->Append(bytes.Unread())) return false;
  size_ += bytes.Size();
  bytes.Clear();
  return true;
}

std::unique_ptr<ZrStringBuf> ZrBodyStore::Finish() {
  if (!file_) return std::make_unique<ZrStringBuf>();
  const std::shared_ptr<ZrSpillFile> file = std::move(file_);
  if (!file->Map()) return nullptr;
  return std::make_unique<ZrStringBuf>(file->Bytes(), file);
}

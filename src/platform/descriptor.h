#pragma once
// Ownership of one system descriptor: it closes it, and does nothing else.

#include <utility>

/// Owns a descriptor, or none (-1). Moving leaves the source empty. Threads: one at a time.
class ZrDescriptor {
 public:
  ZrDescriptor() = default;
  /// Takes the descriptor. One of a standard stream, which the system gives to whoever asks next
  /// when a host has closed its own, is not kept: another number of the same takes its place, so
  /// that what is written to standard output never lands in a socket. None, with errno set, when
  /// there is no other.
  explicit ZrDescriptor(int descriptor) noexcept
      : descriptor_(descriptor > kLastStandard || descriptor < 0 ? descriptor
                                                                 : MoveAboveStandard(descriptor)) {}
  ZrDescriptor(ZrDescriptor&& other) noexcept : descriptor_(other.Release()) {}
  ZrDescriptor& operator=(ZrDescriptor&& other) noexcept {
    if (this != &other) {
      Close();
      descriptor_ = other.Release();
    }
    return *this;
  }
  ZrDescriptor(const ZrDescriptor&) = delete;
  ZrDescriptor& operator=(const ZrDescriptor&) = delete;
  ~ZrDescriptor() { Close(); }

  bool IsOpen() const noexcept { return descriptor_ >= 0; }
  int Get() const noexcept { return descriptor_; }
  /// Hands the descriptor to the caller, who closes it.
  int Release() noexcept { return std::exchange(descriptor_, -1); }
  /// Closes what is held; an interrupted close counts as done, errno is kept.
  void Close() noexcept;

 private:
  static constexpr int kLastStandard = 2;
  static int MoveAboveStandard(int descriptor) noexcept;

  int descriptor_ = -1;
};

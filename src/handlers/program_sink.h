#pragma once
// Where the output of a program goes while it runs.

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>

/// Threads: the run's.
class ZrProgramSink {
 public:
  virtual ~ZrProgramSink() = default;

  /// Whether nothing may be read now: the program then waits as soon as its pipe is full.
  virtual bool MustWait() = 0;
  /// Readable when that may have changed; -1: it is to be asked again from time to time.
  virtual int RoomDescriptor() const { return -1; }
  /// Gives writable space for that many bytes; Commit() then says how many were filled. No: it
  /// takes no more, and the program is to be ended.
  virtual std::span<char> Prepare(std::size_t bytes) = 0;
  [[nodiscard]] virtual bool Commit(std::size_t bytes) = 0;
  /// When that time has come OnTime() is to be called, whatever has been written by then.
  virtual std::optional<std::chrono::steady_clock::time_point> Due() const { return std::nullopt; }
  virtual void OnTime() {}
};

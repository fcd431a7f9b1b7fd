#pragma once
// The result of one read or write on a descriptor, shared by sockets and files. Every descriptor
// that this layer makes is close-on-exec from birth.

#include <cstddef>

/// How one read or write ended.
enum class ZrIoStatus {
  kDone = 0,        ///< `count` bytes moved (fewer than asked for is no error); go on.
  kWouldBlock = 1,  ///< Nothing moved and nothing is wrong: wait for readiness and try again.
  kClosed = 2,      ///< The peer ended the stream (read) or is gone (write); give the socket up.
  kFailed = 3,      ///< Anything else; `error` says what. Give the descriptor up.
};

/// What one read or write did.
struct ZrIoResult {
  ZrIoStatus status = ZrIoStatus::kDone;
  std::size_t count = 0;  ///< Bytes moved; 0 unless the status is kDone.
  int error = 0;          ///< The system's error number; 0 for kDone and for an orderly end.
};

namespace zr {

/// The system's text for an error number. Threads: any.
const char* SystemErrorText(int error) noexcept;

}  // namespace zr

#pragma once
// What a piece of a test had written to the standard streams, the lines that were still queued
// included.

#include <gtest/gtest.h>

#include <string>

#include "base/line_writer.h"

namespace zrtest {

/// Ends testing::internal::CaptureStdout().
inline std::string CapturedOutput() {
  zr::FlushLines(std::chrono::seconds(10));
  return testing::internal::GetCapturedStdout();
}

/// Ends testing::internal::CaptureStderr().
inline std::string CapturedErrors() {
  zr::FlushLines(std::chrono::seconds(10));
  return testing::internal::GetCapturedStderr();
}

}  // namespace zrtest

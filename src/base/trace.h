#pragma once
// Trace output for whoever looks for a fault: nine channels that lead nowhere until a program of
// ours points one at a stream. Costs nothing worth naming while nobody listens.

#include <array>
#include <cstddef>
#include <ostream>
#include <string_view>

#include "platform/sync.h"

/// The process's trace channels, made with their first use. Threads: any.
class ZrTrace {
 public:
  static constexpr std::size_t kChannels = 9;
  static constexpr std::size_t kSockets = 0;  ///< Ports that were bound.

  static ZrTrace& Instance();

  /// Writes the text and a line end to a channel below kChannels.
  void Line(std::size_t channel, std::string_view text) ZR_EXCLUDES(lock_);
  /// Points a channel at a stream, which outlives that; none makes it lead nowhere again.
  void Redirect(std::size_t channel, std::ostream* stream) ZR_EXCLUDES(lock_);

 private:
  ZrTrace() = default;

  ZrMutex lock_;  // taken last
  std::array<std::ostream*, kChannels> channels_ ZR_GUARDED_BY(lock_) = {};
};

#pragma once
// Everything in a process that can be left behind, in numbers: counted before and after.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace zrtest {

struct Counts {
  /// The last ones are for whoever knows a server to fill.
  enum Kind {
    kDescriptors,
    kJobs,
    kThreads,
    kChildren,
    kConnections,
    kTemporaryFiles,
    kBudget,
    kKinds
  };
  std::array<std::uint64_t, kKinds> values{};

  /// Of this process. Orphans of its children count when it is their reaper.
  static Counts OfProcess();
  /// The entries of a folder, but for hidden ones.
  static std::uint64_t NamesIn(const std::string& folder);
  /// What the descriptors of this process are, for the reader of a failure.
  static std::string OpenFiles();
  /// What is more than in `before`, as text; empty when nothing is.
  std::string MoreThan(const Counts& before) const;
};

}  // namespace zrtest

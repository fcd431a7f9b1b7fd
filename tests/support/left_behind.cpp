#include "tests/support/left_behind.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "base/line_writer.h"
#include "jobs/job_registry.h"
#include "tests/support/temporary_folder.h"

namespace zrtest {
namespace {

constexpr const char* kNames[Counts::kKinds] = {"descriptors",
                                                "jobs, joined tasks and events",
                                                "threads",
                                                "children",
                                                "connections",
                                                "temporary files",
                                                "bytes of the budget"};

// Entries may go while they are looked at.
template <class Use>
std::uint64_t ForEach(const std::string& folder, Use use) {
  std::uint64_t count = 0;
  std::error_code gone;
  for (std::filesystem::directory_iterator at(folder, gone), end; !gone && at != end;
       at.increment(gone)) {
    if (at->path().filename().native().front() == '.') continue;
    ++count;
    use(at->path());
  }
  return count;
}

}  // namespace

std::uint64_t Counts::NamesIn(const std::string& folder) {
  return ForEach(folder, [](const auto&) {});
}

Counts Counts::OfProcess() {
  // The writer of lines starts with the first one and stays: it belongs to every count.
  static const bool kWrites = zr::WriteErrorLine("counting what is there");
  static_cast<void>(kWrites);
  Counts counts;
  counts.values[kDescriptors] = NamesIn("/proc/self/fd");
  const auto registry = ZrJobRegistry::Instance().Count();
  counts.values[kJobs] = registry.jobs + registry.tasks + registry.events;
  counts.values[kThreads] = ForEach("/proc/self/task", [&](const auto& thread) {
    const std::string ids = ReadFile(thread / "children");
    counts.values[kChildren] += static_cast<std::uint64_t>(std::count(ids.begin(), ids.end(), ' '));
  });
  return counts;
}

std::string Counts::OpenFiles() {
  std::string text;
  ForEach("/proc/self/fd", [&text](const auto& entry) {
    std::error_code gone;
    text += entry.filename().string() + "=" + read_symlink(entry, gone).string() + " ";
  });
  return text;
}

std::string Counts::MoreThan(const Counts& before) const {
  std::string text;
  for (std::size_t i = 0; i < kKinds; ++i) {
    if (values[i] <= before.values[i]) continue;
    text += std::string(kNames[i]) + " " + std::to_string(before.values[i]) + " -> " +
            std::to_string(values[i]) + "; ";
  }
  return text;
}

}  // namespace zrtest

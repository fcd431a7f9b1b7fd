#include "platform/system.h"

#include <pwd.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <vector>

namespace zr {
namespace {

constexpr std::size_t kLeastDescriptors = 64;

std::size_t FromLimit(rlim_t limit) noexcept {
  if (limit == RLIM_INFINITY) return std::numeric_limits<int>::max();
  const auto bounded = std::min<rlim_t>(limit, std::numeric_limits<int>::max());
  return std::max(static_cast<std::size_t>(bounded), kLeastDescriptors);
}

}  // namespace

std::size_t DescriptorLimit() noexcept {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return kLeastDescriptors;
  return FromLimit(limit.rlim_cur);
}

std::size_t RaiseDescriptorLimit() noexcept {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
  return DescriptorLimit();
}

std::uint64_t MemorySize() noexcept {
  const long pages = ::sysconf(_SC_PHYS_PAGES);
  const long size = ::sysconf(_SC_PAGESIZE);
  if (pages <= 0 || size <= 0) return std::uint64_t{1} << 30;
  return static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(size);
}

std::optional<std::string> EnvironmentValue(const char* name) {
  const char* value = ::getenv(name);
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

std::string HomeDirectory() {
  if (auto home = EnvironmentValue("HOME"); home && !home->empty()) return *home;
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> texts(16384);
  if (::getpwuid_r(::getuid(), &entry, texts.data(), texts.size(), &found) != 0 ||
      found == nullptr || found->pw_dir == nullptr)
    return {};
  return found->pw_dir;
}

std::string StateDirectory(const std::string& program) {
  if (auto state = EnvironmentValue("XDG_STATE_HOME"); state && state->starts_with('/'))
    return *state + (state->ends_with('/') ? "" : "/") + program;
  const std::string home = HomeDirectory();
  return home.empty() ? std::string() : home + "/.local/state/" + program;
}

}  // namespace zr

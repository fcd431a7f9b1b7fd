#pragma once
// What the process is told by its surroundings: limits, environment, well-known directories.
// Threads: any, as long as the host does not change its environment at the same time.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace zr {

/// How many descriptors this process may have open (the soft limit), at least 64.
std::size_t DescriptorLimit() noexcept;
/// Raises the soft limit to the hard one and returns what holds now. For programs of our own; the
/// library leaves its host's limits alone.
std::size_t RaiseDescriptorLimit() noexcept;

/// The machine's memory in bytes; 1 GiB where the system does not say.
std::uint64_t MemorySize() noexcept;

/// An environment variable, nothing when it is not set.
std::optional<std::string> EnvironmentValue(const char* name);
/// The user's home directory: HOME, else the user database; empty when there is none.
std::string HomeDirectory();
/// Where a program of that name keeps its state: $XDG_STATE_HOME/NAME when that is an absolute
/// path, else ~/.local/state/NAME; empty without a home. Nothing is made on disk.
std::string StateDirectory(const std::string& program);

}  // namespace zr

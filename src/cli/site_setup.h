#pragma once
// The options of `velkoro serve` that say what a site has beyond its files. They belong to standard
// semantics.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/command.h"
#include "handlers/site.h"

namespace zr::cli {

struct SiteOptions {
  bool browse = false;
  std::optional<std::string> fallback;
  std::vector<std::string> headers;
  std::optional<std::uint32_t> cache;
  std::vector<std::string> types;
  std::vector<std::string> errorPages;
};

/// Adds them to the command.
void AddSiteOptions(CLI::App& serve, SiteOptions& options);
/// Throws CLI::ExcludesError when one of them was given.
void RefuseSiteOptions(const CLI::App& serve);

/// The site that they describe. Throws UsageError for texts that make no sense and
/// std::runtime_error for files that cannot be used.
std::shared_ptr<const ZrSite> Site(const SiteOptions& options, const std::string& directory);

}  // namespace zr::cli

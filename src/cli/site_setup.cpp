#include "cli/site_setup.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "base/number.h"
#include "base/trim.h"
#include "handlers/served_path.h"
#include "http/status_phrases.h"
#include "platform/file.h"
#include "platform/filesystem.h"

namespace zr::cli {
namespace {

constexpr std::size_t kMaxErrorPageBytes = std::size_t{1} << 20;
constexpr const char* kSiteGroup = "Options of the site, not with --minimal";
constexpr std::uint32_t kMostCacheSeconds = 10 * 366 * 86400;

/// The two sides of the first such character; the second has no value without one.
std::pair<std::string, std::optional<std::string>> Split(const std::string& text, char separator) {
  const std::size_t at = text.find(separator);
  if (at == std::string::npos) return {text, std::nullopt};
  return {text.substr(0, at), text.substr(at + 1)};
}

std::string Fallback(std::string path, const std::string& directory) {
  if (path.starts_with('/')) path.erase(0, 1);
  if (!IsServedPath(path))
    throw UsageError("--fallback " + path +
                     ": give a file by its path beneath the document directory");
  const auto file = ZrFile::OpenBeneath(directory, path);
  if (!file || !file->IsRegular()) {
    throw std::runtime_error("the file '" + path + "' for --fallback " +
                             (file ? "is a directory" : "is not in the document directory"));
  }
  return path;
}

void AddHeader(ZrSite& site, const std::string& text) {
  const auto [name, value] = Split(text, ':');
  if (!value) throw UsageError("--header '" + text + "': give 'NAME: VALUE'");
  const std::string_view trimmed = Trim(*value, " \t");
  if (const std::string failure = ZrSite::AddFieldFailure(name, trimmed); !failure.empty())
    throw UsageError("--header '" + text + "': " + failure);
  site.AddField(name, trimmed);
}

void AddType(ZrSite& site, const std::string& text) {
  const auto [extension, type] = Split(text, '=');
  if (!type || !site.types.Set(extension, *type))
    throw UsageError("--type " + text + ": give EXT=TYPE, as in wasm=application/wasm");
}

void AddErrorPage(ZrSite& site, const std::string& text) {
  const auto [number, file] = Split(text, '=');
  const std::uint64_t status = ParseDigits(number).value_or(0);
  if (!file || status < 400 || status > 599 || StandardPhrase(status).empty())
    throw UsageError("--error-page " + text + ": give STATUS=FILE, as in 404=missing.html");
  int error = 0;
  auto body = ReadWholeFile(*file, kMaxErrorPageBytes, &error);
  if (!body) {
    throw std::runtime_error("the page '" + *file + "' for --error-page " + number + " " +
                             ReadFailure(error, "1 MiB"));
  }
  site.errorPages[status] = {std::move(*body), std::string(site.types.TypeOf(*file))};
}

}  // namespace

void AddSiteOptions(CLI::App& serve, SiteOptions& options) {
  const auto add = [](CLI::Option* option, const char* type) {
    option->type_name(type)->group(kSiteGroup);
    return option;
  };
  serve.add_flag("--browse", options.browse, "List directories that have no page of their own")
      ->group(kSiteGroup);
  add(serve.add_option("--fallback", options.fallback,
                       "Answer what is not there, and was asked for as a page, with that file of "
                       "DIR: for routes that a program in the browser knows"),
      "FILE");
  add(serve.add_option("--header", options.headers, "Add that field to every answer; repeatable"),
      "'NAME: VALUE'")
      ->expected(1)
      ->take_all();
  add(serve.add_option("--cache", options.cache,
                       "How long browsers and proxies may keep a file without asking again"),
      "SECONDS")
      ->check(CLI::Range(std::uint32_t{0}, kMostCacheSeconds));
  add(serve.add_option("--type", options.types,
                       "The media type of files with that extension; repeatable"),
      "EXT=TYPE")
      ->expected(1)
      ->take_all();
  add(serve.add_option("--error-page", options.errorPages,
                       "Show what FILE has at the start with answers of that status; repeatable"),
      "STATUS=FILE")
      ->expected(1)
      ->take_all();
}

void RefuseSiteOptions(const CLI::App& serve) {
  for (const CLI::Option* const option : serve.get_options())
    if (option->get_group() == kSiteGroup && option->count() > 0)
      throw CLI::ExcludesError("--minimal", option->get_name());
}

std::shared_ptr<const ZrSite> Site(const SiteOptions& options, const std::string& directory) {
  std::shared_ptr<ZrSite> site = MakeSite();
  site->browse = options.browse;
  if (options.fallback) site->fallback = Fallback(*options.fallback, directory);
  for (const std::string& text : options.headers) AddHeader(*site, text);
  for (const std::string& text : options.types) AddType(*site, text);
  for (const std::string& text : options.errorPages) AddErrorPage(*site, text);
  if (options.cache) {
    if (site->Fields() && site->Fields()->contains("cache-control"))
      throw UsageError("--cache and --header 'Cache-Control: ...' say the same: give one of them");
    site->cacheControl = "max-age=" + std::to_string(*options.cache);
  }
  return site;
}

}  // namespace zr::cli

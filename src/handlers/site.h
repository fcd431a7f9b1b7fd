#pragma once
// What a site in standard semantics has beyond its files: set by whoever opens the server, the same
// for all its requests.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "http/content_types.h"
#include "http/header_fields.h"

/// Constant once a server uses it; threads: any then.
struct ZrSite : std::enable_shared_from_this<ZrSite> {
  /// A page in the place of the one that says a status.
  struct ErrorPage {
    std::string body;
    std::string contentType;
  };

  ZrContentTypes types;
  bool browse = false;   ///< Directories without a page of their own are listed.
  std::string fallback;  ///< The file, by its path beneath the start directory, that answers what
                         ///< is not there and was asked for as a page; empty: none.
  std::string cacheControl;  ///< of answers with files (RFC 9111, 5.2.2); empty: none
  std::map<std::uint64_t, ErrorPage> errorPages;  ///< by status

  /// Adds a field to every answer. No, and nothing added, for one that AddFieldFailure() refuses.
  bool AddField(std::string_view name, std::string_view value);
  /// Why such a field cannot be added, as a sentence's end; empty when it can.
  static std::string AddFieldFailure(std::string_view name, std::string_view value);
  /// The fields of every answer; may be none.
  const std::shared_ptr<const ZrHeaderFields>& Fields() const { return fields_; }

 private:
  std::shared_ptr<const ZrHeaderFields> fields_;
};

namespace zr {

/// A site as every server has it: it knows the types that the system's own list adds.
std::shared_ptr<ZrSite> MakeSite();

}  // namespace zr

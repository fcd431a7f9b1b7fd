#include "handlers/site.h"

#include <algorithm>
#include <array>
#include <optional>

#include "http/field_list.h"
#include "http/field_syntax.h"
#include "http/semantics_standard.h"
#include "platform/filesystem.h"

namespace {

constexpr const char* kSystemTypes = "/etc/mime.types";
constexpr std::size_t kMaxSystemTypes = std::size_t{4} << 20;

// What they say differs from answer to answer.
constexpr std::array<std::string_view, 9> kOfEachAnswer = {
    "accept-ranges", "allow",         "content-encoding", "content-range",         "content-type",
    "etag",          "last-modified", "location",         "x-content-type-options"};

}  // namespace

std::string ZrSite::AddFieldFailure(std::string_view name, std::string_view value) {
  const std::string lower = zr::LowerCase(name);
  if (!zr::IsToken(name)) return "the name is no token";
  const bool plain = std::none_of(value.begin(), value.end(), [](char c) {
    return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f;
  });
  if (!plain) return "the value has a control character";
  if (zr::IsServersOwnField(lower) ||
      std::find(kOfEachAnswer.begin(), kOfEachAnswer.end(), lower) != kOfEachAnswer.end())
    return "that field is the server's own";
  return {};
}

bool ZrSite::AddField(std::string_view name, std::string_view value) {
  if (!AddFieldFailure(name, value).empty()) return false;
  auto fields = std::make_shared<ZrHeaderFields>();
  if (fields_) *fields = *fields_;
  fields->Append(zr::LowerCase(name), value);
  fields_ = std::move(fields);
  return true;
}

std::shared_ptr<ZrSite> zr::MakeSite() {
  auto site = std::make_shared<ZrSite>();
  if (const auto text = ReadWholeFile(kSystemTypes, kMaxSystemTypes)) site->types.AddFrom(*text);
  return site;
}

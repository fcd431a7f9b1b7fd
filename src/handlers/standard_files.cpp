#include "handlers/standard_files.h"

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

#include "handlers/standard_pages.h"
#include "http/body_coding.h"
#include "http/field_list.h"
#include "http/file_answer.h"
#include "http/message_head.h"
#include "http/preferences.h"
#include "http/response_head.h"
#include "platform/file.h"

namespace {

constexpr std::int64_t kTicksPerSecond = 10'000'000;
constexpr std::int64_t kNsPerSecond = 1'000'000'000;

// Entries of a directory that are looked at for its listing: each costs a call to the system.
constexpr std::size_t kMostLooked = 100'000;

// Nobody can have put it into a file: it is made anew for each answer.
std::string MakeBoundary() {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::random_device random;
  std::string text;
  for (int i = 0; i < 24; ++i) text += kDigits[random() % kDigits.size()];
  return text;
}

constexpr const char* kBrotliEnding = ".br";
constexpr const char* kGzipEnding = ".gz";

/// The codings in which this request would take that file.
ZrCodingOffer WantedForms(const ZrXHeader& request, std::string_view path) {
  const auto accepts = request.headers["accept-encoding"];
  if (accepts.empty() || request.headers.contains("range") || path.ends_with(kBrotliEnding) ||
      path.ends_with(kGzipEnding))
    return {};
  return zr::WantedCodings(accepts);
}

/// The notes of a file in memory, good for that site; none of another file.
ZrServedFiles::Notes* NotesFor(const ZrServedFiles::Found& found, std::string_view path,
                               const ZrSite& site) {
  if (found.notes && found.notes->site.get() != &site) {
    *found.notes = {.site = site.weak_from_this().lock(),
                    .compressible = zr::IsCompressible(site.types.TypeOf(path)),
                    .heads = {}};
  }
  return found.notes.get();
}

bool IsWorthCompressing(const ZrServedFiles::Found& found, std::string_view path,
                        const ZrSite& site) {
  const std::uint64_t size = found.file->Size();
  if (size < zr::kLeastCompressed || size > zr::kMostCompressed) return false;
  const ZrServedFiles::Notes* const notes = NotesFor(found, path, site);
  return notes != nullptr ? notes->compressible : zr::IsCompressible(site.types.TypeOf(path));
}

std::shared_ptr<const ZrFileHead> HeadOf(const zr::FileForm& form, std::string_view path,
                                         const ZrSite& site, std::int64_t now) {
  const ZrFile& file = *form.found.file;
  ZrServedFiles::Notes* const notes =
      form.coding == ZrCoding::kIdentity ? NotesFor(form.found, path, site) : nullptr;
  // That of a file from the future says when it was made.
  if (notes != nullptr)
    if (const auto& made = notes->heads[form.varies ? 1 : 0];
        made && made->current.lastModified == file.ModifiedSeconds())
      return made;
  auto head = std::make_shared<const ZrFileHead>(
      zr::MakeFileHead({.version = {file.Size(), file.ModifiedNs(), file.Device(), file.Node()},
                        .contentType = site.types.TypeOf(path),
                        .coding = zr::CodingName(form.coding),
                        .varies = form.varies},
                       now));
  if (notes != nullptr) notes->heads[form.varies ? 1 : 0] = head;
  return head;
}

bool AppendRange(const ZrServedFiles::Found& found, const ZrByteRange& range, ZrStringBuf& body) {
  const auto length = static_cast<std::size_t>(range.Length());
  if (found.bytes) {
    body.Append(
        std::string_view(*found.bytes).substr(static_cast<std::size_t>(range.first), length));
    return true;
  }
  const std::size_t got =
      found.file->ReadAt(range.first, body.Prepare(length).first(length)).value_or(0);
  body.Commit(got);
  return got == length;
}

// No: the file has changed meanwhile.
bool AppendRanges(const ZrServedFiles::Found& found, const zr::MultipartRanges& ranges,
                  ZrStringBuf& body) {
  for (const auto& part : ranges.parts) {
    body.Append(part.head);
    if (!AppendRange(found, part.range, body)) return false;
  }
  body.Append(ranges.end);
  return true;
}

}  // namespace

void zr::AnswerWithPage(const ZrXHeader& request, ZrXResponseHeader& answer, std::uint64_t status,
                        const ZrSite& site) {
  const bool json = PrefersJson(request.headers["accept"]);
  answer.AddField("Vary", "Accept");  // what is kept for others is chosen by it (RFC 9111, 4.1)
  const auto own = site.errorPages.find(status);
  if (own != site.errorPages.end() && !json) {
    answer.SetBodyText(own->second.body);
    answer.SetField("Content-Type", own->second.contentType);
  } else {
    const ErrorPage page = MakeErrorPage(status, answer.semantics->StatusPhrase(status), json);
    answer.SetBodyText(page.body);
    answer.SetField("Content-Type", page.contentType);
  }
  answer.SetStatus(status);
}

bool zr::AsksForPage(const ZrXHeader& request) {
  const auto accept = request.headers["accept"];
  return (request.method == ZrMethod::kGet || request.method == ZrMethod::kHead) &&
         std::any_of(accept.begin(), accept.end(),
                     [](std::string_view value) {
                       return LowerCase(value).find("text/html") != std::string::npos;
                     }) &&
         MediaWeight(accept, "text/html") > 0;
}

void zr::AnswerWithListing(
    ZrXResponseHeader& answer, const ZrFile& directory, std::string_view path,
    const std::function<std::shared_ptr<const ZrFile>(const std::string&)>& open) {
  std::vector<ListingEntry> listed;
  for (ZrFile::Entry& entry : directory.Entries(kMostLooked)) {
    ListingEntry shown{std::move(entry.name), entry.kind == ZrFile::Entry::Kind::kDirectory,
                       entry.size, entry.modified / kNsPerSecond};
    if (entry.kind == ZrFile::Entry::Kind::kLink) {
      // Where it leads is nobody's business unless it is served.
      const auto file =
          shown.name.starts_with('.') ? nullptr : open(std::string(path) + shown.name);
      if (!file) continue;
      shown.directory = file->IsDirectory();
      shown.size = file->Size();
      shown.modified = file->ModifiedSeconds();
    }
    listed.push_back(std::move(shown));
  }
  answer.SetBodyText(DirectoryListing("/" + std::string(path), std::move(listed)));
  answer.SetField("Content-Type", "text/html; charset=utf-8");
}

zr::FileForm zr::ChooseFileForm(const ZrXHeader& request, ZrServedFiles& files,
                                const std::string& directory, const std::string& path,
                                ZrServedFiles::Found found, const ZrSite& site) {
  const bool compressible = IsWorthCompressing(found, path, site);
  const ZrCodingOffer wanted = WantedForms(request, path);
  if (!wanted.gzip && !wanted.brotli) return {.found = std::move(found), .varies = compressible};
  const auto beside = [&](bool isWanted, const char* ending) {
    ZrServedFiles::Found other;
    if (isWanted) other = files.Find(directory, path + ending);
    if (other.file && other.file->IsDirectory()) other = {};
    return other;
  };
  ZrServedFiles::Found brotli = beside(wanted.brotli, kBrotliEnding);
  ZrServedFiles::Found gzip = beside(wanted.gzip, kGzipEnding);
  FileForm form{.varies = compressible || brotli.file || gzip.file};
  const ZrCodingOffer offer{.gzip = wanted.gzip && (compressible || gzip.file),
                            .brotli = wanted.brotli && (compressible || brotli.file)};
  if (offer.gzip || offer.brotli)
    form.coding = ChooseCoding(request.headers["accept-encoding"], offer);
  ZrServedFiles::Found& made = form.coding == ZrCoding::kBrotli ? brotli : gzip;
  form.compresses = form.coding != ZrCoding::kIdentity && !made.file;
  const bool plain = form.coding == ZrCoding::kIdentity || form.compresses;
  form.found = std::move(plain ? found : made);
  return form;
}

bool zr::IsFormAtHand(const ZrXHeader& request, ZrServedFiles& files, const std::string& directory,
                      const std::string& path) {
  const ZrCodingOffer wanted = WantedForms(request, path);
  return (!wanted.brotli || files.IsAtHand(directory, path + kBrotliEnding)) &&
         (!wanted.gzip || files.IsAtHand(directory, path + kGzipEnding));
}

void zr::AnswerWithFile(const ZrXHeader& request, ZrXResponseHeader& answer,
                        const std::string& path, FileForm form, const ZrSite& site) {
  ZrServedFiles::Found& found = form.found;
  const ZrFile& file = *found.file;
  const std::int64_t now = request.created / kTicksPerSecond;
  const std::shared_ptr<const ZrFileHead> head = HeadOf(form, path, site, now);
  const std::string boundary = request.headers.contains("range") ? MakeBoundary() : std::string();
  ZrFileAnswer made = AnswerForFile(request.method, request.headers, *head, now, boundary);
  // The preconditions hold: without its ranges the request is one for the whole file.
  if (made.several.length > kMostCombined)
    made = AnswerForFile(request.method, {}, *head, now, boundary);
  std::unique_ptr<ZrStringBuf> parts;
  if (!made.several.parts.empty()) {
    parts = std::make_unique<ZrStringBuf>();
    if (!AppendRanges(found, made.several, *parts))
      return AnswerWithPage(request, answer, 500, site);
  }
  if (made.status == 412 || made.status == 416) AnswerWithPage(request, answer, made.status, site);
  answer.readyFields = {head, &head->fields};
  answer.readyBytes = made.fields;
  for (auto& [name, value] : made.more) answer.SetField(name, value);
  answer.SetStatus(made.status);
  if (!site.cacheControl.empty() && made.status < 400)
    answer.SetField("Cache-Control", site.cacheControl);
  if (made.status != 200 && made.status != 206) return;
  if (parts) {
    answer.body = std::move(parts);
    return;
  }
  answer.fileOffset = made.range.first;
  if (found.bytes && made.length != file.Size()) {
    found.bytes = std::make_shared<const std::string>(*found.bytes,
                                                      static_cast<std::size_t>(made.range.first),
                                                      static_cast<std::size_t>(made.length));
  }
  answer.SetFileBody(std::move(found.file), made.length);
  answer.fileBytes = std::move(found.bytes);
}

std::string zr::DirectoryAddress(const ZrXHeader& request) {
  std::string address;
  std::string_view path = request.path;
  while (!path.empty()) {
    path.remove_prefix(1);  // the slash before a piece
    const std::size_t end = std::min(path.find('/'), path.size());
    address.append("/").append(EscapedPathPiece(path.substr(0, end)));
    path.remove_prefix(end);
  }
  address += '/';
  if (!request.query.empty()) address.append("?").append(request.query);
  return address;
}

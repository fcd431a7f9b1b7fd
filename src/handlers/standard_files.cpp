#include "handlers/standard_files.h"

#include <random>
#include <utility>

#include "handlers/standard_pages.h"
#include "http/body_coding.h"
#include "http/file_answer.h"
#include "http/message_head.h"
#include "http/preferences.h"
#include "http/response_head.h"
#include "platform/clock.h"
#include "platform/file.h"

namespace {

constexpr std::int64_t kTicksPerSecond = 10'000'000;

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
ZrCodingOffer WantedCodings(const ZrXHeader& request, std::string_view path) {
  const auto accepts = request.headers["accept-encoding"];
  if (accepts.empty() || request.headers.contains("range") || path.ends_with(kBrotliEnding) ||
      path.ends_with(kGzipEnding))
    return {};
  const auto takes = [&](ZrCodingOffer offer) {
    return zr::ChooseCoding(accepts, offer) != ZrCoding::kIdentity;
  };
  return {.gzip = takes({.gzip = true}), .brotli = takes({.brotli = true})};
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

void zr::AnswerWithPage(const ZrXHeader& request, ZrXResponseHeader& answer, std::uint64_t status) {
  const ErrorPage page = MakeErrorPage(status, answer.semantics->StatusPhrase(status),
                                       PrefersJson(request.headers["accept"]));
  answer.SetBodyText(page.body);
  answer.SetField("Content-Type", page.contentType);
  answer.SetStatus(status);
}

zr::FileForm zr::ChooseFileForm(const ZrXHeader& request, ZrServedFiles& files,
                                const std::string& directory, const std::string& path,
                                ZrServedFiles::Found found, const ZrContentTypes& types) {
  const std::uint64_t size = found.file->Size();
  const bool compressible =
      size >= kLeastCompressed && size <= kMostCompressed && IsCompressible(types.TypeOf(path));
  const ZrCodingOffer wanted = WantedCodings(request, path);
  const auto beside = [&](bool isWanted, const char* ending) {
    ZrServedFiles::Found other;
    if (isWanted) other = files.Find(directory, path + ending);
    if (other.file && other.file->IsDirectory()) other = {};
    return other;
  };
  ZrServedFiles::Found brotli = beside(wanted.brotli, kBrotliEnding);
  ZrServedFiles::Found gzip = beside(wanted.gzip, kGzipEnding);
  FileForm form{.varies = compressible || brotli.file || gzip.file};
  form.coding = ChooseCoding(request.headers["accept-encoding"],
                             {.gzip = wanted.gzip && (compressible || gzip.file),
                              .brotli = wanted.brotli && (compressible || brotli.file)});
  ZrServedFiles::Found& made = form.coding == ZrCoding::kBrotli ? brotli : gzip;
  form.compresses = form.coding != ZrCoding::kIdentity && !made.file;
  const bool plain = form.coding == ZrCoding::kIdentity || form.compresses;
  form.found = std::move(plain ? found : made);
  return form;
}

bool zr::IsFormAtHand(const ZrXHeader& request, ZrServedFiles& files, const std::string& directory,
                      const std::string& path) {
  const ZrCodingOffer wanted = WantedCodings(request, path);
  return (!wanted.brotli || files.IsAtHand(directory, path + kBrotliEnding)) &&
         (!wanted.gzip || files.IsAtHand(directory, path + kGzipEnding));
}

void zr::AnswerWithFile(const ZrXHeader& request, ZrXResponseHeader& answer, std::string path,
                        FileForm form, const ZrContentTypes& types) {
  ZrServedFiles::Found& found = form.found;
  const ZrFile& file = *found.file;
  const ZrFileFacts facts{.version = {file.Size(), file.ModifiedNs(), file.Device(), file.Node()},
                          .contentType = types.TypeOf(path),
                          .coding = CodingName(form.coding),
                          .varies = form.varies};
  const std::int64_t now = ZrClock::System().SystemTicks() / kTicksPerSecond;
  const std::string boundary = request.headers.contains("range") ? MakeBoundary() : std::string();
  ZrFileAnswer made = AnswerForFile(request.headers, facts, now, boundary);
  // The preconditions hold: without its ranges the request is one for the whole file.
  if (made.several.length > kMostCombined) made = AnswerForFile({}, facts, now, boundary);
  if (made.status == 412 || made.status == 416) AnswerWithPage(request, answer, made.status);
  for (auto& [name, value] : made.fields) answer.SetField(name, value);
  answer.SetStatus(made.status);
  if (made.status != 200 && made.status != 206) return;
  if (!made.several.parts.empty()) {
    answer.body = std::make_unique<ZrStringBuf>();
    if (AppendRanges(found, made.several, *answer.body)) return;
    answer.body->Clear();
    return answer.SetStatus(500);
  }
  answer.fileOffset = made.range.first;
  if (found.bytes && made.length != file.Size()) {
    found.bytes = std::make_shared<const std::string>(*found.bytes,
                                                      static_cast<std::size_t>(made.range.first),
                                                      static_cast<std::size_t>(made.length));
  }
  answer.SetFileBody(std::move(path), made.length);
  answer.SetBodyFile(std::move(found.file));
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

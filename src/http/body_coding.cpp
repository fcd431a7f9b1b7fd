#include "http/body_coding.h"

#include <brotli/encode.h>
#define ZLIB_CONST  // what is compressed is not changed
#include <zlib.h>

#include <algorithm>
#include <new>

#include "base/string_buffer.h"
#include "http/field_list.h"
#include "http/message_head.h"

namespace {

// Where the time for one per cent less begins to double.
constexpr int kGzipLevel = 6;
constexpr std::uint32_t kBrotliQuality = 5;
// Of the window; a body is at most some MiB.
constexpr std::uint32_t kBrotliWindowBits = 20;
constexpr std::size_t kRoom = std::size_t{16} * 1024;

class GzipEncoder : public ZrBodyEncoder {
 public:
  GzipEncoder() {
    constexpr int kWithGzipFrame = 16;
    if (deflateInit2(&stream_, kGzipLevel, Z_DEFLATED, MAX_WBITS + kWithGzipFrame, MAX_MEM_LEVEL,
                     Z_DEFAULT_STRATEGY) != Z_OK)
      throw std::bad_alloc();
  }
  ~GzipEncoder() override { deflateEnd(&stream_); }
  GzipEncoder(const GzipEncoder&) = delete;
  GzipEncoder& operator=(const GzipEncoder&) = delete;

  void Add(std::string_view piece, ZrStringBuf& out) override { Run(piece, Z_NO_FLUSH, out); }
  void Encode(std::string_view piece, ZrStringBuf& out) override { Run(piece, Z_SYNC_FLUSH, out); }
  void Finish(ZrStringBuf& out) override { Run({}, Z_FINISH, out); }

 private:
  // The library counts in 32 bits.
  void Run(std::string_view piece, int flush, ZrStringBuf& out) {
    constexpr std::size_t kMost = std::size_t{1} << 30;
    for (; piece.size() > kMost; piece.remove_prefix(kMost))
      Step(piece.substr(0, kMost), Z_NO_FLUSH, out);
    Step(piece, flush, out);
  }
  void Step(std::string_view piece, int flush, ZrStringBuf& out) {
    stream_.next_in = reinterpret_cast<const Bytef*>(piece.data());
    stream_.avail_in = static_cast<uInt>(piece.size());
    do {
      const std::span<char> room = out.Prepare(kRoom);
      stream_.next_out = reinterpret_cast<Bytef*>(room.data());
      stream_.avail_out = static_cast<uInt>(kRoom);
      deflate(&stream_, flush);
      out.Commit(kRoom - stream_.avail_out);
    } while (stream_.avail_out == 0);
  }

  z_stream stream_{};
};

class BrotliEncoder : public ZrBodyEncoder {
 public:
  BrotliEncoder() : state_(BrotliEncoderCreateInstance(nullptr, nullptr, nullptr)) {
    if (!state_) throw std::bad_alloc();
    BrotliEncoderSetParameter(state_.get(), BROTLI_PARAM_QUALITY, kBrotliQuality);
    BrotliEncoderSetParameter(state_.get(), BROTLI_PARAM_LGWIN, kBrotliWindowBits);
  }

  void Add(std::string_view piece, ZrStringBuf& out) override {
    Run(piece, BROTLI_OPERATION_PROCESS, out);
  }
  void Encode(std::string_view piece, ZrStringBuf& out) override {
    Run(piece, BROTLI_OPERATION_FLUSH, out);
  }
  void Finish(ZrStringBuf& out) override { Run({}, BROTLI_OPERATION_FINISH, out); }

 private:
  void Run(std::string_view piece, BrotliEncoderOperation operation, ZrStringBuf& out) {
    auto next = reinterpret_cast<const std::uint8_t*>(piece.data());
    std::size_t left = piece.size();
    do {
      std::size_t room = 0;  // its own memory is taken instead
      if (!BrotliEncoderCompressStream(state_.get(), operation, &left, &next, &room, nullptr,
                                       nullptr))
        throw std::bad_alloc();
      std::size_t size = 0;
      const auto* const made = BrotliEncoderTakeOutput(state_.get(), &size);
      out.Append({reinterpret_cast<const char*>(made), size});
    } while (left > 0 || BrotliEncoderHasMoreOutput(state_.get()));
  }

  struct Free {
    void operator()(BrotliEncoderState* state) const { BrotliEncoderDestroyInstance(state); }
  };
  std::unique_ptr<BrotliEncoderState, Free> state_;
};

std::string_view TypeAlone(std::string_view contentType) {
  return zr::TrimBlanks(contentType.substr(0, contentType.find(';')));
}

// (RFC 9111, 5.2.2.6)
bool SaysNoTransform(const ZrXHeader& answer) {
  bool says = false;
  zr::AllListElements(answer.headers["cache-control"], [&says](std::string_view element) {
    says = says || zr::EqualsIgnoringCase(element, "no-transform");
    return true;
  });
  return says;
}

}  // namespace

bool zr::IsCompressible(std::string_view contentType) {
  const std::string type = LowerCase(TypeAlone(contentType));
  // Each of its lines is to arrive at once, and proxies that unpack it wait for more.
  if (type == "text/event-stream") return false;
  if (type.starts_with("text/") || type.ends_with("+json") || type.ends_with("+xml")) return true;
  // clang-format off
  constexpr std::string_view kLikeText[] = {
      "application/javascript", "application/json", "application/rtf", "application/sql",
      "application/toml", "application/vnd.ms-fontobject", "application/wasm",
      "application/x-javascript", "application/x-ndjson", "application/x-sh", "application/xml",
      "application/yaml", "font/otf", "font/ttf", "image/bmp", "image/vnd.microsoft.icon",
      "image/x-icon"};
  // clang-format on
  return std::find(std::begin(kLikeText), std::end(kLikeText), type) != std::end(kLikeText);
}

ZrCoding zr::ChooseBodyCoding(const ZrXHeader& request, ZrXHeader& answer,
                              std::optional<std::uint64_t> size) {
  constexpr auto kPlain = ZrCoding::kIdentity;
  // What is made of a file has its coding already.
  if (!answer.semantics->IsStandard() || answer.HasFileBody() || answer.readyFields) return kPlain;
  if (size && (*size < kLeastCompressed || *size > kMostCompressed)) return kPlain;
  const std::uint64_t status = answer.status;
  if (status < 200 || status == 204 || status == 205 || status == 206 || status == 304)
    return kPlain;
  if (answer.headers.contains("content-encoding") || SaysNoTransform(answer) ||
      !IsCompressible(answer.headers.First("content-type", "text/html")))
    return kPlain;
  answer.AddField("vary", "Accept-Encoding");
  return ChooseCoding(request.headers["accept-encoding"], {.gzip = true, .brotli = true});
}

void zr::SetBodyCoding(ZrXHeader& answer, ZrCoding coding) {
  answer.SetField("content-encoding", CodingName(coding));
  const std::string tag(answer.headers.First("etag"));
  if (!tag.ends_with('"')) return;
  // "x" becomes "x-gzip": each form of a body has a tag of its own.
  answer.SetField("etag",
                  tag.substr(0, tag.size() - 1) + "-" + std::string(CodingName(coding)) + '"');
}

std::unique_ptr<ZrBodyEncoder> zr::MakeBodyEncoder(ZrCoding coding) {
  switch (coding) {
    case ZrCoding::kGzip:
      return std::make_unique<GzipEncoder>();
    case ZrCoding::kBrotli:
      return std::make_unique<BrotliEncoder>();
    case ZrCoding::kIdentity:
      break;
  }
  return nullptr;
}

std::optional<std::string> zr::Compressed(ZrCoding coding, std::uint64_t size,
                                          const std::function<std::string_view()>& piece,
                                          const std::function<bool()>& goesOn) {
  constexpr std::size_t kStep = std::size_t{64} * 1024;
  const std::unique_ptr<ZrBodyEncoder> encoder = MakeBodyEncoder(coding);
  if (!encoder) return std::nullopt;
  ZrStringBuf out;
  for (std::string_view next = piece(); !next.empty(); next = piece()) {
    for (; !next.empty(); next.remove_prefix(std::min(kStep, next.size()))) {
      if (out.Size() >= size || !goesOn()) return std::nullopt;
      encoder->Add(next.substr(0, kStep), out);
    }
  }
  encoder->Finish(out);
  if (out.Size() >= size) return std::nullopt;
  std::string made = out.Take();
  made.shrink_to_fit();
  return made;
}

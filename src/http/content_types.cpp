#include "http/content_types.h"

#include <algorithm>
#include <iterator>

#include "base/trim.h"
#include "http/field_list.h"
#include "http/field_syntax.h"

namespace {

struct Known {
  std::string_view extension;
  std::string_view type;
};

constexpr Known kKnown[] = {
    {"3g2", "video/3gpp2"},
    {"3gp", "video/3gpp"},
    {"7z", "application/x-7z-compressed"},
    {"aac", "audio/aac"},
    {"aif", "audio/aiff"},
    {"aiff", "audio/aiff"},
    {"apk", "application/vnd.android.package-archive"},
    {"apng", "image/apng"},
    {"appcache", "text/cache-manifest; charset=utf-8"},
    {"asc", "application/pgp-signature"},
    {"atom", "application/atom+xml"},
    {"avi", "video/x-msvideo"},
    {"avif", "image/avif"},
    {"avifs", "image/avif"},
    {"bin", "application/octet-stream"},
    {"bmp", "image/bmp"},
    {"bz2", "application/x-bzip2"},
    {"c", "text/plain; charset=utf-8"},
    {"cc", "text/plain; charset=utf-8"},
    {"cer", "application/pkix-cert"},
    {"cjs", "text/javascript; charset=utf-8"},
    {"conf", "text/plain; charset=utf-8"},
    {"cpp", "text/plain; charset=utf-8"},
    {"crt", "application/x-x509-ca-cert"},
    {"crx", "application/x-chrome-extension"},
    {"css", "text/css; charset=utf-8"},
    {"csv", "text/csv; charset=utf-8"},
    {"cur", "image/x-icon"},
    {"deb", "application/vnd.debian.binary-package"},
    {"def", "text/plain; charset=utf-8"},
    {"der", "application/pkix-cert"},
    {"djvu", "image/vnd.djvu"},
    {"dmg", "application/x-apple-diskimage"},
    {"doc", "application/msword"},
    {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
    {"dot", "application/msword"},
    {"eot", "application/vnd.ms-fontobject"},
    {"eps", "application/postscript"},
    {"epub", "application/epub+zip"},
    {"exe", "application/vnd.microsoft.portable-executable"},
    {"flac", "audio/flac"},
    {"flv", "video/x-flv"},
    {"geojson", "application/geo+json"},
    {"gif", "image/gif"},
    {"glb", "model/gltf-binary"},
    {"gltf", "model/gltf+json"},
    {"go", "text/plain; charset=utf-8"},
    {"gpx", "application/gpx+xml"},
    {"gz", "application/gzip"},
    {"h", "text/plain; charset=utf-8"},
    {"har", "application/json"},
    {"heic", "image/heic"},
    {"heif", "image/heif"},
    {"hpp", "text/plain; charset=utf-8"},
    {"htm", "text/html; charset=utf-8"},
    {"html", "text/html; charset=utf-8"},
    {"ico", "image/x-icon"},
    {"ics", "text/calendar; charset=utf-8"},
    {"ifb", "text/calendar; charset=utf-8"},
    {"in", "text/plain; charset=utf-8"},
    {"ini", "text/plain; charset=utf-8"},
    {"ipynb", "application/x-ipynb+json"},
    {"iso", "application/x-iso9660-image"},
    {"jar", "application/java-archive"},
    {"java", "text/plain; charset=utf-8"},
    {"jfif", "image/jpeg"},
    {"jp2", "image/jp2"},
    {"jpe", "image/jpeg"},
    {"jpeg", "image/jpeg"},
    {"jpg", "image/jpeg"},
    {"js", "text/javascript; charset=utf-8"},
    {"json", "application/json"},
    {"json5", "application/json5"},
    {"jsonld", "application/ld+json"},
    {"jsx", "text/plain; charset=utf-8"},
    {"jxl", "image/jxl"},
    {"kml", "application/vnd.google-earth.kml+xml"},
    {"kmz", "application/vnd.google-earth.kmz"},
    {"ktx2", "image/ktx2"},
    {"less", "text/plain; charset=utf-8"},
    {"list", "text/plain; charset=utf-8"},
    {"log", "text/plain; charset=utf-8"},
    {"m2ts", "video/mp2t"},
    {"m3u8", "application/vnd.apple.mpegurl"},
    {"m4a", "audio/mp4"},
    {"m4v", "video/mp4"},
    {"map", "application/json"},
    {"markdown", "text/markdown; charset=utf-8"},
    {"mathml", "application/mathml+xml"},
    {"md", "text/markdown; charset=utf-8"},
    {"mid", "audio/midi"},
    {"midi", "audio/midi"},
    {"mjs", "text/javascript; charset=utf-8"},
    {"mka", "audio/x-matroska"},
    {"mkv", "video/x-matroska"},
    {"mml", "application/mathml+xml"},
    {"mobi", "application/x-mobipocket-ebook"},
    {"mov", "video/quicktime"},
    {"mp3", "audio/mpeg"},
    {"mp4", "video/mp4"},
    {"mpd", "application/dash+xml"},
    {"mpeg", "video/mpeg"},
    {"mpg", "video/mpeg"},
    {"msi", "application/x-msi"},
    {"mts", "video/mp2t"},
    {"obj", "model/obj"},
    {"odg", "application/vnd.oasis.opendocument.graphics"},
    {"odp", "application/vnd.oasis.opendocument.presentation"},
    {"ods", "application/vnd.oasis.opendocument.spreadsheet"},
    {"odt", "application/vnd.oasis.opendocument.text"},
    {"oga", "audio/ogg"},
    {"ogg", "audio/ogg"},
    {"ogv", "video/ogg"},
    {"opus", "audio/ogg"},
    {"otf", "font/otf"},
    {"p12", "application/x-pkcs12"},
    {"parquet", "application/vnd.apache.parquet"},
    {"pdf", "application/pdf"},
    {"pem", "application/x-pem-file"},
    {"pfx", "application/x-pkcs12"},
    {"png", "image/png"},
    {"ppt", "application/vnd.ms-powerpoint"},
    {"pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation"},
    {"ps", "application/postscript"},
    {"psd", "image/vnd.adobe.photoshop"},
    {"py", "text/plain; charset=utf-8"},
    {"qt", "video/quicktime"},
    {"rar", "application/vnd.rar"},
    {"rng", "application/xml"},
    {"rpm", "application/x-rpm"},
    {"rs", "text/plain; charset=utf-8"},
    {"rss", "application/rss+xml"},
    {"rtf", "application/rtf"},
    {"rtx", "text/richtext; charset=utf-8"},
    {"sass", "text/plain; charset=utf-8"},
    {"scss", "text/plain; charset=utf-8"},
    {"sh", "text/plain; charset=utf-8"},
    {"shtml", "text/html; charset=utf-8"},
    {"sql", "application/sql"},
    {"sqlite", "application/vnd.sqlite3"},
    {"stl", "model/stl"},
    {"svg", "image/svg+xml"},
    {"svgz", "image/svg+xml"},
    {"swf", "application/x-shockwave-flash"},
    {"tar", "application/x-tar"},
    {"text", "text/plain; charset=utf-8"},
    {"tgz", "application/gzip"},
    {"tif", "image/tiff"},
    {"tiff", "image/tiff"},
    {"toml", "application/toml"},
    {"topojson", "application/json"},
    {"torrent", "application/x-bittorrent"},
    {"ts", "video/mp2t"},
    {"tsv", "text/tab-separated-values; charset=utf-8"},
    {"tsx", "text/plain; charset=utf-8"},
    {"ttc", "font/collection"},
    {"ttf", "font/ttf"},
    {"txt", "text/plain; charset=utf-8"},
    {"usdz", "model/vnd.usdz+zip"},
    {"vcard", "text/vcard; charset=utf-8"},
    {"vcf", "text/vcard; charset=utf-8"},
    {"vtt", "text/vtt; charset=utf-8"},
    {"wasm", "application/wasm"},
    {"wav", "audio/wav"},
    {"weba", "audio/webm"},
    {"webm", "video/webm"},
    {"webmanifest", "application/manifest+json"},
    {"webp", "image/webp"},
    {"wmv", "video/x-ms-wmv"},
    {"woff", "font/woff"},
    {"woff2", "font/woff2"},
    {"wsdl", "application/wsdl+xml"},
    {"xht", "application/xhtml+xml"},
    {"xhtml", "application/xhtml+xml"},
    {"xls", "application/vnd.ms-excel"},
    {"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
    {"xml", "application/xml"},
    {"xpi", "application/x-xpinstall"},
    {"xsd", "application/xml"},
    {"xsl", "application/xml"},
    {"xslt", "application/xslt+xml"},
    {"xz", "application/x-xz"},
    {"yaml", "application/yaml"},
    {"yml", "application/yaml"},
    {"zip", "application/zip"},
    {"zst", "application/zstd"},
};

constexpr bool Before(const Known& one, std::string_view extension) {
  return one.extension < extension;
}
static_assert(std::is_sorted(std::begin(kKnown), std::end(kKnown),
                             [](const Known& one, const Known& other) {
                               return one.extension < other.extension;
                             }));

constexpr std::size_t kLongestExtension = 16;
constexpr std::string_view kCharset = "; charset=utf-8";
constexpr std::string_view kUnknown = "application/octet-stream";

/// In lower case; empty for a name without an extension and for one that is too long for any.
std::string ExtensionOf(std::string_view path) {
  path.remove_prefix(path.rfind('/') + 1);
  const std::size_t dot = path.rfind('.');
  if (dot == std::string_view::npos || path.size() - dot - 1 > kLongestExtension) return {};
  std::string extension(path.substr(dot + 1));
  for (char& c : extension) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return extension;
}

/// "type/subtype", and parameters that fit into a field.
bool IsType(std::string_view text) {
  const std::string_view type = zr::TrimBlanks(text.substr(0, text.find(';')));
  const std::size_t slash = type.find('/');
  return slash != std::string_view::npos && zr::IsToken(type.substr(0, slash)) &&
         zr::IsToken(type.substr(slash + 1)) && zr::IsFieldValue(text);
}

std::string WithCharset(std::string_view type) {
  std::string whole(type);
  if (type.starts_with("text/") && type.find(';') == std::string_view::npos) whole += kCharset;
  return whole;
}

}  // namespace

std::string_view zr::KnownContentType(std::string_view extension) {
  const auto found = std::lower_bound(std::begin(kKnown), std::end(kKnown), extension, Before);
  return found != std::end(kKnown) && found->extension == extension ? found->type
                                                                    : std::string_view();
}

bool ZrContentTypes::Set(std::string_view extension, std::string_view type) {
  if (extension.starts_with('.')) extension.remove_prefix(1);
  const std::string name = ExtensionOf("." + std::string(extension));
  if (name.empty() || name.find('/') != std::string::npos || !IsType(type)) return false;
  own_.insert_or_assign(name, WithCharset(type));
  return true;
}

void ZrContentTypes::AddFrom(std::string_view mimeTypes) {
  constexpr std::string_view kBlanks = " \t\r";
  while (!mimeTypes.empty()) {
    std::string_view line = mimeTypes.substr(0, mimeTypes.find('\n'));
    mimeTypes.remove_prefix(std::min(line.size() + 1, mimeTypes.size()));
    line = zr::Trim(line.substr(0, line.find('#')), kBlanks);
    const std::string_view type = line.substr(0, line.find_first_of(kBlanks));
    line.remove_prefix(type.size());
    while (!(line = zr::Trim(line, kBlanks)).empty()) {
      const std::string_view extension = line.substr(0, line.find_first_of(kBlanks));
      line.remove_prefix(extension.size());
      const std::string name = ExtensionOf("." + std::string(extension));
      if (name.empty() || !IsType(type) || !zr::KnownContentType(name).empty()) continue;
      own_.try_emplace(name, WithCharset(type));
    }
  }
}

std::string_view ZrContentTypes::TypeOf(std::string_view path) const {
  const std::string extension = ExtensionOf(path);
  if (extension.empty()) return kUnknown;
  if (const auto found = own_.find(extension); found != own_.end()) return found->second;
  const std::string_view known = zr::KnownContentType(extension);
  return known.empty() ? kUnknown : known;
}

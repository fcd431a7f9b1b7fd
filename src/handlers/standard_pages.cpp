#include "handlers/standard_pages.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <utility>

#include "html/error_page_404.h"
#include "html/html_document.h"
#include "html/html_elements.h"
#include "html/html_text.h"
#include "html/plain_elements.h"
#include "markup/xml_nodes.h"

namespace {

// Readable on a phone: nothing is wider than the screen, and each link is large enough for a
// finger.
constexpr std::string_view kListingStyle =
    "body{font-family:sans-serif;margin:1rem auto;max-width:60rem;padding:0 1rem}"
    "table{border-collapse:collapse;width:100%}"
    "td,th{padding:.4rem .5rem;text-align:left;overflow-wrap:anywhere}"
    "td+td,th+th{text-align:right;white-space:nowrap;color:#555}"
    "tr:hover td{background:#f3f3f3}"
    "a{text-decoration:none}"
    "@media(max-width:30rem){td:nth-child(3),th:nth-child(3){display:none}}"
    "@media(prefers-color-scheme:dark){body{background:#111;color:#eee}a{color:#8bf}"
    "td+td,th+th{color:#aaa}tr:hover td{background:#222}}";

std::string SizeText(std::uint64_t size) {
  constexpr std::array<const char*, 5> kUnits = {" B", " KiB", " MiB", " GiB", " TiB"};
  std::size_t unit = 0;
  std::uint64_t tenths = size * 10;
  if (size > (~std::uint64_t{0}) / 10) tenths = ~std::uint64_t{0};
  for (; tenths >= 10240 && unit + 1 < kUnits.size(); ++unit) tenths /= 1024;
  std::string text = std::to_string(tenths / 10);
  if (unit > 0 && tenths < 100) text += "." + std::to_string(tenths % 10);
  return text + kUnits.at(unit);
}

std::string TimeText(std::int64_t seconds) {
  // What a calendar of four digits can say.
  constexpr std::int64_t kFirst = 0;
  constexpr std::int64_t kLast = 253'402'300'799;
  const std::chrono::seconds since(std::clamp(seconds, kFirst, kLast));
  const auto day = std::chrono::floor<std::chrono::days>(since);
  const std::chrono::year_month_day date{std::chrono::sys_days(day)};
  const auto minutes = std::chrono::duration_cast<std::chrono::minutes>(since - day).count();
  const auto two = [](unsigned number) {
    return std::string(1, static_cast<char>('0' + number / 10)) +
           static_cast<char>('0' + number % 10);
  };
  return std::to_string(static_cast<int>(date.year())) + "-" +
         two(static_cast<unsigned>(date.month())) + "-" + two(static_cast<unsigned>(date.day())) +
         " " + two(static_cast<unsigned>(minutes / 60)) + ":" +
         two(static_cast<unsigned>(minutes % 60));
}

template <class Cell>
void AddCell(ZrXMLComplexElement& row, std::string_view text) {
  row.Adopt(std::make_unique<Cell>())->Adopt(std::make_unique<ZrHTML_text2>(text));
}

struct Row {
  std::string link;  // begins with "./": a name with a colon would be taken for a scheme
  std::string shown;
  std::string size;
  std::string time;
};

void AddRow(ZrXMLComplexElement& table, const Row& entry) {
  ZrXMLComplexElement& row = *table.Adopt(std::make_unique<ZrHTML_tr2>());
  row.Adopt(std::make_unique<ZrHTML_td2>())
      ->Adopt(std::make_unique<ZrHTML_a2>(entry.link, entry.shown));
  AddCell<ZrHTML_td2>(row, entry.size);
  AddCell<ZrHTML_td2>(row, entry.time);
}

void AddFrame(ZrHTML_Document2& page, const std::string& title) {
  page.AddToHead(std::make_unique<ZrHTML_meta2>("charset=\"utf-8\""));
  auto viewport = std::make_unique<ZrHTML_meta2>("name=\"viewport\"");
  viewport->SetAttribute("content", "width=device-width, initial-scale=1");
  page.AddToHead(std::move(viewport));
  page.AddToHead(std::make_unique<ZrHTML_title2>(title));
  auto style = std::make_unique<ZrHTML_style2>();
  style->Adopt(std::make_unique<ZrXMLGenericText>(kListingStyle));
  page.AddToHead(std::move(style));
  page.AddToBody(std::make_unique<ZrHTML_h12>()).Adopt(std::make_unique<ZrHTML_text2>(title));
}

/// Keeps what is shown, in the order in which it is shown; answers how many are left out.
std::size_t Arrange(std::vector<zr::ListingEntry>& entries) {
  std::erase_if(
      entries,
      [](const zr::ListingEntry& entry) {
        return entry.name.empty() || entry.name.front() == '.';
      });
  std::sort(entries.begin(), entries.end(),
            [](const zr::ListingEntry& one, const zr::ListingEntry& other) {
              return one.directory != other.directory ? one.directory : one.name < other.name;
            });
  const std::size_t more = entries.size() - std::min(entries.size(), zr::kMostListed);
  entries.resize(entries.size() - more);
  return more;
}

std::string_view Sentence(std::uint64_t status) {
  switch (status) {
    case 400:
      return "The request could not be understood.";
    case 403:
      return "The requested page may not be shown.";
    case 404:
      return "The requested page was not found.";
    case 405:
      return "The requested page cannot be asked for in this way.";
    case 408:
      return "The request did not arrive in time.";
    case 412:
      return "The page is another version by now.";
    case 413:
      return "The request is larger than this server takes.";
    case 414:
      return "The address is longer than this server takes.";
    case 416:
      return "The page has no such part.";
    case 431:
      return "The fields of the request are larger than this server takes.";
    case 501:
      return "This server does not know how to do that.";
    case 502:
      return "A program behind this page gave no proper answer.";
    case 503:
      return "The server has too much to do; please try again in a moment.";
    case 505:
      return "This server does not speak that version of the protocol.";
    default:
      return status >= 500 ? "The server could not answer the request."
                           : "The request was not answered with a page.";
  }
}

}  // namespace

std::string zr::EscapedMarkup(std::string_view text) {
  std::string safe;
  safe.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '<':
        safe += "&lt;";
        break;
      case '>':
        safe += "&gt;";
        break;
      case '&':
        safe += "&amp;";
        break;
      case '"':
        safe += "&quot;";
        break;
      case '\'':
        safe += "&#39;";
        break;
      default:
        safe += c;
    }
  }
  return safe;
}

std::string zr::EscapedPathPiece(std::string_view text) {
  constexpr std::string_view kPlain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string safe;
  for (const char c : text) {
    if (kPlain.find(c) != std::string_view::npos) {
      safe += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      safe.append(1, '%').append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 15]);
    }
  }
  return safe;
}

std::string zr::DirectoryListing(std::string_view path, std::vector<ListingEntry> entries) {
  const std::size_t more = Arrange(entries);
  ZrHTML_Document2 page;
  AddFrame(page, "Index of " + EscapedMarkup(path));
  ZrXMLComplexElement& table = page.AddToBody(std::make_unique<ZrHTML_table2>());
  ZrXMLComplexElement& head = *table.Adopt(std::make_unique<ZrHTML_tr2>());
  for (const char* name : {"Name", "Size", "Changed (UTC)"}) AddCell<ZrHTML_th2>(head, name);
  if (path != "/") AddRow(table, {"../", "..", "", ""});
  for (const ListingEntry& entry : entries) {
    const char* const end = entry.directory ? "/" : "";
    AddRow(table, {.link = "./" + EscapedPathPiece(entry.name) + end,
                   .shown = EscapedMarkup(entry.name) + end,
                   .size = entry.directory ? "" : SizeText(entry.size),
                   .time = TimeText(entry.modified)});
  }
  if (more > 0) {
    page.AddToBody(std::make_unique<ZrHTML_p2>())
        .Adopt(std::make_unique<ZrHTML_text2>("and " + std::to_string(more) + " more"));
  }
  return page.ToText();
}

namespace {

std::string MakeHtmlPage(std::uint64_t status, std::string_view phrase) {
  std::string title = "Error " + std::to_string(status);
  if (!phrase.empty()) title.append(" - ").append(zr::EscapedMarkup(phrase));
  return ZrHTML_ErrorMsg404(title, "<h1>" + title + "</h1>" + std::string(Sentence(status)), "/",
                            "Startseite")
      .ToText();
}

// The same for everybody: made once for each status, and never destroyed, as tasks of a host that
// does not stop its servers may still read it at its exit.
const std::string& HtmlPage(std::uint64_t status, std::string_view phrase) {
  constexpr std::size_t kMostStatus = 1000;
  static std::array<std::atomic<const std::string*>, kMostStatus> pages{};
  auto& kept = pages[std::min<std::size_t>(status, kMostStatus - 1)];
  const std::string* page = kept.load(std::memory_order_acquire);
  if (page != nullptr) return *page;
  auto made = std::make_unique<const std::string>(MakeHtmlPage(status, phrase));
  return kept.compare_exchange_strong(page, made.get(), std::memory_order_acq_rel) ? *made.release()
                                                                                   : *page;
}

}  // namespace

zr::ErrorPage zr::MakeErrorPage(std::uint64_t status, std::string_view phrase, bool json) {
  if (!json) return {HtmlPage(status, phrase), "text/html; charset=utf-8"};
  // Phrases are words of the registry: nothing in them needs an escape.
  std::string body = "{\"status\":" + std::to_string(status) + ",\"title\":\"";
  return {body.append(phrase).append("\"}"), "application/problem+json"};
}

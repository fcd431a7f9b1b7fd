#include "handlers/standard_pages.h"

#include <gtest/gtest.h>

#include "velkoro/documents.h"

namespace {

/// What the links of a page lead to and show, one a line.
std::string Links(const std::string& page) {
  const auto tree = velkoro::Document::ReadText(page, velkoro::DocumentKind::kHtml);
  std::string lines;
  for (const velkoro::Element& link : tree.Query("//a")) {
    std::string shown = link.Text();
    std::erase(shown, '\n');
    lines += link.Attribute("href", "") + " " + shown + "\n";
  }
  return lines;
}

TEST(StandardPages, ListingLinksToWhatItShows) {
  const std::string page = zr::DirectoryListing(
      "/a<b>/", {{.name = "z.txt", .size = 1023, .modified = 784111777},
                 {.name = "javascript:alert(1)", .size = 1024},
                 {.name = "<b>\"&'", .size = 1536},
                 {.name = "a b?#%\xc3\xbc", .size = ~std::uint64_t{0}, .modified = -5},
                 {.name = ".hidden"},
                 {.name = "sub", .directory = true, .modified = 784111777},
                 {.name = "A", .directory = true}});
  EXPECT_EQ(Links(page),
            "../ ..\n"
            "./A/ A/\n"
            "./sub/ sub/\n"
            "./%3Cb%3E%22%26%27 <b>\"&'\n"
            "./a%20b%3F%23%25%C3%BC a b?#%\xc3\xbc\n"
            "./javascript%3Aalert%281%29 javascript:alert(1)\n"
            "./z.txt z.txt\n");
  for (const char* part : {"Index of /a&lt;b&gt;/", "1023 B", "1.0 KiB", "1.5 KiB",
                           "1994-11-06 08:49", "1970-01-01 00:00", "width=device-width"}) {
    EXPECT_NE(page.find(part), std::string::npos) << part << page;
  }
  EXPECT_EQ(page.find("<b>"), std::string::npos);
  EXPECT_EQ(page.find("hidden\n"), std::string::npos);
  EXPECT_EQ(Links(zr::DirectoryListing("/", {})), "");
}

TEST(StandardPages, ListingOfManyHasALimit) {
  std::vector<zr::ListingEntry> many;
  for (std::size_t i = 0; i < zr::kMostListed + 3; ++i)
    many.push_back({std::to_string(100'000 + i)});
  const std::string page = zr::DirectoryListing("/", many);
  EXPECT_NE(page.find("./109999\""), std::string::npos);
  EXPECT_EQ(page.find("./110000\""), std::string::npos);
  EXPECT_NE(page.find("and 3 more"), std::string::npos);
}

}  // namespace

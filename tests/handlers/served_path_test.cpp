#include "handlers/served_path.h"

#include <gtest/gtest.h>

namespace {

TEST(ServedPath, NoSpellingLeadsToHiddenNamesOrAroundAPrefix) {
  constexpr std::string_view kServed[] = {"a",         "a.b",   "a./b",  "sub/", "sub/a..b",
                                          "cgi-bin/x", "%2e/a", "%2F.a", "\\.a", "a b"};
  constexpr std::string_view kNot[] = {"",
                                       "/",
                                       ".",
                                       "..",
                                       ".htaccess",
                                       "/.htaccess",
                                       "sub/.git/config",
                                       "sub/.",
                                       "./a",
                                       "sub/../a",
                                       "/cgi-bin/x",
                                       "cgi-bin//x",
                                       "./cgi-bin/x",
                                       "cgi-bin/./x",
                                       "a//",
                                       "a//b/",
                                       "sub/.hidden",
                                       "sub/..hidden",
                                       ".../a"};
  for (const std::string_view path : kServed) EXPECT_TRUE(zr::IsServedPath(path)) << path;
  for (const std::string_view path : kNot) EXPECT_FALSE(zr::IsServedPath(path)) << path;
}

}  // namespace

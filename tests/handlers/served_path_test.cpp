#include "handlers/served_path.h"

#include <gtest/gtest.h>

namespace {

TEST(ServedPath, NoSpellingLeadsToHiddenNamesOrAroundAPrefix) {
  for (const char* served :
       {"a", "a.b", "a./b", "sub/", "sub/a..b", "cgi-bin/x", "%2e/a", "%2F.a", "\\.a", "a b"})
    EXPECT_TRUE(zr::IsServedPath(served)) << served;
  for (const char* hidden : {"", "/", ".", "..", ".htaccess", "/.htaccess", "sub/.git/config",
                             "sub/.", "./a", "sub/../a", "/cgi-bin/x", "cgi-bin//x", "./cgi-bin/x",
                             "cgi-bin/./x", "a//", "a//b/", "sub/.hidden", "sub/..hidden", ".../a"})
    EXPECT_FALSE(zr::IsServedPath(hidden)) << hidden;
}

}  // namespace

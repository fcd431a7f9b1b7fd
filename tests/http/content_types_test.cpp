#include "http/content_types.h"

#include <gtest/gtest.h>

namespace {

TEST(ContentTypes, SetTypesComeBeforeBuiltInOnesBeforeThoseOfTheSystem) {
  ZrContentTypes types;
  EXPECT_TRUE(types.Set(".JS", "application/x-own"));
  EXPECT_TRUE(types.Set("set", "text/x-set"));
  EXPECT_TRUE(types.Set("latin", "text/plain; charset=latin1"));
  types.AddFrom(
      "# comment\n\ntext/x-sys\tsys  sys2 # more\r\napplication/x-html html js set\nbroken x1\n"
      "a/b/c x2\n/ x3\ntext/none\ntext/other sys");
  constexpr std::pair<const char*, const char*> kCases[] = {
      {"a/b.c/APP.MJS", "text/javascript; charset=utf-8"},
      {"a.css.map", "application/json"},
      {"3.7z", "application/x-7z-compressed"},
      {"a.js", "application/x-own"},
      {"a.set", "text/x-set; charset=utf-8"},
      {"a.latin", "text/plain; charset=latin1"},
      {"a.sys", "text/x-sys; charset=utf-8"},
      {"a.SYS2", "text/x-sys; charset=utf-8"},
      {"a.html", "text/html; charset=utf-8"},
  };
  for (const auto& [path, type] : kCases) EXPECT_EQ(types.TypeOf(path), type) << path;
  for (const char* path :
       {"a.x1", "a.x2", "a.x3", "a.html/plain", "html", "a.", "", "a.zzz", "a.htm\xff"}) {
    EXPECT_EQ(types.TypeOf(path), "application/octet-stream") << path;
  }
  EXPECT_EQ(types.TypeOf("a." + std::string(1 << 16, 'x')), "application/octet-stream");
  constexpr std::pair<const char*, const char*> kRefused[] = {
      {"", "text/x"}, {".", "text/x"},   {"a/b", "text/x"},        {"a", "text"}, {"a", "text/"},
      {"a", "/x"},    {"a", "text/x y"}, {"a", "text/x;\r\nA: b"}, {"a", ""},
  };
  for (const auto& [extension, type] : kRefused) EXPECT_FALSE(types.Set(extension, type)) << type;
}

}  // namespace

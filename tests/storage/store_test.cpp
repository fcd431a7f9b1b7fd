#include "velkoro/store.h"

#include <gtest/gtest.h>

#include <limits>
#include <thread>

#include "tests/markup/dump.h"
#include "tests/support/temporary_folder.h"

namespace {

using velkoro::Store;
using zrtest::MessageOf;

TEST(Store, ValuesOfEveryTypeSurviveSaving) {
  const zrtest::TemporaryFolder folder;
  const std::string path = folder.Path("s.xml");
  {
    Store store(path);
    store.Save();  // nothing to save
    EXPECT_EQ(zrtest::ReadFile(path), "");
    store.Set("text", "\"<a> &\n");
    store.Set("a.int", std::numeric_limits<std::int64_t>::min());
    store.Set("a.unsigned", std::numeric_limits<std::uint64_t>::max());
    store.Set("a.double", 0.1);
    store.Set("a.b.bool", true);
    store.Set("a.gone", 1);
    EXPECT_TRUE(store.Remove("a.gone") && !store.Remove("a.gone") && !store.Remove("none.gone"));
    store.Save();
  }
  const Store store(path);
  EXPECT_EQ(store.Backup(), "");
  EXPECT_EQ(store.Get("text", ""), "\"<a> &\n");
  EXPECT_EQ(store.Get("a.int", std::int64_t{0}), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(store.Get("a.unsigned", std::uint64_t{0}), std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(store.Get("a.double", 0.0), 0.1);
  EXPECT_TRUE(store.Get("a.b.bool", false));
  EXPECT_FALSE(store.Has("a.gone"));
  std::string paths;
  for (const std::string& p : store.Paths()) paths += p + " ";
  EXPECT_EQ(paths, "text a.double a.int a.unsigned a.b.bool ");
  EXPECT_EQ(MessageOf([&] { store.Get("a.int", std::int8_t{0}); }),
            "a.int: '-9223372036854775808' is not a value of this type");
  EXPECT_NE(MessageOf([&] { store.Get("text", 1.5); }), "nothing thrown");
  EXPECT_NE(MessageOf([&] { store.Get("a.double", true); }), "nothing thrown");
}

TEST(Store, WhatPeopleWroteIsKept) {
  const zrtest::TemporaryFolder folder;
  const std::string path =
      folder.Write("s.xml", "<!-- mine -->\n<my>\n  <server port='1'/> <!-- why -->\n</my>\n");
  Store store(path);
  store.Set("server.port", store.Get("server.port", 0) + 1);
  store.Save();
  EXPECT_EQ(zrtest::ReadFile(path),
            "<!-- mine -->\n<my>\n  <server port=\"2\" /> <!-- why -->\n</my>\n");
}

TEST(Store, WhatCannotBeReadIsNotLost) {
  const zrtest::TemporaryFolder folder;
  for (const std::string bytes : {"<a>half", "", "other"}) {
    const std::string path = folder.Write("s.xml", bytes);
    Store store(path);
    EXPECT_EQ(zrtest::ReadFile(store.Backup()), bytes);
    EXPECT_EQ(Store(path).Backup(), store.Backup()) << "the same bytes are kept once";
    EXPECT_NE(store.BackupReason().find("s.xml"), std::string::npos);
    store.Set("a", "b");
    store.Save();
    EXPECT_EQ(Store(path).Get("a", ""), "b");
  }
  EXPECT_EQ(zrtest::ReadFile(folder.Path("s.xml.unreadable")), "<a>half");
  EXPECT_EQ(zrtest::ReadFile(folder.Path("s.xml.unreadable.3")), "other");
  EXPECT_NE(MessageOf([&] { Store store(folder.Path()); }), "nothing thrown");
}

TEST(Store, WrongPathsAndFilesChangeNothing) {
  const zrtest::TemporaryFolder folder;
  Store store(folder.Path("none/s.xml"));
  for (const char* path : {"", ".", "a.", ".a", "a..b", "a.1", "a b.c"}) {
    EXPECT_NE(MessageOf([&] { store.Set(path, "x"); }).find(path), std::string::npos) << path;
  }
  EXPECT_TRUE(store.Paths().empty());
  store.Set("a", 1);
  EXPECT_EQ(MessageOf([&] { store.Save(); }),
            folder.Path("none/s.xml") + ": No such file or directory");
  EXPECT_EQ(store.Get("a", 0), 1);
}

TEST(Store, ThreadsMayShareOne) {
  const zrtest::TemporaryFolder folder;
  Store store(folder.Path("s.xml"));
  const auto work = [&store](const char* path) {
    for (int i = 0; i < 50; ++i) {
      store.Set(path, store.Get(path, 0) + 1);
      if (i % 10 == 0) store.Save();
    }
    store.Save();
  };
  std::thread other(work, "x.b");
  work("x.a");
  other.join();
  EXPECT_EQ(Store(store.Path()).Get("x.a", 0) + Store(store.Path()).Get("x.b", 0), 100);
}

}  // namespace

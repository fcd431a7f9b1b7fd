// Files opened beneath a directory, and whole files.

#include "platform/file.h"

#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "platform/filesystem.h"
#include "tests/support/temporary_folder.h"

using namespace std::string_literals;

namespace {

std::string Content(const ZrFile& file) {
  std::string bytes(file.Size(), '\0');
  bytes.resize(file.ReadAt(0, bytes).value_or(0));
  return bytes;
}

class File : public testing::Test {
 protected:
  File() {
    folder_.Write("site/page.txt", "page");
    folder_.Write("site/sub/a..b", "dots");
    folder_.Write("site/odd\\name", "backslash");
    folder_.Write("secret.txt", "secret");
    folder_.Write("site2/page.txt", "neighbour");
    Link("sub/a..b", "inside");
    Link("sub/../page.txt", "round");
    Link(folder_.Path("site/page.txt"), "absolute");
    Link("../secret.txt", "out");
    Link(folder_.Path("secret.txt"), "absolute-out");
    Link(folder_.Path("site2"), "neighbour");
    Link("loop", "loop");
    Link("/proc/self/root", "magic");
    ::mkfifo(folder_.Path("site/fifo").c_str(), 0600);
  }
  void Link(const std::string& target, const std::string& name) const {
    std::filesystem::create_symlink(target, folder_.Path("site/" + name));
  }

  zrtest::TemporaryFolder folder_;
};

TEST_F(File, OpensWhatLiesBeneathAndNothingElse) {
  constexpr std::pair<const char*, const char*> kCases[] = {{"page.txt", "page"},
                                                            {"sub/a..b", "dots"},
                                                            {"odd\\name", "backslash"},
                                                            {"inside", "dots"},
                                                            {"round", "page"},
                                                            {"absolute", "page"},
                                                            {"sub", ""},
                                                            {"/", ""}};
  const std::string site = folder_.Path("site");
  const auto atHand = [&](const std::string& path) {
    return ZrDirectory::Open(site)->OpenFileAtHand(path).answer;
  };
  for (const auto& [path, content] : kCases) {
    SCOPED_TRACE(path);
    const auto file = ZrFile::OpenBeneath(site, path);
    EXPECT_TRUE(ZrFile::ExistsBeneath(site, path));
    ASSERT_NE(file, nullptr);
    // Without waiting there is the same answer or none.
    EXPECT_NE(atHand(path), ZrFileAtHand::Answer::kNotThere);
    EXPECT_EQ(file->IsDirectory(), *content == '\0');
    EXPECT_EQ(file->IsDirectory() ? "" : Content(*file), content);
  }
  for (const std::string& path :
       {""s, "page.txt/"s, "page.txt\0.html"s, "../secret.txt"s, "sub/../page.txt"s, "out"s,
        "absolute-out"s, "neighbour/page.txt"s, "loop"s, "magic/etc/passwd"s, "fifo"s,
        folder_.Path("secret.txt")}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(ZrFile::OpenBeneath(site, path), nullptr);
    EXPECT_FALSE(ZrFile::ExistsBeneath(site, path));
    EXPECT_NE(atHand(path), ZrFileAtHand::Answer::kFile);
  }
  // The directory alone takes the stored form, and there must be one.
  EXPECT_NE(ZrFile::OpenBeneath(folder_.Path("site") + "\\sub\\", "a..b"), nullptr);
  EXPECT_EQ(ZrFile::OpenBeneath("", "page.txt"), nullptr);
  EXPECT_EQ(ZrFile::OpenBeneath(folder_.Path("site/page.txt"), "/"), nullptr);
}

TEST_F(File, WhatMayOnlyBeRunIsThere) {
  folder_.Write("site/program", "program");
  ASSERT_EQ(::chmod(folder_.Path("site/program").c_str(), 0111), 0);
  ASSERT_EQ(::chmod(folder_.Path().c_str(), 0755), 0);
  std::thread([this] {
    constexpr uid_t kNobody = 65534;
    ::setfsuid(kNobody);  // of this thread; whoever is not root lacks the right as the owner, too
    EXPECT_EQ(ZrFile::OpenBeneath(folder_.Path("site"), "program"), nullptr);
    EXPECT_TRUE(ZrFile::ExistsBeneath(folder_.Path("site"), "program"));
  }).join();
}

TEST_F(File, KeepsBytesAndLengthOfTheMomentItWasOpened) {
  const auto file = ZrFile::OpenBeneath(folder_.Path("site"), "page.txt");
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(zr::ReplaceFile(folder_.Path("site/page.txt"), "other page", 0600), 0);
  EXPECT_EQ(Content(*file), "page");
  std::array<char, 8> bytes{};
  ASSERT_EQ(file->ReadAt(1, bytes), 3U);
  const auto now = file->ReadAtHand(1, bytes);  // the same bytes or none
  EXPECT_EQ(std::string(bytes.data(), now.value_or(3)), "age");

  constexpr std::uint64_t kHuge = (std::uint64_t{5} << 30) + 3;  // more than 32 bits hold
  folder_.Write("site/huge", "");
  std::filesystem::resize_file(folder_.Path("site/huge"), kHuge);  // sparse: takes no disk
  const auto huge = ZrFile::OpenBeneath(folder_.Path("site"), "huge");
  ASSERT_NE(huge, nullptr);
  EXPECT_EQ(huge->Size(), kHuge);
  std::array<char, 8> end{'x', 'x', 'x', 'x'};
  EXPECT_EQ(huge->ReadAt(kHuge - 3, end), 3U);
  EXPECT_EQ(end[2], '\0');
  EXPECT_EQ(huge->ReadAt(~std::uint64_t{0}, end), 0U);
}

TEST_F(File, AKeptDirectoryKnowsWhenItsNameLeadsElsewhere) {
  const auto site = ZrDirectory::Open(folder_.Path("site"));
  ASSERT_NE(site, nullptr);
  EXPECT_TRUE(site->IsCurrent());
  ASSERT_NE(site->OpenFile("page.txt"), nullptr);
  std::filesystem::rename(folder_.Path("site"), folder_.Path("old"));
  EXPECT_FALSE(site->IsCurrent());
  EXPECT_EQ(Content(*site->OpenFile("page.txt")), "page");  // it is still open
  std::filesystem::rename(folder_.Path("site2"), folder_.Path("site"));
  EXPECT_FALSE(site->IsCurrent());
  EXPECT_EQ(ZrDirectory::Open(folder_.Path("absent")), nullptr);
  EXPECT_EQ(ZrDirectory::Open(folder_.Path("site/page.txt")), nullptr);
}

}  // namespace

// What is looked up once for a batch, and that what stays open behind it is never stale.

#include "handlers/served_files.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <functional>
#include <vector>

#include "base/batch.h"
#include "tests/support/left_behind.h"
#include "tests/support/temporary_folder.h"

namespace {

class ServedFiles : public testing::Test {
 protected:
  ServedFiles() { folder_.Write("site/page", "one"); }
  /// The bytes that a request for the page would get; "-" when it is not there.
  std::string Ask(const std::string& path = "page") {
    const auto found = files_.Find(folder_.Path("site"), path);
    if (!found.file) return "-";
    std::string bytes(found.file->Size(), '\0');
    bytes.resize(found.file->ReadAt(0, bytes).value_or(0));
    EXPECT_EQ(found.bytes ? *found.bytes : bytes, bytes);
    return bytes;
  }

  /// The same as the thread asks that received the request.
  std::string AskAtHand(const std::string& path = "page") {
    files_.IsAtHand(folder_.Path("site"), path);
    return Ask(path);
  }
  static std::uint64_t Descriptors() { return zrtest::Counts::NamesIn("/proc/self/fd"); }

  struct Change {
    const char* name;
    std::function<void()> change;
    const char* page;  // from then on
  };
  /// In their order; the page is "one" before.
  std::vector<Change> Changes() {
    using namespace std::filesystem;
    const auto at = [this](const char* path) { return folder_.Path(path); };
    const auto put = [this](const char* path, const char* text) { folder_.Write(path, text); };
    const auto link = [=](const char* to, const char* text) {
      put((std::string("site/") + to).c_str(), text);
      remove(at("site/page"));
      create_symlink(to, at("site/page"));
    };
    return {
        {"replaced", [=] { put("new", "two"), rename(at("new"), at("site/page")); }, "two"},
        {"written over", [=] { put("site/page", "three"); }, "three"},
        {"written over with as many bytes", [=] { put("site/page", "other"); }, "other"},
        {"cut", [=] { resize_file(at("site/page"), 2); }, "ot"},
        {"its place taken by a link", [=] { link("far", "six"); }, "six"},
        {"the link led elsewhere", [=] { link("near", "seven"); }, "seven"},
        {"removed", [=] { remove(at("site/page")); }, "-"},
        {"and back", [=] { put("site/page", "five"); }, "five"},
        {"start directory swapped",
         [=] {
           rename(at("site"), at("old"));
           put("site/page", "four");
         },
         "four"},
        {"start directory gone", [=] { remove_all(at("site")); }, "-"},
        {"start directory back", [=] { put("site/page", "eight"); }, "eight"},
    };
  }

  zrtest::TemporaryFolder folder_;
  ZrServedFiles files_;
};

TEST_F(ServedFiles, EachBatchSeesTheDiskAsItIs) {
  std::string before = "one";
  for (const Change& c : Changes()) {
    SCOPED_TRACE(c.name);
    const std::uint64_t descriptors = Descriptors();
    {
      const ZrBatch batch;
      EXPECT_EQ(Ask(), before);
      EXPECT_EQ(Ask("absent"), "-");
      EXPECT_EQ(Ask(), before);  // shared by now
    }
    EXPECT_LE(Descriptors(), descriptors + 1);
    c.change();
    EXPECT_EQ(Ask(), c.page);  // alone, outside of any batch
    before = c.page;
  }
}

TEST_F(ServedFiles, WhatStaysOpenIsLookedAtInEachBatch) {
  ZrBatch batch;
  std::string before = "one";
  for (const Change& c : Changes()) {
    SCOPED_TRACE(c.name);
    for (int i = 0; i < 3; ++i, batch.Forget()) EXPECT_EQ(AskAtHand(), before);
    c.change();
    EXPECT_EQ(AskAtHand(), c.page);
    before = c.page;
  }
}

TEST_F(ServedFiles, SmallFilesAskedForAgainStayOpenForAMoment) {
  ZrBatch batch;
  const std::uint64_t before = Descriptors() + 1;  // with the start directory
  const auto askedIn = [&](int batches, const std::string& path) {
    for (int i = 0; i < batches; ++i, batch.Forget()) EXPECT_NE(AskAtHand(path), "-");
    return Descriptors() - before;
  };
  EXPECT_EQ(askedIn(1, "page"), 0u);
  EXPECT_EQ(askedIn(2, "page"), 1u);
  EXPECT_EQ(askedIn(2000, "page"), 1u);
  for (int i = 0; i < 40; ++i) {
    folder_.Write("site/sub/" + std::to_string(i), "x");
    EXPECT_LE(askedIn(3, "sub/" + std::to_string(i)), 16u);
  }
  EXPECT_EQ(askedIn(1000, "sub/39"), 1u);  // nobody asks for the others
  EXPECT_TRUE(batch.IsLeft());
  batch.Rest();
  EXPECT_FALSE(batch.IsLeft());
  EXPECT_EQ(Descriptors(), before);

  // Its folder goes out of the start directory, and a link is put in its place.
  askedIn(3, "sub/1");
  std::filesystem::rename(folder_.Path("site/sub"), folder_.Path("away"));
  std::filesystem::create_directory_symlink(folder_.Path("away"), folder_.Path("site/sub"));
  EXPECT_EQ(Ask("sub/1"), "-");
}

TEST_F(ServedFiles, CodeOfTheHostEndsWhatABatchKnows) {
  ZrBatch batch;
  EXPECT_EQ(Ask("late"), "-");
  folder_.Write("site/late", "here");
  EXPECT_EQ(Ask("late"), "-");  // it had arrived before
  batch.Forget();
  EXPECT_EQ(Ask("late"), "here");
}

TEST_F(ServedFiles, LargeFilesAreNotShared) {
  for (const std::size_t more : {0U, 1U}) {
    folder_.Write("site/page", std::string(ZrServedFiles::kSharedFileSize + more, 'x'));
    const ZrBatch batch;
    files_.Find(folder_.Path("site"), "page");
    EXPECT_EQ(files_.Find(folder_.Path("site"), "page").bytes != nullptr, more == 0);
  }
}

TEST_F(ServedFiles, WithoutDescriptorsNothingIsSaidToBeMissing) {
  EXPECT_EQ(Ask(), "one");
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  const rlimit none{3, usual.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  {
    ZrBatch batch;
    EXPECT_FALSE(files_.IsAtHand(folder_.Path("site"), "page"));
    EXPECT_THROW(Ask(), ZrCannotTell);
    EXPECT_THROW(Ask(), ZrCannotTell);
    setrlimit(RLIMIT_NOFILE, &usual);
    EXPECT_EQ(Ask(), "one");
  }
}

}  // namespace

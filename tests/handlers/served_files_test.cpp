// What is looked up once for a batch, and that nothing is kept beyond it.

#include "handlers/served_files.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <functional>

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

  zrtest::TemporaryFolder folder_;
  ZrServedFiles files_;
};

TEST_F(ServedFiles, EachBatchSeesTheDiskAsItIs) {
  const struct {
    const char* name;
    std::function<void()> change;
    const char* page;
  } cases[] = {
      {"replaced",
       [&] {
         folder_.Write("new", "two");
         std::filesystem::rename(folder_.Path("new"), folder_.Path("site/page"));
       },
       "two"},
      {"written over", [&] { folder_.Write("site/page", "three"); }, "three"},
      {"cut", [&] { std::filesystem::resize_file(folder_.Path("site/page"), 2); }, "th"},
      {"removed", [&] { std::filesystem::remove(folder_.Path("site/page")); }, "-"},
      {"start directory swapped",
       [&] {
         std::filesystem::rename(folder_.Path("site"), folder_.Path("old"));
         folder_.Write("site/page", "four");
       },
       "four"},
      {"start directory gone", [&] { std::filesystem::remove_all(folder_.Path("site")); }, "-"},
      {"and back", [&] { folder_.Write("site/page", "five"); }, "five"},
  };
  std::string before = "one";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::uint64_t descriptors = zrtest::Counts::NamesIn("/proc/self/fd");
    {
      const ZrBatch batch;
      EXPECT_EQ(Ask(), before);
      EXPECT_EQ(Ask("absent"), "-");
      EXPECT_EQ(Ask(), before);  // shared by now
    }
    EXPECT_LE(zrtest::Counts::NamesIn("/proc/self/fd"), descriptors + 1);
    c.change();
    EXPECT_EQ(Ask(), c.page);  // alone, outside of any batch
    before = c.page;
  }
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

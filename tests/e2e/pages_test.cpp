// Pages that are answered from memory, asked for over HTTPS with curl.

#include <gtest/gtest.h>

#include "host/zrquarnapplication2.h"
#include "http/zrprotocolkind.h"
#include "storage/zrpersistentappstorage.h"
#include "tests/e2e/served.h"
#include "tests/support/wait.h"

namespace {

using zrtest::RunProgram;
using zrtest::Served;
using zrtest::TemporaryFolder;

const std::vector<std::string> kStatus = {"-w", " %{http_code}"};

TEST(Pages, StandBeforeTheFilesOfTheirNames) {
  const TemporaryFolder folder;
  const TemporaryFolder texts;
  folder.Write("news", "a file");
  folder.Write("deep/page", "a file further down");
  const std::string news = texts.Write("news.txt", "first news");
  const std::string deep = texts.Write("deep.txt", std::string("a\0b\xff", 4));
  const Served served(folder, {"https"}, {"--page", "news=" + news, "--page", "deep/page=" + deep});
  EXPECT_EQ(served.Curl("https", "/news", kStatus).out, "first news 200");
  EXPECT_EQ(served.Curl("https", "/deep/page").out, std::string("a\0b\xff", 4));
  EXPECT_EQ(served.Curl("https", "/none", {"-o", "/dev/null", "-w", "%{http_code}"}).out, "404");
}

TEST(Pages, ThatCannotBeAnsweredAreRefusedBeforeAnythingListens) {
  const TemporaryFolder folder;
  const std::string file = folder.Write("file", "x");
  struct Case {
    std::string page;
    int status;
    std::string message;
  };
  const Case cases[] = {
      {"name", 2, "--page name: give NAME=FILE"},
      {"=" + file, 2, "give NAME=FILE"},
      {".hidden=" + file, 2, "without a leading dot"},
      {"name=" + folder.Path("missing"), 1, "cannot be read"},
      {"name=" + folder.Path(), 1, "cannot be read"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.page);
    const auto result = RunProgram({VELKORO_PROGRAM, "serve", folder.Path(), "--listen",
                                    "http://127.0.0.1:0", "--page", c.page});
    EXPECT_EQ(result.status, c.status);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find(c.message), std::string::npos) << result.err;
  }
}

// Whatever is not a form command is looked for in the document directory; without one there is
// nothing to find, pages included.
TEST(Pages, NeedADocumentDirectory) {
  const TemporaryFolder folder;
  for (const bool withDirectory : {true, false}) {
    SCOPED_TRACE(withDirectory);
    ZrPersistentAppStorage storage;
    storage.Variables()["page"].attached = "stored";
    ZrOptionMap options;
    options.Set("no_browser_popup", "true");
    if (withDirectory) options.Set("_baseDirectoryHTTP", folder.Path());
    ZrServerDefinition server{
        .address = "127.0.0.1", .port = 0, .protocolKind = zr::kProtocolHttps};
    server.options.Set("cacertificate", zrtest::TestCertificate().certificate);
    server.options.Set("privatekey", zrtest::TestCertificate().privateKey);
    ZrQuarnApplication2 application(&storage, {server}, options);
    application.setLogSink([](std::string_view) {});
    application.startServers();
    ASSERT_TRUE(zrtest::WaitFor([&] { return application.getOptions().Has("tcp_port_https"); }));
    const std::string url =
        "https://127.0.0.1:" + application.getOptions().Get("tcp_port_https") + "/page";
    const auto got =
        RunProgram(zrtest::CurlWords({"-o", folder.Path("got"), "-w", "%{http_code}", url}));
    EXPECT_EQ(got.out, withDirectory ? "200" : "404") << got.err;
    if (withDirectory) {
      EXPECT_EQ(zrtest::ReadFile(folder.Path("got")), "stored");
    }
  }
}

}  // namespace

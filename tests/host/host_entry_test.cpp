#include "host/browser_launcher.h"

#include <gtest/gtest.h>

#include "velkoro/host.h"

namespace {

TEST(BrowserLauncher, TriesTheDesktopThenTheBrowsersInOrder) {
  std::vector<std::string> tried;
  const auto refuseUntil = [&](std::string_view last) {
    return [&tried, last](std::string_view program, const std::vector<std::string>& arguments) {
      EXPECT_EQ(arguments, std::vector<std::string>{"http://a:1/;$(x)"});
      tried.emplace_back(program);
      return program == last;
    };
  };
  EXPECT_TRUE(ZrBrowserLauncher::Launch("http://a:1/;$(x)", refuseUntil("chromium")));
  EXPECT_EQ(tried, (std::vector<std::string>{"xdg-open", "opera", "chromium"}));
  tried.clear();
  EXPECT_FALSE(ZrBrowserLauncher::Launch("http://a:1/;$(x)", refuseUntil("none")));
  EXPECT_EQ(tried.size(), 8u);
}

TEST(HostEntry, ChecksItsArgumentsInOrder) {
  struct Case {
    const char* address;
    const char* start;
    const char* cgi;
    const char* certificate;
    const char* key;
    const char* message;
  };
  const Case cases[] = {
      {"", nullptr, "", nullptr, nullptr, "options are missing"},
      {"", "", nullptr, "", "", "options are missing"},
      {"", "", "", "", nullptr, "keys are missing"},
      // Nothing is missing: the failure is that of the certificate.
      {"", "", "", "", "", "(SSL) can't find ca certificate and/or private key"},
      {"", "", "", "none.pem", "none.pem", "(SSL) problem with SSL key pair"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    try {
      StartHTTPServer(c.address, 0, c.start, c.cgi, c.certificate, c.key);
      ADD_FAILURE() << "started";
    } catch (const std::exception& failure) {
      EXPECT_STREQ(failure.what(), c.message);
    }
  }
  EXPECT_EQ(ServerPort(nullptr), 0);
  EXPECT_EQ(StopHTTPserver(nullptr), 0);
}

}  // namespace

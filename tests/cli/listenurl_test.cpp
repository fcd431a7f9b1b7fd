#include "cli/listenurl.h"

#include <gtest/gtest.h>

#include "cli/command.h"

namespace {

TEST(ListenUrl, ReadsWhatAServerCanListenOn) {
  constexpr struct {
    const char* text;
    unsigned kind;
    const char* address;
    int port;
  } kGood[] = {{"https://127.0.0.1:8443", 4, "127.0.0.1", 8443},
               {"http://[::1]:0/", 3, "[::1]", 0},
               {"quarn://localhost:65535", 6, "localhost", 65535},
               {"socket://10.0.0.1:1", 9, "10.0.0.1", 1}};
  for (const auto& good : kGood) {
    SCOPED_TRACE(good.text);
    const auto url = zr::cli::ParseListenUrl(good.text);
    EXPECT_EQ(url.protocolKind, good.kind);
    EXPECT_EQ(url.address, good.address);
    EXPECT_EQ(url.port, good.port);
  }
}

TEST(ListenUrl, RefusesEverythingElseByName) {
  for (const std::string bad :
       {"", "127.0.0.1:80", "ftp://a:1", "quarns://a:1", "https://", "https://a",
        "https://a:", "https://a:x", "https://a:65536", "https://a:-1", "https://:80",
        "https://::1:80", "https://[a]:80", "https://[::1]", "https://a b:80", "https://a:80/path",
        "https://user@a:80", "https://a:4294967296", "https://a:18446744073709551616"}) {
    SCOPED_TRACE(bad);
    try {
      zr::cli::ParseListenUrl(bad);
      ADD_FAILURE() << "accepted";
    } catch (const zr::cli::UsageError& wrong) {
      EXPECT_NE(std::string(wrong.what()).find("'" + bad + "'"), std::string::npos);
    }
  }
}

}  // namespace

#include "cli/listenurl.h"

#include <gtest/gtest.h>

#include "cli/command.h"

namespace {

TEST(ListenUrl, RefusesByNameWhatNoServerCanListenOn) {
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

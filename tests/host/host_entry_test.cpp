#include "velkoro/host.h"

#include <gtest/gtest.h>

namespace {

TEST(HostEntry, ChecksItsArgumentsInOrder) {
  const struct {
    const char *address, *start, *cgi, *certificate, *key, *message;
  } cases[] = {
      {"", nullptr, "", nullptr, nullptr, "options are missing"},
      {"", "", nullptr, "", "", "options are missing"},
      {"", "", "", "", nullptr, "keys are missing"},
      // Nothing is missing: the failure is that of the certificate.
      {"", "", "", "", "", "(SSL) can't find ca certificate and/or private key"},
      {"", "", "", "none.pem", "none.pem", "(SSL) problem with SSL key pair"},
  };
  for (const auto& c : cases) {
    try {
      StartHTTPServer(c.address, 0, c.start, c.cgi, c.certificate, c.key);
      ADD_FAILURE() << "started without: " << c.message;
    } catch (const std::exception& failure) {
      EXPECT_STREQ(failure.what(), c.message);
    }
  }
  EXPECT_EQ(ServerPort(nullptr), 0);
  EXPECT_EQ(StopHTTPserver(nullptr), 0);
}

}  // namespace

#include "net/tls_context.h"

#include <gtest/gtest.h>

#include "base/exception.h"
#include "net/certificate.h"
#include "tests/support/run.h"

namespace {

TEST(TlsContext, TellsWhichKeyPairsCannotServe) {
  const zrtest::TemporaryFolder folder;
  const auto& good = zrtest::TestCertificate();
  const auto other = zr::EnsureSelfSignedCertificate(folder.Path("other"));
  const std::string locked = folder.Path("locked.pem");
  EXPECT_EQ(zrtest::RunProgram({"openssl", "pkey", "-in", good.privateKey, "-aes128", "-passout",
                                "pass:x", "-out", locked})
                .status,
            0);
  const std::string chain = folder.Write(
      "chain.pem", zrtest::ReadFile(good.certificate) + zrtest::ReadFile(other.certificate));
  EXPECT_NE(zr::MakeTlsServerContext(chain, good.privateKey), nullptr);
  const std::pair<std::string, std::string> cases[] = {{folder.Path("no"), good.privateKey},
                                                       {good.certificate, locked},
                                                       {good.certificate, other.privateKey}};
  for (const auto& [certificate, key] : cases) {
    SCOPED_TRACE(certificate + key);
    try {
      zr::MakeTlsServerContext(certificate, key);
      ADD_FAILURE() << "it serves";
    } catch (const ZrException& failure) {
      EXPECT_STREQ(failure.what(), "(SSL) problem with SSL key pair");
    }
  }
}

}  // namespace

#include "net/certificate.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/support/run.h"

using zrtest::RunProgram;
using zrtest::TemporaryFolder;

TEST(Certificate, ServesTheLocalNamesAndItsKeyIsPrivate) {
  const TemporaryFolder folder;
  const zr::CertificateFiles pair = zr::EnsureSelfSignedCertificate(folder.Path("state/tls"));
  EXPECT_EQ(std::filesystem::status(pair.privateKey).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  const std::pair<const char*, const char*> names[] = {
      {"-verify_hostname", "localhost"}, {"-verify_ip", "127.0.0.1"}, {"-verify_ip", "::1"}};
  for (const auto& [option, name] : names) {
    const auto checked = RunProgram({"openssl", "verify", "-purpose", "sslserver", "-CAfile",
                                     pair.certificate, option, name, pair.certificate});
    EXPECT_EQ(checked.status, 0) << name << checked.out << checked.err;
  }
}

TEST(Certificate, IsMadeOnceAlsoByTwoAtATime) {
  const TemporaryFolder folder;
  std::vector<std::thread> makers;
  for (int i = 0; i < 4; ++i) {
    makers.emplace_back([&] { zr::EnsureSelfSignedCertificate(folder.Path("tls")); });
  }
  for (std::thread& maker : makers) maker.join();
  const auto pair = zr::EnsureSelfSignedCertificate(folder.Path("tls"));
  EXPECT_EQ(RunProgram({"openssl", "x509", "-in", pair.certificate, "-noout"}).status, 0);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.Path()), {}), 1);
}

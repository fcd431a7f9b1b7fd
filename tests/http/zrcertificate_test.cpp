#include "http/zrcertificate.h"

#include <gtest/gtest.h>

#include <thread>

#include "host/zrexception.h"
#include "tests/support/run.h"

using zrtest::RunProgram;
using zrtest::TemporaryFolder;

TEST(Certificate, ServesTheLocalNamesAndItsKeyIsPrivate) {
  const TemporaryFolder folder;
  const zr::CertificateFiles pair = zr::EnsureSelfSignedCertificate(folder.Path("state/tls"));
  EXPECT_EQ(std::filesystem::status(pair.privateKey).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  for (const char* name :
       {"-verify_hostname=localhost", "-verify_ip=127.0.0.1", "-verify_ip=::1"}) {
    const std::string option(name);
    const std::size_t equals = option.find('=');
    const auto checked =
        RunProgram({"openssl", "verify", "-purpose", "sslserver", "-CAfile", pair.certificate,
                    option.substr(0, equals), option.substr(equals + 1), pair.certificate});
    EXPECT_EQ(checked.status, 0) << name << checked.out << checked.err;
  }
  const auto fromKey = RunProgram({"openssl", "pkey", "-in", pair.privateKey, "-pubout"});
  const auto fromCertificate =
      RunProgram({"openssl", "x509", "-in", pair.certificate, "-noout", "-pubkey"});
  EXPECT_NE(fromKey.out.find("BEGIN PUBLIC KEY"), std::string::npos);
  EXPECT_EQ(fromKey.out, fromCertificate.out);
}

TEST(Certificate, IsMadeOnceAlsoByTwoAtATime) {
  const TemporaryFolder folder;
  std::vector<std::thread> makers;
  for (int i = 0; i < 4; ++i) {
    makers.emplace_back([&] { zr::EnsureSelfSignedCertificate(folder.Path("tls")); });
  }
  for (std::thread& maker : makers) {
    maker.join();
  }
  const auto pair = zr::EnsureSelfSignedCertificate(folder.Path("tls"));
  const std::string first = zrtest::ReadFile(pair.certificate);
  EXPECT_EQ(zrtest::ReadFile(zr::EnsureSelfSignedCertificate(folder.Path("tls")).certificate),
            first);
  const auto checked =
      RunProgram({"openssl", "x509", "-in", pair.certificate, "-noout", "-ext", "subjectAltName"});
  EXPECT_EQ(checked.status, 0);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.Path()), {}), 1);
}

TEST(Certificate, NamesTheFolderThatCannotBeMade) {
  const TemporaryFolder folder;
  const std::string inside = folder.Write("file", "") + "/tls";
  try {
    zr::EnsureSelfSignedCertificate(inside);
    FAIL();
  } catch (const ZrException& failure) {
    EXPECT_NE(std::string(failure.what()).find(inside), std::string::npos);
  }
}

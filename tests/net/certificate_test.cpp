#include "net/certificate.h"

#include <gtest/gtest.h>

#include <thread>

#include "platform/private_file.h"
#include "tests/support/run.h"

using zrtest::RunProgram;
using zrtest::TemporaryFolder;

TEST(Certificate, IsMadeOnceAlsoByTwoAtATimeAndItsKeyIsPrivate) {
  const TemporaryFolder folder;
  std::vector<std::thread> makers;
  for (int i = 0; i < 4; ++i) {
    makers.emplace_back([&] { zr::EnsureSelfSignedCertificate(folder.Path("tls")); });
  }
  for (std::thread& maker : makers) maker.join();
  const ZrDescriptor held = zr::LockFolder(folder.Path(), std::chrono::seconds(20));
  EXPECT_THROW(zr::LockFolder(folder.Path(), {}), std::system_error);
  const auto pair = zr::EnsureSelfSignedCertificate(folder.Path("tls"));
  const auto checked = RunProgram({"openssl", "verify", "-purpose", "sslserver", "-CAfile",
                                   pair.certificate, "-verify_ip", "::1", pair.certificate});
  EXPECT_EQ(checked.status, 0) << checked.out << checked.err;
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.Path()), {}), 1);
  EXPECT_EQ(std::filesystem::status(pair.privateKey).permissions(),
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

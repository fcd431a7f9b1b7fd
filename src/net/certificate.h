#pragma once
// A certificate for a server that nobody has configured one for yet. The command line makes it once
// and keeps it; the tests make one each. Used before any server runs, from one thread.

#include <string>

namespace zr {

/// The names of two PEM files that belong together.
struct CertificateFiles {
  std::string certificate;
  std::string privateKey;
};

/// The pair in `folder`, which is made on first use with all its parents (mode 0700): a self-signed
/// P-256 certificate for localhost, 127.0.0.1 and ::1, valid for ten years, and its key (mode
/// 0600). An existing pair is returned unread. Two programs that make it at once end with the same
/// pair. Throws ZrException naming the folder when it can be neither read nor made.
CertificateFiles EnsureSelfSignedCertificate(const std::string& folder);

}  // namespace zr

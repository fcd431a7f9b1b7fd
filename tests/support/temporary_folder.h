#pragma once
// A folder of a test's own, gone with the object.

#include <filesystem>
#include <string>
#include <string_view>

#include "net/certificate.h"

namespace zrtest {

class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string Path(std::string_view name = {}) const;
  /// Writes a file, making the folders on the way; returns its path.
  std::string Write(std::string_view name, std::string_view bytes) const;
  /// Likewise a program of the shell that its owner may run.
  std::string WriteProgram(std::string_view name, const std::string& commands) const;

 private:
  std::filesystem::path folder_;
};

/// The whole file; empty when there is none.
std::string ReadFile(const std::string& path);

/// A certificate for localhost, 127.0.0.1 and ::1 with its key, made once in a test program's life.
const zr::CertificateFiles& TestCertificate();

}  // namespace zrtest

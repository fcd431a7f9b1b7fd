#include "tests/support/temporary_folder.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace zrtest {

TemporaryFolder::TemporaryFolder() {
  std::string name = (std::filesystem::temp_directory_path() / "velkoro_test_XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary folder: " + name);
  folder_ = name;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

std::string TemporaryFolder::Path(std::string_view name) const {
  return name.empty() ? folder_.string() : (folder_ / name).string();
}

std::string TemporaryFolder::Write(std::string_view name, std::string_view bytes) const {
  const std::filesystem::path path = folder_ / name;
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out.flush()) throw std::runtime_error("cannot write " + path.string());
  return path.string();
}

std::string TemporaryFolder::WriteProgram(std::string_view name,
                                          const std::string& commands) const {
  std::string path = Write(name, "#!/bin/sh\n" + commands + "\n");
  std::filesystem::permissions(path, std::filesystem::perms::owner_all);
  return path;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return std::move(bytes).str();
}

const zr::CertificateFiles& TestCertificate() {
  static const TemporaryFolder folder;
  static const zr::CertificateFiles files = zr::EnsureSelfSignedCertificate(folder.Path("tls"));
  return files;
}

}  // namespace zrtest

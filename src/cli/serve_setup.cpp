#include "cli/serve_setup.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "base/exception.h"
#include "cli/command.h"
#include "net/tls_context.h"
#include "platform/filesystem.h"
#include "platform/io.h"
#include "platform/process.h"
#include "platform/system.h"

namespace zr::cli {
namespace {

constexpr const char* kPhpProgram = "php-cgi";
constexpr std::size_t kMaxPageBytes = std::size_t{256} << 20;
constexpr std::size_t kMaxPemBytes = std::size_t{16} << 20;

/// Throws with the reason when the file is not one that OpenSSL could read.
void RequireReadable(const std::string& what, const std::string& file) {
  int error = 0;
  if (!ReadWholeFile(file, kMaxPemBytes, &error))
    throw std::runtime_error(what + " '" + file + "' " + ReadFailure(error, "16 MiB"));
}

/// Why the pair cannot be used; empty when it can.
std::string PairFailure(const CertificateFiles& pair) {
  try {
    MakeTlsServerContext(pair.certificate, pair.privateKey);
    return {};
  } catch (const ZrException_SSL& failure) {
    return failure.what();
  }
}

CertificateFiles KeptPair(const std::optional<std::string>& given) {
  const std::string state = given ? *given : StateDirectory("velkoro");
  if (state.empty()) {
    throw std::runtime_error(
        "there is no home directory to keep a certificate in; name a directory with --state");
  }
  const std::string folder = state + "/localhost";
  CertificateFiles pair;
  try {
    pair = EnsureSelfSignedCertificate(folder);
  } catch (const ZrException& failure) {
    throw std::runtime_error(std::string(failure.what()) + "; name another directory with --state");
  }
  if (const std::string failure = PairFailure(pair); !failure.empty()) {
    throw std::runtime_error("the certificate that is kept in '" + folder +
                             "' cannot be used with its key (" + failure +
                             "); remove that folder and another one is made");
  }
  return pair;
}

}  // namespace

void KeyPairOptions::CheckUsage() const {
  if (certificate.has_value() != privateKey.has_value())
    throw UsageError("--certificate and --private-key belong together: give both or none");
  if (state && state->empty()) throw UsageError("--state has an empty name");
}

std::string DocumentDirectory(const std::string& given) {
  if (given.empty())
    throw UsageError("the document directory has an empty name; \".\" is the current directory");
  const auto refuse = [&given](const std::string& why) {
    throw std::runtime_error("the document directory '" + given + "' " + why);
  };
  std::filesystem::path path = AbsolutePath(given);
  std::error_code failed;
  const auto kind = std::filesystem::status(path, failed).type();
  if (kind == std::filesystem::file_type::not_found) refuse("is not there; name one that is");
  if (failed) refuse("cannot be used: " + failed.message());
  if (kind != std::filesystem::file_type::directory) refuse("is a file; name a directory");
  // A ".." behind a link leads where only the system knows; a link is otherwise left one, so that
  // it may be pointed elsewhere later.
  const bool climbs = std::find(path.begin(), path.end(), "..") != path.end();
  path = climbs ? std::filesystem::canonical(path, failed) : path.lexically_normal();
  if (failed) refuse("cannot be used: " + failed.message());
  std::string text = path.string();
  if (text.size() > 1 && text.ends_with('/')) text.pop_back();
  if (const int error = CheckAccess(text, ZrAccess::kEnter); error != 0)
    refuse("may not be entered: " + std::string(SystemErrorText(error)));
  if (text.find('\\') != std::string::npos) refuse("has a backslash in its path; rename it");
  return text;
}

ZrNamedValueTable StoredPages(const std::vector<std::string>& pages) {
  ZrNamedValueTable table;
  for (const std::string& page : pages) {
    const std::size_t equals = page.find('=');
    const std::string name = page.substr(0, equals);
    if (equals == std::string::npos || name.empty() || name.front() == '/' || name.front() == '.') {
      throw UsageError("--page " + page + ": give NAME=FILE, the name as it stands behind the " +
                       "first slash of the URL and without a leading dot");
    }
    const std::string file = page.substr(equals + 1);
    int error = 0;
    std::optional<std::string> text = ReadWholeFile(file, kMaxPageBytes, &error);
    if (!text) {
      std::string sentence = "the page '";
      sentence.append(file).append("' for --page ").append(name).append(" ");
      throw std::runtime_error(sentence.append(ReadFailure(error, "256 MiB")));
    }
    table[name].text = std::move(*text);
  }
  return table;
}

std::string PhpInterpreter(const std::optional<std::string>& given) {
  const std::string path = EnvironmentValue("PATH").value_or("");
  if (!given) return FindProgram(kPhpProgram, path) ? kPhpProgram : "";
  if (given->find('/') == std::string::npos) {
    if (FindProgram(*given, path)) return *given;
    throw std::runtime_error("there is no program '" + *given + "' on PATH for --php");
  }
  // Programs run in the directory of their page.
  const std::string file = AbsolutePath(*given);
  if (PathKind(file) != ZrPathKind::kRegular || CheckAccess(file, ZrAccess::kEnter) != 0)
    throw std::runtime_error("'" + *given + "' for --php is no program that can be run");
  return file;
}

CertificateFiles KeyPair(const KeyPairOptions& options, bool needed) {
  if (!options.certificate) return needed ? KeptPair(options.state) : CertificateFiles{};
  CertificateFiles pair{*options.certificate, *options.privateKey};
  RequireReadable("the certificate", pair.certificate);
  RequireReadable("the private key", pair.privateKey);
  if (const std::string failure = PairFailure(pair); !failure.empty()) {
    throw std::runtime_error("the certificate '" + pair.certificate + "' and the private key '" +
                             pair.privateKey + "' cannot be used (" + failure +
                             "); give a PEM certificate and its unencrypted " +
                             "PEM key with --certificate and --private-key");
  }
  return pair;
}

}  // namespace zr::cli

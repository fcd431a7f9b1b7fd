#pragma once
// What `velkoro serve` makes of its arguments before a server runs. Each of these throws
// UsageError for arguments that make no sense and std::runtime_error for what they name and cannot
// be used, with what is wrong and what to do about it.

#include <optional>
#include <string>
#include <vector>

#include "net/certificate.h"
#include "storage/named_value.h"

namespace zr::cli {

struct KeyPairOptions {
  std::optional<std::string> certificate;
  std::optional<std::string> privateKey;
  std::optional<std::string> state;

  void CheckUsage() const;
};

/// The directory's path from the root, as the kernel understands it.
std::string DocumentDirectory(const std::string& given);

/// The pages that are answered from memory, each given as NAME=FILE.
ZrNamedValueTable StoredPages(const std::vector<std::string>& pages);

/// The program asked for, else the usual one where it is installed; empty without either.
std::string PhpInterpreter(const std::optional<std::string>& given);

/// The pair that was given, else, where one is needed, the one that is kept for localhost and made
/// at its first use. A pair that is returned can be used.
CertificateFiles KeyPair(const KeyPairOptions& options, bool needed);

}  // namespace zr::cli

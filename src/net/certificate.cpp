#include "net/certificate.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <filesystem>
#include <memory>
#include <system_error>

#include "base/exception.h"
#include "net/openssl_setup.h"
#include "platform/private_file.h"

// The pair is written into a folder beside the one asked for, which is then renamed: a rename of a
// folder onto one that holds files fails, so the first writer wins and nobody ever sees a half
// written pair, or the key of one program beside the certificate of another.

namespace zr {
namespace {

template <auto kFree>
struct Freed {
  template <class T>
  void operator()(T* object) const {
    kFree(object);
  }
};
using Key = std::unique_ptr<EVP_PKEY, Freed<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Freed<X509_free>>;
using Memory = std::unique_ptr<BIO, Freed<BIO_free>>;

constexpr long kValidDays = 3650;
constexpr std::chrono::milliseconds kLockLimit{5000};  // making a pair takes a few
constexpr const char* kCertificateName = "/certificate.pem";
constexpr const char* kKeyName = "/private-key.pem";

void Require(bool made, const char* what) {
  if (!made) throw ZrException(std::string("OpenSSL could not make ") + what);
}

void AddExtension(X509* certificate, int id, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  const std::unique_ptr<X509_EXTENSION, Freed<X509_EXTENSION_free>> extension(
      X509V3_EXT_conf_nid(nullptr, &context, id, value));
  Require(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "the certificate");
}

Certificate MakeCertificate(EVP_PKEY* key) {
  Certificate certificate(X509_new());
  Require(certificate != nullptr, "the certificate");
  X509* x509 = certificate.get();
  unsigned char serial[16] = {};
  Require(RAND_bytes(serial, sizeof serial) == 1, "random bytes");
  serial[0] = static_cast<unsigned char>((serial[0] & 0x3F) | 0x40);  // positive, never short
  const std::unique_ptr<BIGNUM, Freed<BN_free>> number(BN_bin2bn(serial, sizeof serial, nullptr));
  Require(number && BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(x509)) != nullptr,
          "the certificate");
  X509_set_version(x509, X509_VERSION_3);
  // A day back: the clock of a client may be a little behind.
  X509_gmtime_adj(X509_getm_notBefore(x509), -24L * 3600);
  X509_gmtime_adj(X509_getm_notAfter(x509), kValidDays * 24 * 3600);
  X509_NAME* name = X509_get_subject_name(x509);
  const auto* host = reinterpret_cast<const unsigned char*>("localhost");
  Require(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, host, -1, -1, 0) == 1 &&
              X509_set_issuer_name(x509, name) == 1 && X509_set_pubkey(x509, key) == 1,
          "the certificate");
  AddExtension(x509, NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1,IP:::1");
  AddExtension(x509, NID_basic_constraints, "critical,CA:FALSE");
  AddExtension(x509, NID_key_usage, "critical,digitalSignature");
  AddExtension(x509, NID_ext_key_usage, "serverAuth");
  AddExtension(x509, NID_subject_key_identifier, "hash");
  Require(X509_sign(x509, key, EVP_sha256()) > 0, "the certificate");
  return certificate;
}

std::string Bytes(BIO* memory) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(memory, &data);
  return std::string(data, static_cast<std::size_t>(size));
}

void WritePair(const std::string& folder) {
  InitialiseOpenSsl();
  const Key key(EVP_EC_gen("P-256"));
  Require(key != nullptr, "the key");
  const Certificate certificate = MakeCertificate(key.get());
  const Memory keyText(BIO_new(BIO_s_mem()));
  const Memory certificateText(BIO_new(BIO_s_mem()));
  Require(keyText && certificateText &&
              PEM_write_bio_PKCS8PrivateKey(keyText.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                            nullptr) == 1 &&
              PEM_write_bio_X509(certificateText.get(), certificate.get()) == 1,
          "the PEM text");
  WritePrivateFile(folder + kKeyName, Bytes(keyText.get()));
  WritePrivateFile(folder + kCertificateName, Bytes(certificateText.get()));
}

bool IsThere(const CertificateFiles& files) {
  std::error_code ignored;
  return std::filesystem::exists(files.certificate, ignored) &&
         std::filesystem::exists(files.privateKey, ignored);
}

/// A new folder beside the one asked for; gone with the object unless it was renamed. One that a
/// program has left which ended here is taken away first: the folder around them is locked.
class FreshFolder {
 public:
  explicit FreshFolder(const std::string& folder) : name_(folder + ".new") {
    Remove();
    MakePrivateFolder(name_);
  }
  ~FreshFolder() { Remove(); }
  FreshFolder(const FreshFolder&) = delete;
  FreshFolder& operator=(const FreshFolder&) = delete;
  const std::string& Name() const { return name_; }

 private:
  void Remove() noexcept {
    std::error_code ignored;
    std::filesystem::remove_all(name_, ignored);
  }
  const std::string name_;
};

}  // namespace

CertificateFiles EnsureSelfSignedCertificate(const std::string& folder) {
  CertificateFiles files{folder + kCertificateName, folder + kKeyName};
  if (IsThere(files)) return files;
  try {
    const std::filesystem::path home = std::filesystem::absolute(folder).parent_path();
    std::filesystem::create_directories(home);
    const ZrDescriptor lock = LockFolder(home.string(), kLockLimit);
    if (IsThere(files)) return files;  // another program was first
    const FreshFolder fresh(folder);
    WritePair(fresh.Name());
    std::error_code lost;
    std::filesystem::rename(fresh.Name(), folder, lost);
    // What else holds files is somebody's, and stays.
    if (lost) {
      if (lost != std::errc::directory_not_empty && lost != std::errc::file_exists)
        throw std::system_error(lost);
      throw ZrException("the pair of files in it is incomplete; remove that folder");
    }
  } catch (const std::exception& failure) {
    throw ZrException("cannot make a certificate in " + folder + ": " + failure.what());
  }
  return files;
}

}  // namespace zr

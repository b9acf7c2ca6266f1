// Making, reading and renewing of the certificates, with OpenSSL.
#include "devserver/CertificateAuthority.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "devserver/Files.h"

namespace devserver {
namespace {

using std::chrono::days;
using std::chrono::system_clock;
using Result = std::expected<void, std::string>;

constexpr days kAuthorityLife{3650};
constexpr days kAuthorityReserve{90};
constexpr days kCertificateLife{90};
constexpr days kCertificateReserve{30};
// A client's clock may lag behind the one that signs.
constexpr days kBackdating{1};

constexpr const char* kNames = "DNS:localhost,IP:127.0.0.1,IP:0:0:0:0:0:0:0:1";
constexpr const char* kPermitted =
    "critical,permitted;DNS:localhost,permitted;IP:127.0.0.1/255.255.255.255,"
    "permitted;IP:0:0:0:0:0:0:0:1/ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff";

template <auto free>
struct Free {
  void operator()(auto* object) const { free(object); }
};
using Key = std::unique_ptr<EVP_PKEY, Free<&EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Free<&X509_free>>;
using Bio = std::unique_ptr<BIO, Free<&BIO_free>>;
using BigNumber = std::unique_ptr<BIGNUM, Free<&BN_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Free<&X509_EXTENSION_free>>;

struct Pair {
  Key key;
  Certificate certificate;
};

void require(bool success, const char* operation) {
  if (success) return;
  std::array<char, 256> text{};
  ERR_error_string_n(ERR_get_error(), text.data(), text.size());
  throw std::runtime_error(std::string("OpenSSL: ") + operation + ": " + text.data());
}

void setRandomSerialNumber(X509* certificate) {
  std::array<unsigned char, 16> bytes{};
  require(RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) == 1, "RAND_bytes");
  bytes[0] &= 0x7f;  // serial numbers are positive
  const BigNumber number(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
  require(number && BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)), "BN_to_ASN1_INTEGER");
}

void setLife(X509* certificate, system_clock::time_point now, days life) {
  const std::time_t from = system_clock::to_time_t(now - kBackdating);
  const std::time_t until = system_clock::to_time_t(now + life);
  require(ASN1_TIME_set(X509_getm_notBefore(certificate), from) && ASN1_TIME_set(X509_getm_notAfter(certificate), until),
          "ASN1_TIME_set");
}

void setName(X509* certificate, const std::string& name) {
  const auto* text = reinterpret_cast<const unsigned char*>(name.data());
  require(X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8, text, static_cast<int>(name.size()),
                                     -1, 0) == 1,
          "X509_NAME_add_entry_by_txt");
}

void addExtension(X509* certificate, X509* issuer, int kind, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const Extension extension(X509V3_EXT_conf_nid(nullptr, &context, kind, value));
  require(extension && X509_add_ext(certificate, extension.get(), -1) == 1, "X509_add_ext");
}

/// A key and a certificate for it that is not signed yet.
Pair newPair(const std::string& name, system_clock::time_point now, days life) {
  Pair pair{Key(EVP_EC_gen("P-256")), Certificate(X509_new())};
  require(pair.key && pair.certificate, "EVP_EC_gen");
  require(X509_set_version(pair.certificate.get(), X509_VERSION_3) == 1, "X509_set_version");
  setRandomSerialNumber(pair.certificate.get());
  setLife(pair.certificate.get(), now, life);
  setName(pair.certificate.get(), name);
  require(X509_set_pubkey(pair.certificate.get(), pair.key.get()) == 1, "X509_set_pubkey");
  return pair;
}

void sign(X509* certificate, const Pair& issuer) {
  require(X509_set_issuer_name(certificate, X509_get_subject_name(issuer.certificate.get())) == 1, "X509_set_issuer_name");
  require(X509_sign(certificate, issuer.key.get(), EVP_sha256()) != 0, "X509_sign");
}

Pair newAuthority(system_clock::time_point now) {
  // A part of the name is random, so that the authorities of two state folders are told apart in a list of trust anchors.
  std::array<unsigned char, 4> bytes{};
  require(RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) == 1, "RAND_bytes");
  std::string name = "Kestrova development server ";
  for (const unsigned byte : bytes) name += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};

  Pair pair = newPair(name, now, kAuthorityLife);
  X509* certificate = pair.certificate.get();
  addExtension(certificate, certificate, NID_basic_constraints, "critical,CA:TRUE,pathlen:0");
  addExtension(certificate, certificate, NID_key_usage, "critical,keyCertSign,cRLSign");
  addExtension(certificate, certificate, NID_name_constraints, kPermitted);
  addExtension(certificate, certificate, NID_subject_key_identifier, "hash");
  sign(certificate, pair);
  return pair;
}

Pair newServerPair(const Pair& authority, system_clock::time_point now) {
  Pair pair = newPair("localhost", now, kCertificateLife);
  X509* certificate = pair.certificate.get();
  addExtension(certificate, authority.certificate.get(), NID_basic_constraints, "critical,CA:FALSE");
  addExtension(certificate, authority.certificate.get(), NID_key_usage, "critical,digitalSignature");
  addExtension(certificate, authority.certificate.get(), NID_ext_key_usage, "serverAuth");
  addExtension(certificate, authority.certificate.get(), NID_subject_alt_name, kNames);
  addExtension(certificate, authority.certificate.get(), NID_subject_key_identifier, "hash");
  addExtension(certificate, authority.certificate.get(), NID_authority_key_identifier, "keyid");
  sign(certificate, authority);
  return pair;
}

bool lastsUntil(const X509* certificate, system_clock::time_point time) {
  std::time_t seconds = system_clock::to_time_t(time);
  return X509_cmp_time(X509_get0_notAfter(certificate), &seconds) > 0;
}

std::string textOf(BIO* bio) {
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio, &data);
  return {data, static_cast<std::size_t>(length)};
}

Result writePair(const Pair& pair, const std::filesystem::path& certificateFile, const std::filesystem::path& keyFile) {
  const Bio key(BIO_new(BIO_s_mem()));
  const Bio certificate(BIO_new(BIO_s_mem()));
  require(key && PEM_write_bio_PrivateKey(key.get(), pair.key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1,
          "PEM_write_bio_PrivateKey");
  require(certificate && PEM_write_bio_X509(certificate.get(), pair.certificate.get()) == 1, "PEM_write_bio_X509");
  if (auto written = replaceFile(keyFile, textOf(key.get())); !written) return written;
  return replaceFile(certificateFile, textOf(certificate.get()));
}

/// A certificate and its key; an error names the file that is at fault.
std::expected<Pair, std::string> readPair(const std::filesystem::path& certificateFile, const std::filesystem::path& keyFile) {
  const auto certificateText = readFile(certificateFile);
  if (!certificateText) return std::unexpected(certificateText.error());
  const auto keyText = readFile(keyFile);
  if (!keyText) return std::unexpected(keyText.error());
  const Bio certificateBio(BIO_new_mem_buf(certificateText->data(), static_cast<int>(certificateText->size())));
  const Bio keyBio(BIO_new_mem_buf(keyText->data(), static_cast<int>(keyText->size())));
  Pair pair{Key(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr)),
            Certificate(PEM_read_bio_X509(certificateBio.get(), nullptr, nullptr, nullptr))};
  if (!pair.certificate) return std::unexpected(certificateFile.string() + " holds no certificate");
  if (!pair.key) return std::unexpected(keyFile.string() + " holds no private key");
  if (X509_check_private_key(pair.certificate.get(), pair.key.get()) != 1)
    return std::unexpected(certificateFile.string() + " and " + keyFile.string() + " do not belong together");
  return pair;
}

/// Held while certificates are made, so that two servers that start at once in one folder end up with the same.
class FolderLock {
 public:
  explicit FolderLock(const std::filesystem::path& folder)
      : descriptor_(::open((folder / "lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR)) {
    if (descriptor_ >= 0 && ::flock(descriptor_, LOCK_EX) != 0) std::exchange(descriptor_, -1);
  }
  ~FolderLock() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;
  bool isHeld() const { return descriptor_ >= 0; }

 private:
  int descriptor_;
};

std::expected<Pair, std::string> readOrMakeAuthority(const std::filesystem::path& state, system_clock::time_point now,
                                                     Certificates& result) {
  const std::filesystem::path keyFile = state / "ca.key";
  // The key is written first: a certificate without it was not left behind by an interrupted start.
  if (std::error_code error; std::filesystem::exists(result.authority, error)) {
    auto pair = readPair(result.authority, keyFile);
    if (!pair) return std::unexpected(pair.error() + "; remove it, and ca.pem, to have a new authority made");
    if (lastsUntil(pair->certificate.get(), now + kAuthorityReserve)) return pair;
  }
  Pair made = newAuthority(now);
  if (const auto written = writePair(made, result.authority, keyFile); !written) return std::unexpected(written.error());
  result.madeAuthority = true;
  return made;
}

/// The server's certificate is for this start only: whatever is wrong with it, a new one is made.
Result readOrMakeServerPair(const Pair& authority, system_clock::time_point now, Certificates& result) {
  const auto pair = readPair(result.certificate, result.key);
  const bool good = pair && X509_verify(pair->certificate.get(), X509_get0_pubkey(authority.certificate.get())) == 1 &&
                    lastsUntil(pair->certificate.get(), now + kCertificateReserve);
  ERR_clear_error();
  if (good) return {};
  result.madeCertificate = true;
  return writePair(newServerPair(authority, now), result.certificate, result.key);
}

}  // namespace

std::expected<Certificates, std::string> prepareCertificates(const std::filesystem::path& state, system_clock::time_point now) {
  if (const auto made = makePrivateFolder(state); !made) return std::unexpected(made.error());
  const FolderLock lock(state);
  if (!lock.isHeld()) return std::unexpected("cannot lock " + (state / "lock").string());
  Certificates result{state / "ca.pem", state / "server.pem", state / "server.key"};
  try {
    const auto authority = readOrMakeAuthority(state, now, result);
    if (!authority) return std::unexpected(authority.error());
    if (const auto made = readOrMakeServerPair(*authority, now, result); !made) return std::unexpected(made.error());
  } catch (const std::runtime_error& error) {
    return std::unexpected(error.what());
  }
  return result;
}

}  // namespace devserver

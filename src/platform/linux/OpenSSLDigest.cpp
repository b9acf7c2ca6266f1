// Message digests by OpenSSL.
#include "platform/linux/OpenSSLDigest.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "platform/Exception.h"

namespace platform {
namespace {

constexpr std::size_t kAlgorithmCount = 3;
constexpr std::array<const char*, kAlgorithmCount> kNames{"SHA256", "SHA384", "SHA512"};

std::size_t indexOf(Digest::Algorithm algorithm) { return static_cast<std::size_t>(algorithm); }

template <class T>
T* require(T* object, const char* operation) {
  if (!object) throw Exception(kInternalInconsistencyException, std::string("OpenSSL: ") + operation);
  return object;
}

void requireSuccess(int result, const char* operation) {
  if (result != 1) throw Exception(kInternalInconsistencyException, std::string("OpenSSL: ") + operation);
}

const unsigned char* bytesOf(std::string_view text) {
  // A key of no bytes must still be a key: an absent one would mean the key of before.
  return reinterpret_cast<const unsigned char*>(text.data() ? text.data() : "");
}

// What is fetched once. It is never freed: threads may hash while the process exits.
struct Fetched {
  std::array<const EVP_MD*, kAlgorithmCount> digests;
  EVP_MAC* hmac;
};

const Fetched& fetched() {
  static const Fetched kFetched = [] {
    initializeOpenSSL();
    Fetched made{};
    for (std::size_t i = 0; i < kAlgorithmCount; ++i)
      made.digests[i] = require(EVP_MD_fetch(nullptr, kNames[i], nullptr), "EVP_MD_fetch");
    made.hmac = require(EVP_MAC_fetch(nullptr, "HMAC", nullptr), "EVP_MAC_fetch");
    return made;
  }();
  return kFetched;
}

template <auto free>
struct Free {
  void operator()(auto* object) const { free(object); }
};
using DigestContext = std::unique_ptr<EVP_MD_CTX, Free<&EVP_MD_CTX_free>>;
using MacContext = std::unique_ptr<EVP_MAC_CTX, Free<&EVP_MAC_CTX_free>>;

// A keyed context and the key it holds: starting it again with the same key, as a client that always signs with one does, takes
// half the time of keying it.
struct KeyedContext {
  MacContext context;
  std::optional<std::string> key;

  KeyedContext() = default;
  KeyedContext(const KeyedContext&) = delete;
  KeyedContext& operator=(const KeyedContext&) = delete;
  ~KeyedContext() { forgetKey(); }

  void start(std::string_view wanted) {
    if (key == wanted) return requireSuccess(EVP_MAC_init(context.get(), nullptr, 0, nullptr), "EVP_MAC_init");
    forgetKey();
    requireSuccess(EVP_MAC_init(context.get(), bytesOf(wanted), wanted.size(), nullptr), "EVP_MAC_init");
    key.emplace(wanted);
  }

 private:
  void forgetKey() {
    if (key) OPENSSL_cleanse(key->data(), key->size());
    key.reset();
  }
};

// A context belongs to one thread and one algorithm; starting it again is cheap where setting it up is not.
struct Contexts {
  std::array<DigestContext, kAlgorithmCount> digests;
  std::array<KeyedContext, kAlgorithmCount> macs;
};

Contexts& contextsOfThisThread() {
  thread_local Contexts contexts;
  return contexts;
}

EVP_MD_CTX* digestContext(Digest::Algorithm algorithm) {
  DigestContext& context = contextsOfThisThread().digests[indexOf(algorithm)];
  if (!context) context.reset(require(EVP_MD_CTX_new(), "EVP_MD_CTX_new"));
  return context.get();
}

MacContext newMacContext(Digest::Algorithm algorithm) {
  MacContext made(require(EVP_MAC_CTX_new(fetched().hmac), "EVP_MAC_CTX_new"));
  std::string name = kNames[indexOf(algorithm)];
  const OSSL_PARAM parameters[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, name.data(), 0),
                                   OSSL_PARAM_construct_end()};
  requireSuccess(EVP_MAC_CTX_set_params(made.get(), parameters), "EVP_MAC_CTX_set_params");
  return made;
}

// Started with the key.
EVP_MAC_CTX* macContext(Digest::Algorithm algorithm, std::string_view key) {
  KeyedContext& mac = contextsOfThisThread().macs[indexOf(algorithm)];
  if (!mac.context) mac.context = newMacContext(algorithm);
  mac.start(key);
  return mac.context.get();
}

Data dataOf(const std::array<unsigned char, EVP_MAX_MD_SIZE>& bytes, std::size_t length) {
  return Data(std::string_view(reinterpret_cast<const char*>(bytes.data()), length));
}

}  // namespace

void initializeOpenSSL() {
  static const int kDone = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  requireSuccess(kDone, "OPENSSL_init_crypto");
}

Data OpenSSLDigest::hash(Algorithm algorithm, std::initializer_list<std::string_view> parts) {
  const EVP_MD* digest = fetched().digests[indexOf(algorithm)];
  EVP_MD_CTX* context = digestContext(algorithm);
  requireSuccess(EVP_DigestInit_ex2(context, digest, nullptr), "EVP_DigestInit_ex2");
  for (const std::string_view part : parts) requireSuccess(EVP_DigestUpdate(context, part.data(), part.size()), "EVP_DigestUpdate");
  std::array<unsigned char, EVP_MAX_MD_SIZE> bytes;
  unsigned length = 0;
  requireSuccess(EVP_DigestFinal_ex(context, bytes.data(), &length), "EVP_DigestFinal_ex");
  return dataOf(bytes, length);
}

Data OpenSSLDigest::hmac(Algorithm algorithm, std::string_view key, std::initializer_list<std::string_view> parts) {
  EVP_MAC_CTX* context = macContext(algorithm, key);
  for (const std::string_view part : parts) requireSuccess(EVP_MAC_update(context, bytesOf(part), part.size()), "EVP_MAC_update");
  std::array<unsigned char, EVP_MAX_MD_SIZE> bytes;
  std::size_t length = 0;
  requireSuccess(EVP_MAC_final(context, bytes.data(), &length, bytes.size()), "EVP_MAC_final");
  return dataOf(bytes, length);
}

bool OpenSSLDigest::constantTimeEqual(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace platform

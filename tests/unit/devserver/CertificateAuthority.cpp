// The certificates: made once, kept, renewed in time, for these names only, and nobody else's to read.
#include "devserver/CertificateAuthority.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include "devserver/Files.h"
#include "support/TemporaryDirectory.h"

namespace devserver {
namespace {

using test::TemporaryDirectory;
namespace fs = std::filesystem;
using std::chrono::days;
using std::chrono::system_clock;

using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

Certificate load(const fs::path& file) {
  FILE* stream = std::fopen(file.c_str(), "r");
  if (!stream) return {nullptr, &X509_free};
  X509* certificate = PEM_read_X509(stream, nullptr, nullptr, nullptr);
  std::fclose(stream);
  return {certificate, &X509_free};
}

/// How OpenSSL's verifier judges a server that calls itself by this name at this time.
std::string judge(const Certificates& files, const std::string& name, system_clock::time_point when) {
  const Certificate authority = load(files.authority);
  const Certificate server = load(files.certificate);
  if (!authority || !server) return "no certificate";
  const std::unique_ptr<X509_STORE, decltype(&X509_STORE_free)> store(X509_STORE_new(), &X509_STORE_free);
  X509_STORE_add_cert(store.get(), authority.get());
  const std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> context(X509_STORE_CTX_new(), &X509_STORE_CTX_free);
  X509_STORE_CTX_init(context.get(), store.get(), server.get(), nullptr);
  X509_STORE_CTX_set_purpose(context.get(), X509_PURPOSE_SSL_SERVER);
  X509_VERIFY_PARAM* parameters = X509_STORE_CTX_get0_param(context.get());
  X509_VERIFY_PARAM_set_time(parameters, system_clock::to_time_t(when));
  if (X509_VERIFY_PARAM_set1_ip_asc(parameters, name.c_str()) != 1)
    X509_VERIFY_PARAM_set1_host(parameters, name.data(), name.size());
  X509_verify_cert(context.get());
  return X509_verify_cert_error_string(X509_STORE_CTX_get_error(context.get()));
}

mode_t modeOf(const fs::path& file) {
  struct stat status{};
  return ::stat(file.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

class CertificateAuthorityTest : public ::testing::Test {
 protected:
  Certificates prepare(system_clock::time_point now) {
    auto files = prepareCertificates(state_, now);
    EXPECT_TRUE(files.has_value()) << (files ? "" : files.error());
    return files.value_or(Certificates());
  }
  static std::string contentOf(const fs::path& file) { return readFile(file).value_or("unreadable"); }

  TemporaryDirectory directory_;
  fs::path state_ = fs::path(directory_.path()) / "deep" / "state";
  system_clock::time_point now_ = system_clock::now();
};

TEST_F(CertificateAuthorityTest, FirstStartMakesEverythingForTheUserAlone) {
  const Certificates files = prepare(now_);
  EXPECT_TRUE(files.madeAuthority);
  EXPECT_TRUE(files.madeCertificate);
  EXPECT_EQ(files.authority, state_ / "ca.pem");
  EXPECT_EQ(modeOf(state_), 0700U);
  EXPECT_EQ(modeOf(state_.parent_path()), 0700U);
  for (const char* name : {"ca.pem", "ca.key", "server.pem", "server.key"}) EXPECT_EQ(modeOf(state_ / name), 0600U) << name;
}

TEST_F(CertificateAuthorityTest, ServerIsGoodForItsNamesAndNoOthers) {
  const Certificates files = prepare(now_);
  for (const char* name : {"localhost", "127.0.0.1", "::1"}) EXPECT_EQ(judge(files, name, now_), "ok") << name;
  EXPECT_EQ(judge(files, "example.com", now_), "hostname mismatch");
  EXPECT_EQ(judge(files, "wrong.localhost", now_), "hostname mismatch");
  EXPECT_EQ(judge(files, "127.0.0.2", now_), "IP address mismatch");
  EXPECT_EQ(judge(files, "localhost", now_ + days(91)), "certificate has expired");
  EXPECT_EQ(judge(files, "localhost", now_ - days(2)), "certificate is not yet valid");
  EXPECT_EQ(judge(files, "localhost", now_ - std::chrono::hours(23)), "ok");
}

TEST_F(CertificateAuthorityTest, AuthorityIsGoodForLoopbackNamesAlone) {
  const Certificate authority = load(prepare(now_).authority);
  ASSERT_TRUE(authority);
  const auto* constraints =
      static_cast<NAME_CONSTRAINTS*>(X509_get_ext_d2i(authority.get(), NID_name_constraints, nullptr, nullptr));
  ASSERT_NE(constraints, nullptr);
  EXPECT_EQ(sk_GENERAL_SUBTREE_num(constraints->permittedSubtrees), 3);
  NAME_CONSTRAINTS_free(const_cast<NAME_CONSTRAINTS*>(constraints));
  EXPECT_EQ(X509_check_ca(authority.get()), 1);
  EXPECT_EQ(X509_get_pathlen(authority.get()), 0);
}

TEST_F(CertificateAuthorityTest, SecondStartKeepsEverything) {
  const Certificates first = prepare(now_);
  const std::string authority = contentOf(first.authority);
  const std::string certificate = contentOf(first.certificate);
  const Certificates second = prepare(now_ + days(59));
  EXPECT_FALSE(second.madeAuthority);
  EXPECT_FALSE(second.madeCertificate);
  EXPECT_EQ(contentOf(second.authority), authority);
  EXPECT_EQ(contentOf(second.certificate), certificate);
}

TEST_F(CertificateAuthorityTest, ServerCertificateIsRenewedThirtyDaysBeforeItsEnd) {
  const std::string authority = contentOf(prepare(now_).authority);
  const auto later = now_ + days(60) + std::chrono::minutes(1);
  const Certificates renewed = prepare(later);
  EXPECT_FALSE(renewed.madeAuthority);
  EXPECT_TRUE(renewed.madeCertificate);
  EXPECT_EQ(contentOf(renewed.authority), authority);
  EXPECT_EQ(judge(renewed, "localhost", later + days(89)), "ok");
}

TEST_F(CertificateAuthorityTest, AuthorityIsRenewedBeforeItsEndAndTheServerWithIt) {
  const std::string authority = contentOf(prepare(now_).authority);
  EXPECT_FALSE(prepare(now_ + days(3559)).madeAuthority);
  const auto later = now_ + days(3561);
  const Certificates renewed = prepare(later);
  EXPECT_TRUE(renewed.madeAuthority);
  EXPECT_TRUE(renewed.madeCertificate);
  EXPECT_NE(contentOf(renewed.authority), authority);
  EXPECT_EQ(judge(renewed, "localhost", later), "ok");
}

TEST_F(CertificateAuthorityTest, BrokenServerCertificateIsMadeAnew) {
  prepare(now_);
  for (const char* name : {"server.pem", "server.key"}) {
    std::ofstream(state_ / name) << "nonsense";
    EXPECT_TRUE(prepare(now_).madeCertificate) << name;
    fs::remove(state_ / name);
    const Certificates files = prepare(now_);
    EXPECT_TRUE(files.madeCertificate) << name;
    EXPECT_FALSE(files.madeAuthority) << name;
    EXPECT_EQ(judge(files, "localhost", now_), "ok") << name;
  }
}

TEST_F(CertificateAuthorityTest, ServerCertificateOfAnotherAuthorityIsMadeAnew) {
  prepare(now_);
  TemporaryDirectory other;
  ASSERT_TRUE(prepareCertificates(other.path(), now_).has_value());
  for (const char* name : {"server.pem", "server.key"})
    fs::copy_file(fs::path(other.path()) / name, state_ / name, fs::copy_options::overwrite_existing);
  const Certificates files = prepare(now_);
  EXPECT_TRUE(files.madeCertificate);
  EXPECT_EQ(judge(files, "localhost", now_), "ok");
}

TEST_F(CertificateAuthorityTest, BrokenAuthorityIsAnErrorAndStaysAsItIs) {
  const Certificates files = prepare(now_);
  const std::string advice = "; remove it, and ca.pem, to have a new authority made";
  std::ofstream(files.authority) << "nonsense";
  EXPECT_EQ(prepareCertificates(state_, now_).error(), files.authority.string() + " holds no certificate" + advice);
  EXPECT_EQ(contentOf(files.authority), "nonsense");

  fs::remove(files.authority);
  EXPECT_TRUE(prepare(now_).madeAuthority);
  std::ofstream(state_ / "ca.key") << "nonsense";
  EXPECT_EQ(prepareCertificates(state_, now_).error(), (state_ / "ca.key").string() + " holds no private key" + advice);

  fs::copy_file(state_ / "server.key", state_ / "ca.key", fs::copy_options::overwrite_existing);
  EXPECT_EQ(prepareCertificates(state_, now_).error(),
            files.authority.string() + " and " + (state_ / "ca.key").string() + " do not belong together" + advice);
}

TEST_F(CertificateAuthorityTest, StateFolderThatIsAFileIsAnError) {
  std::ofstream(directory_.path() + "/file") << "x";
  EXPECT_EQ(prepareCertificates(directory_.path() + "/file", now_).error(),
            "cannot make the folder " + directory_.path() + "/file: Not a directory");
  EXPECT_EQ(prepareCertificates(directory_.path() + "/file/below", now_).error(),
            "cannot make the folder " + directory_.path() + "/file/below: Not a directory");
}

TEST_F(CertificateAuthorityTest, ServersThatStartAtOnceAgree) {
  std::vector<std::thread> threads;
  std::vector<int> made(4);
  for (int& count : made)
    threads.emplace_back([this, &count] {
      const auto files = prepareCertificates(state_, now_);
      count = files ? static_cast<int>(files->madeAuthority) : 100;
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(made[0] + made[1] + made[2] + made[3], 1);
  EXPECT_EQ(judge(prepare(now_), "localhost", now_), "ok");
}

}  // namespace
}  // namespace devserver

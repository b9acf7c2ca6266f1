// The application's token: made once, by whoever is first, kept for good, and never taken from a file that proves nothing.
#include "platform/linux/TransferIdentity.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/GetrandomSecureRandom.h"
#include "support/ForkedChild.h"
#include "support/TemporaryDirectory.h"

namespace test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::MatchesRegex;

class TransferIdentityTest : public testing::Test {
 protected:
  std::string home() const { return folder_.path() + "/home"; }
  std::string application() const { return home() + "/com.example.app"; }
  std::string tokenPath() const { return application() + "/transfer-token"; }
  platform::SystemOptions options() const { return {.bundleIdentifier = "com.example.app", .homeDirectory = home()}; }

  /// The token that a new process sees, or why there is none.
  std::string token() const {
    platform::TransferIdentity identity(options(), std::make_shared<platform::GetrandomSecureRandom>());
    return tokenOf(identity);
  }
  static std::string tokenOf(platform::TransferIdentity& identity) {
    const auto made = identity.identity();
    return made ? made->token : made.error().localizedDescription();
  }
  std::string content() const {
    std::ifstream file(tokenPath());
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void put(const std::string& text) const {
    fs::create_directories(application());
    std::ofstream(tokenPath()) << text;
    ASSERT_EQ(::chmod(tokenPath().c_str(), 0600), 0);
  }
  unsigned mode() const {
    struct stat status{};
    EXPECT_EQ(::stat(tokenPath().c_str(), &status), 0);
    return status.st_mode & 07777U;
  }
  std::vector<std::string> namesInApplication() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(application())) names.push_back(entry.path().filename());
    return names;
  }

  const std::string kDamaged_ = "The file “transfer-token” couldn’t be opened.";
  const std::string kForbidden_ = "The file “transfer-token” couldn’t be opened because you don’t have permission to view it.";
  TemporaryDirectory folder_;
};

TEST_F(TransferIdentityTest, TheTokenIsMadeWithItsFolderAtTheFirstUseAndStays) {
  const std::string first = token();
  EXPECT_THAT(first, MatchesRegex("[0-9a-f]{64}"));
  EXPECT_EQ(content(), first);
  EXPECT_EQ(mode(), 0600U);
  EXPECT_THAT(namesInApplication(), ElementsAre("transfer-token")) << "no unfinished name is left";
  EXPECT_EQ(token(), first) << "in the next life";
}

TEST_F(TransferIdentityTest, TheIdentityIsTheIdentifierTheFolderAndTheToken) {
  platform::TransferIdentity identity(options(), std::make_shared<platform::GetrandomSecureRandom>());
  EXPECT_FALSE(fs::exists(home())) << "it touches no file before it is asked";
  EXPECT_EQ(identity.folder(), application());
  const auto made = identity.identity();
  ASSERT_TRUE(made);
  EXPECT_EQ(*made, (transfer::ApplicationIdentity{"com.example.app", application(), content()}));
}

TEST_F(TransferIdentityTest, AProcessKeepsTheTokenThatItHasRead) {
  platform::TransferIdentity identity(options(), std::make_shared<platform::GetrandomSecureRandom>());
  const std::string first = tokenOf(identity);
  fs::remove(tokenPath());
  EXPECT_EQ(tokenOf(identity), first);
  EXPECT_NE(token(), first) << "a folder without a token is a new application's";
}

TEST_F(TransferIdentityTest, ProcessesAndThreadsThatMakeItAtOnceHaveOneToken) {
  constexpr int kWorkers = 8;
  std::vector<pid_t> children;
  for (int i = 0; i < kWorkers; ++i)
    children.push_back(startChild([&, i] { std::ofstream(folder_.path() + "/token-" + std::to_string(i)) << token(); }));
  platform::TransferIdentity shared(options(), std::make_shared<platform::GetrandomSecureRandom>());
  std::vector<std::string> tokens(kWorkers);
  std::vector<std::thread> threads;
  for (std::string& each : tokens) threads.emplace_back([&] { each = tokenOf(shared); });
  for (std::thread& thread : threads) thread.join();
  for (int i = 0; i < kWorkers; ++i) {
    EXPECT_EQ(waitForChild(children[static_cast<std::size_t>(i)]), 0);
    std::ifstream file(folder_.path() + "/token-" + std::to_string(i));
    tokens.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }
  EXPECT_THAT(content(), MatchesRegex("[0-9a-f]{64}"));
  EXPECT_THAT(tokens, testing::Each(content()));
  EXPECT_THAT(namesInApplication(), ElementsAre("transfer-token"));
}

// Faults.

TEST_F(TransferIdentityTest, ADamagedTokenIsAnErrorAndStaysAsItIs) {
  for (const std::string& damaged : {std::string(), std::string("no token"), std::string(63, 'a'), std::string(65, 'a'),
                                     std::string(64, 'A'), std::string(64, 'g'), std::string(63, 'a') + "\n"}) {
    put(damaged);
    EXPECT_EQ(token(), kDamaged_) << damaged;
    EXPECT_EQ(content(), damaged);
  }
}

TEST_F(TransferIdentityTest, AnErrorIsNotKept) {
  put("no token");
  platform::TransferIdentity identity(options(), std::make_shared<platform::GetrandomSecureRandom>());
  EXPECT_EQ(tokenOf(identity), kDamaged_);
  put(std::string(64, 'a'));
  EXPECT_EQ(tokenOf(identity), std::string(64, 'a'));
}

TEST_F(TransferIdentityTest, ATokenThatOthersMayReadIsTightened) {
  put(std::string(64, 'a'));
  ASSERT_EQ(::chmod(tokenPath().c_str(), 0666), 0);
  EXPECT_EQ(token(), std::string(64, 'a'));
  EXPECT_EQ(mode(), 0600U);
}

TEST_F(TransferIdentityTest, ATokenOfAnotherUserIsNotTaken) {
  ASSERT_EQ(::geteuid(), 0U) << "only root can give a file to another user";
  put(std::string(64, 'a'));
  ASSERT_EQ(::chown(tokenPath().c_str(), 65534, 65534), 0);
  EXPECT_EQ(token(), kForbidden_);
}

TEST_F(TransferIdentityTest, ATokenThatCannotBeReadIsAnError) {
  ASSERT_EQ(::geteuid(), 0U) << "goes on as a user whom permissions bind";
  put(std::string(64, 'a'));
  ASSERT_EQ(::chmod(tokenPath().c_str(), 0), 0);
  ASSERT_EQ(::chown(tokenPath().c_str(), 65534, 65534), 0);
  EXPECT_EQ(runInChild([&] {
              for (const std::string& path : {folder_.path(), home()})
                fs::permissions(path, fs::perms::others_exec, fs::perm_options::add);
              becomeNobody(application());
              EXPECT_EQ(token(), kForbidden_);
            }),
            0);
}

TEST_F(TransferIdentityTest, WhatIsNoPlainFileIsNotTakenAndHoldsNobodyUp) {
  fs::create_directories(application());
  std::ofstream(folder_.path() + "/elsewhere") << std::string(64, 'a');
  fs::create_symlink(folder_.path() + "/elsewhere", tokenPath());
  EXPECT_EQ(token(), kDamaged_);
  fs::remove(tokenPath());
  fs::create_directory(tokenPath());
  EXPECT_EQ(token(), kDamaged_);
  fs::remove(tokenPath());
  ASSERT_EQ(::mkfifo(tokenPath().c_str(), 0600), 0);
  EXPECT_EQ(token(), kDamaged_);
}

TEST_F(TransferIdentityTest, AHomeThatIsAFileIsAnError) {
  std::ofstream(home()) << "a file";
  EXPECT_EQ(token(), kDamaged_);
}

TEST_F(TransferIdentityTest, AFolderThatCannotBeMadeIsAnError) {
  ASSERT_EQ(::geteuid(), 0U) << "goes on as a user whom permissions bind";
  const std::string own = folder_.path() + "/own";
  fs::create_directory(own);
  fs::permissions(folder_.path(), fs::perms::others_exec, fs::perm_options::add);
  EXPECT_EQ(runInChild([&] {
              becomeNobody(own);
              EXPECT_EQ(token(), "You don’t have permission to save the file “transfer-token” in the folder “com.example.app”.");
            }),
            0);
  EXPECT_FALSE(fs::exists(home()));
}

TEST_F(TransferIdentityTest, WithoutAHomeThereIsNoIdentity) {
  platform::TransferIdentity identity({.bundleIdentifier = "com.example.app", .homeDirectory = "no absolute path"},
                                      std::make_shared<platform::GetrandomSecureRandom>());
  EXPECT_EQ(identity.folder(), std::nullopt);
  const auto made = identity.identity();
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().localizedDescription(), "The operation couldn’t be completed. (NSCocoaErrorDomain error 4.)");
}

}  // namespace
}  // namespace test

// The real services put together: all are there, and making them does nothing that a host would notice.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/BackgroundURLSession.h"
#include "platform/Process.h"
#include "platform/UUID.h"
#include "support/Event.h"

namespace {

// A path in a new folder, at which there is nothing.
class FreshPath {
 public:
  FreshPath() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kestrova-XXXXXX").string();
    folder_ = mkdtemp(pattern.data());
  }
  ~FreshPath() { std::filesystem::remove_all(folder_); }
  std::string path() const { return (folder_ / "home").string(); }

 private:
  std::filesystem::path folder_;
};

std::size_t threadCount() {
  const auto entries = std::filesystem::directory_iterator("/proc/self/task");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

TEST(SystemProcessTest, StartsNoThreadAndTouchesNoFile) {
  const FreshPath home;
  const std::size_t before = threadCount();
  const auto process = platform::makeSystemProcess({.bundleIdentifier = "com.example.app", .homeDirectory = home.path()});
  EXPECT_EQ(threadCount(), before);
  EXPECT_FALSE(std::filesystem::exists(home.path()));
}

TEST(SystemProcessTest, HasEveryService) {
  const FreshPath home;
  const auto process = platform::makeSystemProcess({.bundleIdentifier = "com.example.app", .homeDirectory = home.path()});
  EXPECT_TRUE(process->systemLog && process->uncaughtException && process->clock && process->secureRandom && process->digest);
  EXPECT_TRUE(process->data && process->json && process->bundle && process->fileManager && process->userDefaults);
  EXPECT_TRUE(process->queues && process->application && process->urlSession);
}

TEST(SystemProcessTest, ItsServicesWorkTogether) {
  const FreshPath home;
  auto process = platform::makeSystemProcess({.bundleIdentifier = "com.example.app", .homeDirectory = home.path()});
  {
    const platform::Process::Scope scope(*process);
    test::Event stored;
    const std::string identifier = platform::UUID::randomUUID().UUIDString();
    platform::DispatchQueue::globalBackgroundQueue()->async([&] {
      platform::UserDefaults::standardUserDefaults().setObjectForKey(platform::Value(identifier), "identifier");
      stored.happen();
    });
    ASSERT_TRUE(stored.wait());
    EXPECT_EQ(platform::UserDefaults::standardUserDefaults().objectForKey("identifier"), platform::Value(identifier));
    EXPECT_EQ(platform::Bundle::mainBundle().bundleIdentifier(), "com.example.app");
    EXPECT_EQ(platform::FileManager::defaultManager().applicationSupportDirectory().has_value(), true);
    EXPECT_TRUE(std::filesystem::exists(home.path()));
  }
  const std::size_t with = threadCount();
  process.reset();
  EXPECT_LT(threadCount(), with);
}

/// The text of the one task in a spool folder.
std::string taskIn(const std::string& spool) {
  std::string text;
  for (const auto& entry : std::filesystem::directory_iterator(spool)) {
    std::ifstream file(entry.path());
    text.append(std::istreambuf_iterator<char>(file), {});
  }
  return text;
}

// The service's own working folder is another one.
TEST(SystemProcessTest, TheTransferServiceHearsOfTrustAnchorsByTheirWholePath) {
  const FreshPath home;
  const std::string transfers = home.path() + "/transfers";
  ASSERT_EQ(setenv("SSL_CERT_FILE", "anchors.pem", 1), 0);
  const auto process = platform::makeSystemProcess({.bundleIdentifier = "com.example.app",
                                                    .homeDirectory = home.path(),
                                                    .transferDirectory = transfers,
                                                    .transferServicePath = "/bin/true"});
  unsetenv("SSL_CERT_FILE");
  const platform::Process::Scope scope(*process);
  const auto session = platform::BackgroundURLSession::sessionWithConfigurationDelegateDelegateQueue(
      platform::URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier("one"), nullptr, nullptr);
  session
      ->uploadTaskWithRequestFromFile(platform::URLRequest(platform::URL::URLWithString("https://localhost/")),
                                      platform::URL::fileURLWithPath("/a"))
      ->resume();
  const std::string anchors = (std::filesystem::current_path() / "anchors.pem").string();
  EXPECT_NE(taskIn(transfers + "/spool").find("\"trustAnchors\":\"" + anchors + "\""), std::string::npos);
}

TEST(SystemProcessTest, WithoutABundleIdentifierThereIsNone) {
  EXPECT_EQ(platform::makeSystemProcess({})->bundle->bundleIdentifier(), std::nullopt);
}

}  // namespace

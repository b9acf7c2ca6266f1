// kill -9 at random moments: the queue file is always one that some replacement put there whole.
//
// A child on the real services reports events against a server that always fails, so that its queue file is appended to, loaded,
// truncated and replaced all the time. It notes the beginning of each replacement, with a digest of the file that is about to take
// the queue's place, and its end; the notes are in the kernel's hands when they are written, so that they survive the kill. The
// queue must then be a file that a replacement put there and that no other one has replaced since.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "platform/Digest.h"
#include "platform/FileManager.h"
#include "platform/Process.h"
#include "platform/linux/OpenSSLDigest.h"
#include "support/Event.h"
#include "support/Program.h"
#include "support/RealClient.h"
#include "support/TlsTestServer.h"

namespace test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kFolderVariable = "KESTROVA_TEST_CRASH_FOLDER";
constexpr const char* kHostVariable = "KESTROVA_TEST_CRASH_HOST";
constexpr int kKills = 60;

std::string digestOf(std::string_view bytes) {
  return platform::OpenSSLDigest().hash(platform::Digest::Algorithm::kSHA256, {bytes}).base64EncodedString();
}

std::optional<std::string> contentOf(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

/// A replacement, by the places of its two notes; one that was killed has no end.
struct Replacement {
  std::string digest;
  std::size_t begin = 0;
  std::optional<std::size_t> end;
};

/// What the queue was at first, followed by the run's replacements.
std::vector<Replacement> historyIn(const fs::path& notes, const std::string& first) {
  std::vector<Replacement> history{{first, 0, 0}};
  std::ifstream file(notes);
  std::string what;
  std::size_t number = 0;
  std::string digest;
  for (std::size_t place = 1; file >> what >> number >> digest; ++place) {
    if (history.size() <= number) history.resize(number + 1);
    if (what == "begin") {
      history[number].digest = digest;
      history[number].begin = place;
    } else {
      history[number].end = place;
    }
  }
  return history;
}

/// The digests that the queue may have: of each replacement after whose end no other one was made from beginning to end.
std::vector<std::string> possibleDigests(const std::vector<Replacement>& history) {
  std::vector<std::string> possible;
  for (const Replacement& candidate : history) {
    const bool wasReplaced = std::ranges::any_of(
        history, [&](const Replacement& later) { return later.end && candidate.end && later.begin > *candidate.end; });
    if (!wasReplaced) possible.push_back(candidate.digest);
  }
  return possible;
}

/// Says each step of the queue file's life on standard output, and notes what is about to replace it.
class TellingFileManager final : public platform::FileManager {
 public:
  TellingFileManager(std::shared_ptr<FileManager> files, const fs::path& notes)
      : files_(std::move(files)), notes_(open(notes.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {}
  ~TellingFileManager() override { close(notes_); }

  std::expected<platform::URL, platform::Error> replaceItemAtURLWithItemAtURL(
      const std::optional<platform::URL>& original, const std::optional<platform::URL>& newItem) override {
    const std::string number = std::to_string(++replacements_);
    note("begin " + number + " " + digestOf(files_->contentsOfURL(newItem).value().bytes()));
    tell("replacing");
    auto replaced = files_->replaceItemAtURLWithItemAtURL(original, newItem);
    note("end " + number + " -");
    tell("replaced");
    return replaced;
  }
  std::expected<void, platform::Error> copyItemAtURLToURL(const std::optional<platform::URL>& source,
                                                          const std::optional<platform::URL>& target) override {
    tell("copying");
    return files_->copyItemAtURLToURL(source, target);
  }
  std::expected<std::shared_ptr<platform::FileHandle>, platform::Error> openFileHandle(const std::optional<platform::URL>& url,
                                                                                       Access access) override {
    tell("opening");
    return files_->openFileHandle(url, access);
  }
  std::expected<void, platform::Error> writeDataWithoutOverwriting(const platform::Data& data,
                                                                   const std::optional<platform::URL>& url) override {
    tell("creating");
    return files_->writeDataWithoutOverwriting(data, url);
  }

  bool fileExistsAtPath(std::string_view path) override { return files_->fileExistsAtPath(path); }
  std::expected<platform::FileAttributes, platform::Error> attributesOfItemAtPath(std::string_view path) override {
    return files_->attributesOfItemAtPath(path);
  }
  std::expected<std::vector<std::string>, platform::Error> contentsOfDirectoryAtPath(std::string_view path) override {
    return files_->contentsOfDirectoryAtPath(path);
  }
  std::expected<void, platform::Error> linkItemAtURLToURL(const std::optional<platform::URL>& source,
                                                          const std::optional<platform::URL>& target) override {
    return files_->linkItemAtURLToURL(source, target);
  }
  std::expected<void, platform::Error> moveItemAtURLToURL(const std::optional<platform::URL>& source,
                                                          const std::optional<platform::URL>& target) override {
    return files_->moveItemAtURLToURL(source, target);
  }
  std::expected<void, platform::Error> removeItemAtURL(const std::optional<platform::URL>& url) override {
    return files_->removeItemAtURL(url);
  }
  std::expected<void, platform::Error> removeItemAtPath(std::string_view path) override { return files_->removeItemAtPath(path); }
  std::expected<void, platform::Error> createDirectoryAtURL(const std::optional<platform::URL>& url) override {
    return files_->createDirectoryAtURL(url);
  }
  std::expected<platform::URL, platform::Error> applicationSupportDirectory() override {
    return files_->applicationSupportDirectory();
  }
  std::expected<platform::URL, platform::Error> temporaryDirectory() override { return files_->temporaryDirectory(); }
  std::expected<platform::Data, platform::Error> contentsOfURL(const std::optional<platform::URL>& url) override {
    return files_->contentsOfURL(url);
  }

 private:
  static void tell(std::string_view step) {
    const std::string line = std::string(step) + "\n";
    (void)!::write(STDOUT_FILENO, line.data(), line.size());
  }

  void note(const std::string& text) const {
    const std::string line = text + "\n";
    if (::write(notes_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::abort();
  }

  std::shared_ptr<FileManager> files_;
  int notes_;
  std::atomic<int> replacements_{0};
};

/// The child: one client that reports events, one batch after the other, until it is killed.
void reportUntilKilled(const fs::path& folder) {
  platform::SystemOptions options;
  options.bundleIdentifier = "com.example.app";
  options.homeDirectory = folder.string();
  auto process = platform::makeSystemProcess(options);
  process->fileManager = std::make_shared<TellingFileManager>(process->fileManager, folder / "notes");
  process->constants = {"session-started", "did-cookie-match", "skew", "1", std::getenv(kHostVariable)};
  platform::Process::install(std::move(process));
  const auto client = KSVData::initWithSecret("secret");
  KSVDataInspector inspect(client);
  inspect.maxQueueSizeOnDiskInBytes() = 20'000;  // truncated now and then
  for (int n = 0;; ++n) {
    client->createEventWithData("gif-viewed", platform::Dictionary{{"n", n}, {"text", std::string(200, 'x')}});
    // A little at a time, so that the child does not pile up what it can never send.
    if (n % 20 == 19) {
      Event drained;
      inspect.diskCacheAccessQueue()->async([&] { drained.happen(); });
      if (!drained.wait()) return;
    }
  }
}

TEST(Crashes, AKillAtAnyMomentLeavesAQueueThatSomeReplacementMade) {
  if (const char* folder = std::getenv(kFolderVariable)) {
    reportUntilKilled(folder);
    return;
  }

  TlsTestServer server(TlsTestServer::answering(TlsTestServer::Answer{500, {}, ""}));
  TemporaryDirectory home;
  std::mt19937 random(20261120);
  std::uniform_int_distribution<std::size_t> moment(1, 120);
  std::string before = digestOf("");
  std::size_t replacements = 0;

  for (int kill = 0; kill < kKills; ++kill) {
    const fs::path notes = fs::path(home.path()) / "notes";
    fs::remove(notes);
    Program child("/proc/self/exe", {"--gtest_filter=Crashes.AKillAtAnyMomentLeavesAQueueThatSomeReplacementMade"},
                  {{kFolderVariable, home.path()},
                   {kHostVariable, "localhost:" + std::to_string(server.port())},
                   {"SSL_CERT_FILE", certificateAuthorityFile()}});
    ASSERT_TRUE(child.waitForLines(moment(random))) << child.errors();
    child.signal(SIGKILL);
    ASSERT_EQ(child.waitForEnd(), "killed by signal 9") << child.errors();

    const std::vector<Replacement> history = historyIn(notes, before);
    const auto content = contentOf(fs::path(home.path()) / "com.example.app" / "application-support" / "event-queue.json");
    before = digestOf(content.value_or(""));
    EXPECT_THAT(possibleDigests(history), testing::Contains(before))
        << "after kill " << kill << " the queue holds " << content.value_or("").size() << " bytes";
    EXPECT_TRUE(!content || content->empty() || content->back() == '\n');
    replacements += history.size() - 1;
  }
  EXPECT_GT(replacements, static_cast<std::size_t>(kKills)) << "the children were killed before they did anything";
  RecordProperty("kills", kKills);
  RecordProperty("replacements", static_cast<int>(replacements));
}

}  // namespace
}  // namespace test

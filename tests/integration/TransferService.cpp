// The service as a process: its start, its end, and an upload that survives its death.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/FileDescriptor.h"
#include "platform/linux/TransferDirectory.h"
#include "support/Event.h"
#include "support/Program.h"
#include "support/ServiceEnd.h"
#include "support/TemporaryDirectory.h"
#include "support/TestProcess.h"
#include "support/TlsTestServer.h"
#include "transfer/linux/Startup.h"
#include "transfer/protocol/SpoolEntry.h"

namespace test {
namespace {

namespace fs = std::filesystem;

class TransferService : public testing::Test {
 protected:
  std::unique_ptr<Program> start(std::vector<std::string> arguments = {}, const Program::Variables& variables = {}) const {
    arguments.insert(arguments.begin(), {"--directory", directory_.path()});
    return std::make_unique<Program>(binary("kestrova-transferd"), arguments, variables);
  }
  std::string status() const {
    auto program = start({"--status"});
    const std::string end = program->waitForEnd();
    return program->output() + end;
  }
  void handOver(const std::string& url, const std::string& file, std::uint64_t task) const {
    transfer::SpoolEntry entry;
    entry.application = {"com.example.app", folder_.path(), std::string(64, 'a')};
    entry.session = "com.example.session";
    entry.task = task;
    entry.method = "POST";
    entry.url = url;
    entry.file = file;
    entry.trustAnchors = certificateAuthorityFile();
    entry.resumedAt = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    const std::string name = std::to_string(task) + ".task";
    std::ofstream(directory_.spool() + "/." + name) << transfer::encode(entry);
    fs::permissions(directory_.spool() + "/." + name, fs::perms::owner_read | fs::perms::owner_write);
    fs::rename(directory_.spool() + "/." + name, directory_.spool() + "/" + name);
  }
  std::string fileOf(const std::string& bytes) const {
    const std::string path = folder_.path() + "/upload";
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }

  TestProcess process_;
  TemporaryDirectory folder_;
  platform::TransferDirectory directory_ = *platform::TransferDirectory::open(folder_.path() + "/transfer");
};

TEST_F(TransferService, AStartInTheBackgroundAnswersAndASecondOneFindsIt) {
  EXPECT_EQ(status(), "not running, in " + directory_.path() + "\nexited with 3");
  EXPECT_EQ(start({"--background"})->waitForEnd(), "exited with 0");
  const auto process = transfer::answeringService(directory_);
  ASSERT_TRUE(process);
  const std::string number = std::to_string(*process);
  EXPECT_EQ(status(), "running, as process " + number + ", in " + directory_.path() + "\nexited with 0");
  EXPECT_EQ(start({"--background"})->waitForEnd(), "exited with 0");
  EXPECT_EQ(transfer::answeringService(directory_), process);
  auto second = start();
  EXPECT_EQ(second->waitForEnd(), "exited with 0");
  EXPECT_EQ(second->output(), "kestrova-transferd runs already, as process " + number + "\n");
  ASSERT_EQ(kill(*process, SIGTERM), 0);
  EXPECT_TRUE(serviceEnds(directory_));
}

TEST_F(TransferService, ManyStartsAtOnceMakeOneService) {
  std::vector<std::unique_ptr<Program>> programs;
  for (int i = 0; i < 8; ++i) programs.push_back(start({"--background"}));
  for (const auto& program : programs) EXPECT_EQ(program->waitForEnd(), "exited with 0") << program->errors();
  const auto process = transfer::answeringService(directory_);
  ASSERT_TRUE(process);
  ASSERT_EQ(kill(*process, SIGKILL), 0);
  EXPECT_TRUE(transfer::takeLock(directory_)->isOpen()) << "another one was there";
}

// Whoever had started it waited half a minute for an answer of a service that was dead, and the application with it.
TEST_F(TransferService, AStartOfOneThatDiesBeforeItListensFailsAtOnce) {
  handOver("https://localhost/gifs", fileOf("GIF89a"), 1);
  const auto starter = start({"--background"}, {{"KESTROVA_TRANSFERD_DIE_AT", "imported"}});
  EXPECT_EQ(starter->waitForEnd(), "exited with 1");
  EXPECT_EQ(starter->errors(), "kestrova-transferd: the service ended before it listened\n");
  EXPECT_FALSE(transfer::answeringService(directory_));
}

TEST_F(TransferService, ALockThatCannotBeTakenIsToldToWhoeverStartsIt) {
  fs::create_directory(directory_.lock());
  const std::string reason = "kestrova-transferd: The lock “" + directory_.lock() + "” cannot be taken: Is a directory.\n";
  for (const bool isInBackground : {false, true}) {
    const auto starter = start(isInBackground ? std::vector<std::string>{"--background"} : std::vector<std::string>{});
    EXPECT_EQ(starter->waitForEnd(), "exited with 1");
    EXPECT_EQ(starter->errors(), reason);
  }
}

TEST_F(TransferService, ItEndsWhenIdleAndOnATermSignal) {
  auto idle = start({"--idle-seconds", "0.2"});
  EXPECT_EQ(idle->waitForEnd(), "exited with 0");
  EXPECT_FALSE(fs::exists(directory_.socket()));
  auto told = start();
  ASSERT_TRUE(transfer::waitForService(directory_));
  told->signal(SIGTERM);
  EXPECT_EQ(told->waitForEnd(), "exited with 0");
}

TEST_F(TransferService, AnUploadGoesOnAfterAKillInTheMiddle) {
  TlsTestServer server(TlsTestServer::answering(TlsTestServer::Answer{}));
  std::string body(5'000'000, '\0');
  for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>((i * 2654435761U) >> 13);
  handOver(server.url("/gifs"), fileOf(body), 1);
  for (const std::string step : {"imported", "spool-removed", "left-spool", "began", "body-half"}) {
    auto service = start({}, {{"KESTROVA_TRANSFERD_DIE_AT", step}});
    EXPECT_EQ(service->waitForEnd(), "killed by signal 9") << step;
  }
  auto service = start();
  ASSERT_TRUE(server.waitForRequests(1));
  ASSERT_TRUE(transfer::waitForService(directory_));
  service->signal(SIGTERM);
  EXPECT_EQ(service->waitForEnd(), "exited with 0");
  ASSERT_EQ(server.requests().size(), 1U);
  EXPECT_TRUE(server.requests()[0].body == body);
  EXPECT_TRUE(std::ranges::none_of(fs::directory_iterator(directory_.spool()),
                                   [](const fs::directory_entry& entry) { return entry.path().extension() == ".task"; }));
}

TEST_F(TransferService, ATaskThatIsPutThereWhileItRunsIsTakenWithoutAWakeUp) {
  TlsTestServer server(TlsTestServer::answering(TlsTestServer::Answer{}));
  auto service = start();
  ASSERT_TRUE(transfer::waitForService(directory_));
  handOver(server.url("/gifs"), fileOf("GIF89a"), 1);
  EXPECT_TRUE(server.waitForRequests(1, std::chrono::seconds(20)));
}

TEST_F(TransferService, AWrongCommandLineIsToldInOneSentenceWithTheWayToHelp) {
  struct Case {
    std::vector<std::string> arguments;
    std::string sentence;
  };
  for (const Case& wrong : std::vector<Case>{
           {{"--max-uploads", "0"}, "--max-uploads: \"0\" is no whole number from 1 to 1000"},
           {{"--idle-seconds", "long"}, "--idle-seconds: \"long\" is no number from 0 to 1000000000"},
           {{"--directory", "here"}, "--directory: \"here\" is no absolute path"},
           {{"--bckground"}, "there is no option --bckground; did you mean \"--background\"?"},
           {{"now"}, "\"now\" is one word too many for kestrova-transferd"},
       }) {
    Program program(binary("kestrova-transferd"), wrong.arguments);
    EXPECT_EQ(program.waitForEnd(), "exited with 2");
    EXPECT_EQ(program.errors(),
              "kestrova-transferd: " + wrong.sentence + "\nRun `kestrova-transferd --help` to see what it takes.\n");
  }
}

TEST_F(TransferService, AFolderThatOthersCanWriteToIsRefused) {
  fs::permissions(directory_.path(), fs::perms::others_write, fs::perm_options::add);
  auto service = start();
  EXPECT_EQ(service->waitForEnd(), "exited with 1");
  EXPECT_EQ(service->errors(),
            "kestrova-transferd: The folder “" + directory_.path() + "” cannot be used: other users can write to it.\n");
}

}  // namespace
}  // namespace test

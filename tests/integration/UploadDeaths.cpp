// Uploads over real processes that are killed: the application, the transfer service, or both, at every step and at random.
//
// What holds in all cases: an upload that the client has taken is never lost, the server holds the GIF as it was given, its outcome
// is seen once, or again when the application died between the start of the delegate operation and the record of its end, and after
// a success nothing is left behind.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/TransferInspection.h"
#include "support/DevServer.h"
#include "support/Event.h"
#include "support/Files.h"
#include "support/ForkedChild.h"
#include "support/Program.h"
#include "support/TemporaryDirectory.h"
#include "support/TestProcess.h"
#include "support/UploadingApplication.h"

// In place of the C library's, so that the application can die before and after a task comes into the spool folder.
extern "C" int rename(const char* from, const char* to) {
  const bool isTask = std::string_view(to).ends_with(".task");
  if (isTask) test::reachStep("before-rename");
  const auto result = static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
  if (isTask) test::reachStep("renamed");
  return result;
}

namespace {

namespace fs = std::filesystem;
using platform::Dictionary;
using test::ApplicationPlace;
using test::ApplicationRecord;
using test::becomes;
using test::contentOf;
using test::DevServer;
using test::gifOf;
using test::Program;
using ::testing::IsEmpty;

using Clock = std::chrono::steady_clock;

std::vector<std::string> namesIn(const fs::path& folder) {
  std::vector<std::string> names;
  std::error_code missing;
  for (const auto& entry : fs::directory_iterator(folder, missing)) names.push_back(entry.path().filename().string());
  return names;
}

/// Who is killed at a step.
enum class Victim { kOne, kBoth };

class UploadDeaths : public testing::Test {
 protected:
  static constexpr std::size_t kGifBytes = 400'000;
  static constexpr const char* kSlowly = "1500000";  // bytes a second: time to kill somebody while a GIF is sent

  UploadDeaths() {
    std::ofstream(place.alive()).close(), std::ofstream(place.working()).close();
    letServiceBeStarted();
  }
  ~UploadDeaths() override { endEverybody(); }
  void endEverybody() {
    fs::remove(place.alive());  // no further application comes to life, and none starts a service
    fs::remove(place.serviceProgram());
    const auto areGone = [&] {
      const pid_t service = killService();
      return killApplications() == 0 && service == 0;
    };
    EXPECT_TRUE(becomes(areGone, Clock::now() + test::kLimit)) << "somebody outlives the test\n" << situation();
    server.reset();
  }

  // Waiting. All waits of a test end by one limit.

  testing::AssertionResult comes(const std::string& what, const std::function<bool()>& condition) const {
    if (becomes(condition, limit)) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "still waiting for " << what << " at the limit\n" << situation();
  }
  /// For whoever reads of a failure.
  std::string situation() const {
    std::ostringstream text;
    const auto now = Clock::now().time_since_epoch() / std::chrono::milliseconds(1);
    text << "now: " << now << ", service: " << place.service() << ", working: " << ApplicationPlace::holderOf(place.working())
         << ", alive: " << ApplicationPlace::holderOf(place.alive()) << ", tasks in the spool: " << spool().size() << "\n"
         << sessionsOfService() << "log:\n"
         << contentOf(place.log());
    return text.str();
  }
  std::string sessionsOfService() const {
    if (place.service() == 0 || !server) return "";
    std::ostringstream text;
    platform::TransferInspection look(place.options(server->host()));
    const auto sessions = look.sessions();
    if (!sessions) return sessions.error().localizedDescription() + "\n";
    for (const auto& session : sessions->value_or(platform::TransferInspection::Sessions()))
      for (const transfer::TaskStatus& task : session.tasks) {
        text << session.identifier << " " << task.identifier << ": state " << static_cast<int>(task.state) << ", tries "
             << task.tries << ", sent " << task.bytesSent << " of " << task.bytesExpected;
        if (task.nextTryAt) text << ", next try in " << *task.nextTryAt - static_cast<double>(std::time(nullptr)) << " s";
        if (task.error) text << ", " << task.error->localizedDescription();
        text << "\n";
      }
    return text.str();
  }

  // The actors.

  void serve(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.end(), {"--gifs", gifs().string()});
    server = std::make_unique<DevServer>(arguments);
    ASSERT_EQ(server->fault(), "");
  }
  fs::path gifs() const { return place.root + "/gifs"; }

  std::unique_ptr<Program> startService(const std::string& dieAt = "") const {
    Program::Variables variables;
    if (!dieAt.empty()) variables.emplace_back("KESTROVA_TRANSFERD_DIE_AT", dieAt);
    auto program = std::make_unique<Program>(test::binary("kestrova-transferd"),
                                             std::vector<std::string>{"--directory", place.transfers()}, variables);
    const pid_t process = program->process();
    EXPECT_TRUE(comes("the service's start", [&] { return place.service() != 0 || hasEnded(process); })) << program->errors();
    return program;
  }
  /// A child that has ended; whoever waits for it later still can.
  static bool hasEnded(pid_t child) {
    siginfo_t end{};
    return waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOHANG | WNOWAIT) == 0 && end.si_pid == child;
  }
  /// Whether applications can start a service when they find none.
  void letServiceBeStarted() const { fs::create_symlink(test::binary("kestrova-transferd"), place.serviceProgram()); }
  void letNoServiceBeStarted() const { fs::remove(place.serviceProgram()); }
  std::unique_ptr<Program> startApplication(const std::string& authority = "") const {
    std::vector<std::string> command = place.command(server->host());
    const std::string path = command.front();
    command.erase(command.begin());
    return std::make_unique<Program>(
        path, command, Program::Variables{{"SSL_CERT_FILE", authority.empty() ? server->authorityFile() : authority}});
  }
  /// Puts the host's GIF where it is and gives the command.
  void giveUpload(Program& application, const std::string& share, const std::string& gif) {
    given[share] = gif;
    std::ofstream(hostFile(share), std::ios::binary) << gif;
    commandUpload(application, share);
  }
  void commandUpload(Program& application, const std::string& share) const {
    (void)application.write("upload " + hostFile(share) + " " + share + "\n");
  }
  void upload(Program& application, const std::string& share = "cat") {
    giveUpload(application, share, gifOf(kGifBytes, 1));
    ASSERT_TRUE(application.waitForLine("uploaded " + share)) << application.errors();
  }
  std::string hostFile(const std::string& share) const { return place.root + "/" + share + ".gif"; }

  pid_t killService() const {
    const pid_t service = place.service();
    if (service > 0) (void)kill(service, SIGKILL);
    return service;
  }
  /// All of them, also those that wait for their turn.
  pid_t killApplications() {
    const pid_t application = ApplicationPlace::holderOf(place.alive());
    if (application > 0) killed.insert(application), (void)kill(application, SIGKILL);
    return application;
  }
  testing::AssertionResult endApplications() {
    return comes("the applications' end", [&] { return killApplications() == 0; });
  }
  void dieAt(const std::string& step, Victim victim) const {
    std::ofstream(place.death()) << step << (victim == Victim::kBoth ? " both" : "");
  }
  /// Waits until an application has died at its step.
  testing::AssertionResult waitForDeath() const {
    return comes("a death at the step", [&] { return countOf([](const auto& record) { return record.word == "dies"; }) > 0; });
  }

  // What came of it.

  std::size_t countOf(const std::function<bool(const ApplicationRecord&)>& condition) const {
    return static_cast<std::size_t>(std::ranges::count_if(test::readLog(place), condition));
  }
  std::size_t outcomes(const std::string& session = "") const {
    return countOf([&](const auto& record) { return record.isOutcome() && (session.empty() || record.session == session); });
  }
  testing::AssertionResult waitForOutcomes(std::size_t count) const {
    return comes(std::to_string(count) + " outcomes", [&] { return outcomes() >= count; });
  }
  /// Until the server has some of a GIF, and not all.
  testing::AssertionResult waitForPart() const {
    return comes("the first bytes of a GIF", [&] {
      for (const auto& entry : fs::directory_iterator(gifs())) {
        std::error_code gone;
        const auto size = entry.file_size(gone);
        if (!gone && entry.path().extension() == ".part" && size > 0) return true;
      }
      return false;
    });
  }
  /// Each GIF that the server has taken, by its share.
  std::multimap<std::string, std::string> taken() const {
    std::multimap<std::string, std::string> all;
    for (const Dictionary& entry : server->requests()) {
      if (entry.objectForKey("taken") != platform::Value(true)) continue;
      all.emplace(entry.objectForKey("shareId")->description(), entry.objectForKey("file")->description());
    }
    return all;
  }
  std::vector<std::string> spool() const {
    std::vector<std::string> names = namesIn(place.transfers() + "/spool");
    std::erase_if(names, [](const std::string& name) { return !name.ends_with(".task"); });
    return names;
  }
  /// Waits until no application lives and the service has forgotten every session.
  testing::AssertionResult waitForRest() const {
    return comes("rest", [&] {
      if (ApplicationPlace::holderOf(place.alive()) != 0) return false;
      platform::TransferInspection look(place.options(server->host()));
      const auto sessions = look.sessionsOfStartedService();
      return sessions && sessions->empty() && spool().empty();
    });
  }
  void expectTakenOnce(const std::string& share = "cat") const {
    const auto all = taken();
    ASSERT_EQ(all.count(share), 1U) << share;
    EXPECT_TRUE(contentOf(gifs() / all.find(share)->second) == given.at(share)) << share;
  }
  void expectNothingLeft() const {
    EXPECT_THAT(namesIn(place.uploads()), IsEmpty());
    EXPECT_THAT(spool(), IsEmpty());
    EXPECT_THAT(namesIn(place.transfers() + "/spool/refused"), IsEmpty());
  }
  /// Whoever saw an outcome that was seen again was killed, and had not heard that its record was made.
  void expectEachSecondSightExplained() const {
    const auto records = test::readLog(place);
    std::set<pid_t> dead = killed;
    for (const auto& record : records)
      if (record.word == "dies") dead.insert(record.process);
    std::map<std::string, ApplicationRecord> sights;  // the last so far
    std::set<std::pair<pid_t, std::string>> recorded;
    for (const auto& record : records) {
      if (record.word == "finished") recorded.emplace(record.process, record.session);
      if (!record.isOutcome()) continue;
      const auto [sight, isFirst] = sights.try_emplace(record.session, record);
      if (isFirst) continue;
      const ApplicationRecord before = std::exchange(sight->second, record);
      EXPECT_TRUE(dead.contains(before.process)) << record.session << " was seen again, by a process that was not killed";
      EXPECT_NE(before.process, record.process) << record.session;
      EXPECT_EQ(before.detail, record.detail) << record.session << ": another task";
      EXPECT_FALSE(recorded.contains({before.process, record.session})) << record.session << " was recorded and seen again";
    }
  }

  Clock::time_point limit = Clock::now() + test::kLimit;
  test::TestProcess process_;
  test::TemporaryDirectory folder;
  ApplicationPlace place{folder.path()};
  std::unique_ptr<DevServer> server;
  std::map<std::string, std::string> given;  // GIFs by their share
  std::set<pid_t> killed;                    // applications, by this test
};

TEST_F(UploadDeaths, NobodyDies) {
  serve();
  const auto application = startApplication();
  upload(*application);
  EXPECT_FALSE(fs::exists(hostFile("cat")));
  ASSERT_TRUE(waitForOutcomes(1));
  application->closeInput();
  EXPECT_EQ(application->waitForEnd(), "exited with 0");
  ASSERT_TRUE(waitForRest());
  EXPECT_EQ(outcomes(), 1U);
  expectTakenOnce();
  expectNothingLeft();
}

// The steps of the service.

struct Step {
  std::string name;
  Victim victim;
};

std::ostream& operator<<(std::ostream& out, const Step& step) {
  return out << step.name << (step.victim == Victim::kBoth ? ", both" : ", the service");
}

std::string nameOf(const std::string& step, Victim victim) {
  std::string name = victim == Victim::kBoth ? "Both" : "";
  for (bool begins = true; const char letter : step) {
    if (letter != '-') name += begins ? static_cast<char>(std::toupper(letter)) : letter;
    begins = letter == '-';
  }
  return name;
}

/// What the manual says that the service can be made to die at.
std::vector<std::string> documentedSteps() {
  std::string manual = contentOf(KESTROVA_SOURCE_DIR "/docs/transfer-service.md");
  manual = manual.substr(std::min(manual.find("KESTROVA_TRANSFERD_DIE_AT=step"), manual.size()));
  manual = manual.substr(0, manual.find(".\n"));
  manual = manual.substr(std::min(manual.find(": "), manual.size()));
  const std::regex quoted("`([a-z-]+)`");
  std::vector<std::string> steps;
  for (std::sregex_iterator each(manual.begin(), manual.end(), quoted), end; each != end; ++each) steps.push_back((*each)[1]);
  return steps;
}

std::vector<Step> allSteps() {
  std::vector<Step> steps;
  for (const std::string& name : documentedSteps())
    for (const Victim victim : {Victim::kOne, Victim::kBoth}) steps.push_back({name, victim});
  return steps;
}

TEST(UploadDeathSteps, TheManualHasEveryStepOfTheService) {
  std::set<std::string> steps;
  const std::regex call("(?:step|stepHook)\\(\"([a-z-]+)\"\\)");
  for (const auto& entry : fs::recursive_directory_iterator(KESTROVA_SOURCE_DIR "/src/transfer")) {
    const std::string text = entry.is_regular_file() ? contentOf(entry.path()) : "";
    for (std::sregex_iterator each(text.begin(), text.end(), call), end; each != end; ++each) steps.insert((*each)[1]);
  }
  EXPECT_GE(steps.size(), 16U);
  EXPECT_THAT(documentedSteps(), testing::UnorderedElementsAreArray(steps));
}

class UploadServiceDeaths : public UploadDeaths, public testing::WithParamInterface<Step> {
 protected:
  /// How an upload comes to a step.
  enum class Way { kStays, kTriedAgain, kRefused, kLeaves, kLaunched, kLaunchFails };

  static std::optional<Way> wayTo(const std::string& step) {
    static const std::map<std::string, Way> kWays{{"imported", Way::kStays},
                                                  {"spool-removed", Way::kStays},
                                                  {"left-spool", Way::kStays},
                                                  {"began", Way::kStays},
                                                  {"body-half", Way::kStays},
                                                  {"try-ended", Way::kStays},
                                                  {"ended", Way::kStays},
                                                  {"event-sent", Way::kStays},
                                                  {"handed", Way::kStays},
                                                  {"try-failed", Way::kTriedAgain},
                                                  {"invalidated", Way::kRefused},
                                                  {"forgotten", Way::kLeaves},
                                                  {"launch-recorded", Way::kLaunched},
                                                  {"launched", Way::kLaunched},
                                                  {"delivered", Way::kLaunched},
                                                  {"launch-failed", Way::kLaunchFails}};
    const auto found = kWays.find(step);
    return found == kWays.end() ? std::nullopt : std::optional(found->second);
  }

  /// The application uploads, and is there or not, until the service dies.
  void comeToTheStep(Way way) {
    const bool isLaunched = way == Way::kLaunched || way == Way::kLaunchFails;
    if (isLaunched) {
      serve({"--read-rate", kSlowly});
    } else {
      serve(way == Way::kTriedAgain ? std::vector<std::string>{"--drop", "1"} : std::vector<std::string>());
    }
    if (way == Way::kRefused) another = std::make_unique<DevServer>();
    if (way == Way::kLaunchFails) dieAt("launched", Victim::kOne);
    service = startService(GetParam().name);
    // Else an application that is still there starts the next one at once, and goes on.
    if (GetParam().victim == Victim::kBoth) letNoServiceBeStarted();
    application = startApplication(another ? another->authorityFile() : "");
    upload(*application);
    if (isLaunched) {
      ASSERT_TRUE(waitForPart());
      ASSERT_TRUE(endApplications());
    }
    if (way == Way::kLeaves) {
      ASSERT_TRUE(waitForOutcomes(1));
      application->closeInput();
    }
    EXPECT_EQ(service->waitForEnd(), "killed by signal 9");
  }
  void goOn(Way way) {
    const bool isThere = way == Way::kStays || way == Way::kTriedAgain || way == Way::kRefused;
    // Instead of being launched after the wait for the launch that failed.
    const bool comesByItself = GetParam().victim == Victim::kBoth && (way == Way::kLaunched || way == Way::kLaunchFails);
    if (GetParam().victim == Victim::kBoth) {
      ASSERT_TRUE(endApplications());
      letServiceBeStarted();
    }
    // An application that is there starts the service when it sees that it has gone.
    std::unique_ptr<Program> next;
    if (GetParam().victim == Victim::kBoth || !isThere) next = startService();
    if (comesByItself) application = startApplication();
    ASSERT_TRUE(waitForOutcomes(1));
    application->closeInput();
    if (comesByItself || (GetParam().victim == Victim::kOne && isThere)) {
      EXPECT_EQ(application->waitForEnd(), "exited with 0");
    }
    ASSERT_TRUE(waitForRest());
  }

  std::unique_ptr<DevServer> another;
  std::unique_ptr<Program> service;
  std::unique_ptr<Program> application;
};

TEST_P(UploadServiceDeaths, TheUploadEndsOnce) {
  const auto way = wayTo(GetParam().name);
  ASSERT_TRUE(way) << "nothing here leads to the step " << GetParam().name;
  ASSERT_NO_FATAL_FAILURE(comeToTheStep(*way));
  ASSERT_NO_FATAL_FAILURE(goOn(*way));
  RecordProperty("kills", GetParam().victim == Victim::kBoth ? 2 : 1);
  expectEachSecondSightExplained();
  // Where the application is killed with the service while it has an event that is not recorded, its outcome may be seen again. The
  // session of a failed upload is invalidated from within the delegate operation, so before that is recorded.
  const bool mayBeSeenAgain =
      GetParam().victim == Victim::kBoth && (GetParam().name == "event-sent" || GetParam().name == "invalidated");
  EXPECT_GE(outcomes(), 1U);
  EXPECT_LE(outcomes(), mayBeSeenAgain ? 2U : 1U);
  if (*way == Way::kRefused) {
    EXPECT_EQ(countOf([](const auto& record) { return record.word == "completed"; }), 0U);
    EXPECT_THAT(taken(), IsEmpty());
    EXPECT_EQ(namesIn(place.uploads()).size(), 1U);  // until the sweep
  } else {
    expectTakenOnce();
    expectNothingLeft();
  }
}

INSTANTIATE_TEST_SUITE_P(Steps, UploadServiceDeaths, testing::ValuesIn(allSteps()),
                         [](const auto& each) { return nameOf(each.param.name, each.param.victim); });

// The steps of the application.

struct ApplicationStep {
  std::string name;
  std::size_t sights;  // of the outcome
  Victim victim = Victim::kOne;
};

std::ostream& operator<<(std::ostream& out, const ApplicationStep& step) {
  return out << step.name << (step.victim == Victim::kBoth ? ", both" : ", the application") << ", outcomes: " << step.sights;
}

std::vector<ApplicationStep> allApplicationSteps() {
  std::vector<ApplicationStep> steps;
  for (const auto& [name, sights] : {std::pair("renamed", 1U),
                                     {"resumed", 1U},
                                     {"sending", 1U},
                                     {"launched", 1U},
                                     {"operation-begins", 1U},
                                     {"operation-returned", 2U},
                                     {"finished", 1U}})
    for (const Victim victim : {Victim::kOne, Victim::kBoth}) steps.push_back({name, sights, victim});
  return steps;
}

class UploadApplicationDeaths : public UploadDeaths, public testing::WithParamInterface<ApplicationStep> {};

TEST_P(UploadApplicationDeaths, TheOutcomeIsSeenAgainOnlyBetweenTheOperationAndItsRecord) {
  const auto& [step, sights, victim] = GetParam();
  serve({"--read-rate", kSlowly});
  auto service = startService();
  if (victim == Victim::kBoth) letNoServiceBeStarted();
  if (step != "sending") dieAt(step, victim);
  auto application = startApplication();
  giveUpload(*application, "cat", gifOf(kGifBytes, 1));
  if (step == "sending" || step == "launched" || step == "finished") {
    ASSERT_TRUE(waitForPart());
    if (step == "sending" && victim == Victim::kBoth) killService();
    ASSERT_TRUE(endApplications());
  }
  if (step != "sending") {
    ASSERT_TRUE(waitForDeath());
  }
  if (victim == Victim::kBoth) {
    EXPECT_EQ(service->waitForEnd(), "killed by signal 9");
    letServiceBeStarted();
    service = startService();
    if (step == "launched") application = startApplication();  // before it is launched once more, after a wait
  }
  ASSERT_TRUE(waitForOutcomes(sights));
  application->closeInput();
  ASSERT_TRUE(waitForRest());
  RecordProperty("kills", (step == "sending" ? 0 : 1) + (victim == Victim::kBoth ? 1 : 0));
  EXPECT_EQ(outcomes(), sights);
  expectEachSecondSightExplained();
  expectTakenOnce();
  expectNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(Steps, UploadApplicationDeaths, testing::ValuesIn(allApplicationSteps()),
                         [](const auto& each) { return nameOf(each.param.name, each.param.victim); });

// Nothing was promised yet: the host still has its file, and uploads it anew.
TEST_F(UploadDeaths, AnApplicationThatDiesBeforeTheTaskIsInTheSpoolHasUploadedNothing) {
  for (const Victim victim : {Victim::kOne, Victim::kBoth}) {
    serve();
    const auto service = startService();
    dieAt("before-rename", victim);
    const auto application = startApplication();
    giveUpload(*application, "cat", gifOf(kGifBytes, 1));
    EXPECT_EQ(application->waitForEnd(), "killed by signal 9");
    if (victim == Victim::kBoth) {
      EXPECT_EQ(service->waitForEnd(), "killed by signal 9");
    }
    ASSERT_TRUE(waitForRest());
    EXPECT_EQ(outcomes(), 0U);
    EXPECT_THAT(taken(), IsEmpty());
    EXPECT_TRUE(contentOf(hostFile("cat")) == given.at("cat"));
    killService();
  }
  const auto left = namesIn(place.uploads());
  EXPECT_EQ(left.size(), 2U);  // until the sweep
  const auto application = startApplication();
  upload(*application);
  ASSERT_TRUE(waitForOutcomes(1));
  application->closeInput();
  EXPECT_EQ(application->waitForEnd(), "exited with 0");
  ASSERT_TRUE(waitForRest());
  EXPECT_EQ(outcomes(), 1U);
  expectTakenOnce();
  EXPECT_EQ(namesIn(place.uploads()).size(), 2U);
}

// At random.

class UploadDeathsAtRandom : public UploadDeaths {
 protected:
  static constexpr std::size_t kKills = 105;
  static constexpr std::size_t kGifsAtOnce = 8;
  static constexpr const char* kSeedVariable = "KESTROVA_DEATHS_SEED";

  UploadDeathsAtRandom() {
    limit = Clock::now() + std::chrono::seconds(110);
    if (const char* text = std::getenv(kSeedVariable)) seed = static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
    random.seed(seed);
  }

  std::uint32_t draw(std::uint32_t below) { return random() % below; }

  /// 'T' of a process that stands still, 'Z' of one that has ended, 0 when there is none.
  static char stateOf(pid_t process) {
    const std::string status = contentOf("/proc/" + std::to_string(process) + "/stat");
    const std::size_t nameEnd = status.rfind(')');
    return nameEnd == std::string::npos ? '\0' : status[nameEnd + 2];
  }
  static bool isDead(pid_t process) {
    const char state = stateOf(process);
    return state == '\0' || state == 'Z' || state == 'X';
  }

  /// Kills all that live of those given, at one moment. What stands still has not ended, so it is this kill that it dies of.
  void killLiving(const std::vector<pid_t>& victims) {
    std::vector<pid_t> still;
    for (const pid_t victim : victims) {
      if (victim <= 0 || kill(victim, SIGSTOP) != 0) continue;
      ASSERT_TRUE(comes("a standstill", [&] { return stateOf(victim) == 'T' || isDead(victim); }));
      if (!isDead(victim)) still.push_back(victim);
    }
    for (const pid_t victim : still) ASSERT_EQ(kill(victim, SIGKILL), 0);
    for (const pid_t victim : still) {
      ASSERT_TRUE(comes("an end", [&] { return isDead(victim); }));
      ++hits;
    }
  }

  /// The one that works, or else one that waits for its turn.
  pid_t anApplication() const {
    const pid_t working = ApplicationPlace::holderOf(place.working());
    return working > 0 ? working : ApplicationPlace::holderOf(place.alive());
  }
  void killSomebody() {
    enum { kService, kApplication, kBoth, kCount };
    const std::uint32_t who = draw(kCount);
    const pid_t running = who == kApplication ? 0 : place.service();
    const pid_t host = who == kService && running > 0 ? 0 : anApplication();
    if (host > 0) killed.insert(host);
    killLiving({running, host});
  }

  bool isThere() const { return application && !isDead(application->process()); }
  bool isAccepted(const std::string& share) const {
    return countOf([&](const auto& record) { return record.word == "accepted" && record.detail == share; }) > 0;
  }
  /// A host that comes back gives anew what it was not told to be accepted: its file is still there. It is not written again, as an
  /// upload that was accepted without a word of it has the same file, and may be reading it.
  void comeBack() {
    application = startApplication();
    for (const auto& [share, gif] : given)
      if (!isAccepted(share)) commandUpload(*application, share);
  }
  std::size_t acceptedUploads() const {
    return countOf([](const auto& record) { return record.word == "accepted"; });
  }
  std::set<std::string> sessionsWithOutcome() const {
    std::set<std::string> sessions;
    for (const auto& record : test::readLog(place))
      if (record.isOutcome()) sessions.insert(record.session);
    return sessions;
  }
  void giveMore() {
    if (given.size() >= sessionsWithOutcome().size() + kGifsAtOnce) return;
    for (std::uint32_t count = draw(3); count > 0; --count) {
      const auto number = static_cast<std::uint32_t>(given.size() + 1);
      giveUpload(*application, "share" + std::to_string(number), gifOf(20'000 + draw(40'000), number));
    }
  }
  void goThroughDeaths() {
    while (hits < kKills) {
      // Now and then nobody comes back, and the service launches the application when it has something to tell.
      if (!isThere() && (draw(3) != 0 || place.service() == 0)) comeBack();
      if (isThere()) giveMore();
      (void)poll(nullptr, 0, static_cast<int>(draw(180)));  // the moment is what is random
      ASSERT_NO_FATAL_FAILURE(killSomebody());
    }
  }
  void goOnInPeace() {
    if (!isThere()) comeBack();
    ASSERT_TRUE(comes("the last upload to be accepted",
                      [&] { return std::ranges::all_of(given, [&](const auto& upload) { return isAccepted(upload.first); }); }));
    ASSERT_TRUE(comes("the last outcome", [&] { return isAnOutcomeThereForAll(); }));
    application->closeInput();
    EXPECT_EQ(application->waitForEnd(), "exited with 0");
    ASSERT_TRUE(waitForRest());
  }
  bool isAnOutcomeThereForAll() const {
    const std::set<std::string> ended = sessionsWithOutcome();
    return countOf([&](const auto& record) { return record.word == "accepted" && !ended.contains(record.session); }) == 0;
  }

  /// One GIF of each upload that came into the spool: those of which the host knows, and those that it gave again for want of word.
  void expectEveryGif() const {
    const std::set<std::string> ended = sessionsWithOutcome();
    std::map<std::string, std::size_t> uploads;
    for (const auto& record : test::readLog(place))
      if (record.word == "starting" && ended.contains(record.session)) ++uploads[record.detail];
    const auto all = taken();
    for (const auto& [share, gif] : given) {
      EXPECT_EQ(all.count(share), uploads[share]) << share;
      EXPECT_GE(all.count(share), 1U) << share;
    }
    for (const auto& [share, file] : all) {
      const std::string content = contentOf(gifs() / file);
      EXPECT_TRUE(content == given.at(share))
          << share << " in " << file << ", " << content.size() << " bytes of " << given.at(share).size();
    }
    EXPECT_EQ(countOf([](const auto& record) { return record.word == "failed"; }), 0U);
  }
  /// What is left is of uploads that were killed before their task was in the spool.
  void expectNoFileLeft() const {
    const std::set<std::string> ended = sessionsWithOutcome();
    const std::vector<std::string> left = namesIn(place.uploads());
    for (const std::string& session : left) {
      EXPECT_FALSE(ended.contains(session)) << session << " is left after its outcome";
      EXPECT_EQ(countOf([&](const auto& record) { return record.word == "accepted" && record.session == session; }), 0U) << session;
    }
    EXPECT_LE(left.size(), killed.size());
    EXPECT_THAT(spool(), IsEmpty());
    EXPECT_THAT(namesIn(place.transfers() + "/spool/refused"), IsEmpty());
  }
  void recordFigures() const {
    const auto record = [](const std::string& name, std::size_t value) {
      RecordProperty(name, std::to_string(value));
      std::cout << name << ": " << value << "\n";
    };
    record("kills", hits);
    record("uploads", acceptedUploads());
    record("outcomesSeenAgain", outcomes() - sessionsWithOutcome().size());
    record("filesOfUploadsThatNeverBegan", namesIn(place.uploads()).size());
  }

  std::uint32_t seed = 20261121;
  std::mt19937 random{seed};
  std::size_t hits = 0;
  std::unique_ptr<Program> application;
};

TEST_F(UploadDeathsAtRandom, NoUploadIsLost) {
  std::cout << kSeedVariable << "=" << seed << "\n" << std::flush;
  RecordProperty("seed", std::to_string(seed));
  SCOPED_TRACE(std::string(kSeedVariable) + "=" + std::to_string(seed));
  serve({"--read-rate", "150000"});
  ASSERT_NO_FATAL_FAILURE(goThroughDeaths());
  ASSERT_NO_FATAL_FAILURE(goOnInPeace());
  recordFigures();
  EXPECT_GE(hits, 100U);
  EXPECT_GE(acceptedUploads(), 50U);
  expectEveryGif();
  expectNoFileLeft();
  expectEachSecondSightExplained();
}

// A disk that is full.

class UploadsOnAFullDisk : public UploadDeaths {
 protected:
  static constexpr const char* kNotWritten = "The transfer service could not write its store and tries again: ";

  /// In a process that alone sees the small volume: the service's folder with the store, without the spool folder.
  void onASmallVolume(const std::function<void()>& body) {
    const int status = test::runInChild([&] {
      ASSERT_NO_FATAL_FAILURE(mountVolumes());
      body();
      endEverybody();
    });
    EXPECT_EQ(status, 0);
  }
  void mountVolumes() const {
    ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "needs the right to mount a volume: " << std::strerror(errno);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << std::strerror(errno);
    fs::create_directory(place.transfers());
    ASSERT_EQ(mount("tmpfs", place.transfers().c_str(), "tmpfs", 0, "size=512k,mode=0700"), 0) << std::strerror(errno);
    const std::string spoolFolder = place.transfers() + "/spool";
    fs::create_directory(spoolFolder);
    ASSERT_EQ(mount("tmpfs", spoolFolder.c_str(), "tmpfs", 0, "size=1m,mode=0700"), 0) << std::strerror(errno);
  }
  void fillVolume() const {
    std::ofstream(filler()) << std::string(1'000'000, 'x');
    struct statvfs volume{};
    ASSERT_EQ(statvfs(place.transfers().c_str(), &volume), 0);
    ASSERT_EQ(volume.f_bfree, 0U);
  }
  void makeRoom() const { ASSERT_TRUE(fs::remove(filler())); }
  std::string filler() const { return place.transfers() + "/filler"; }

  /// Until the service has tried to write twice.
  testing::AssertionResult waitForFailures(const Program& service) const {
    return comes("two failed writes", [&] {
      const std::string errors = service.errors();
      const std::size_t first = errors.find(kNotWritten);
      return first != std::string::npos && errors.find(kNotWritten, first + 1) != std::string::npos;
    });
  }
  void expectWordsOf(const Program& service) const {
    const std::string line =
        std::string(kNotWritten) + "The transfer store “" + place.transfers() +
        "/store.sqlite” couldn’t be used because the volume is out of space; free some, the service goes on by "
        "itself. (database or disk is full)";
    std::istringstream errors(service.errors());
    for (std::string each; std::getline(errors, each);) EXPECT_EQ(each, line);
  }
  /// An upload that went well, so that the service knows the application, and they are connected.
  void uploadBefore(Program& application) {
    upload(application, "before");
    ASSERT_TRUE(waitForOutcomes(1));
  }
  void expectUploadsEnd(Program& application) {
    ASSERT_TRUE(waitForOutcomes(given.size()));
    application.closeInput();
    EXPECT_EQ(application.waitForEnd(), "exited with 0");
    ASSERT_TRUE(waitForRest());
    EXPECT_EQ(outcomes(), given.size());
    EXPECT_EQ(countOf([](const auto& record) { return record.word == "completed"; }), given.size());
    for (const auto& [share, gif] : given) expectTakenOnce(share);
    expectNothingLeft();
  }
};

TEST_F(UploadsOnAFullDisk, ATaskStaysInTheSpoolUntilItCanBeStored) {
  onASmallVolume([&] {
    serve();
    const auto service = startService();
    const auto application = startApplication();
    ASSERT_NO_FATAL_FAILURE(uploadBefore(*application));
    fillVolume();
    upload(*application);
    ASSERT_TRUE(waitForFailures(*service));
    EXPECT_EQ(place.service(), service->process());
    EXPECT_EQ(spool().size(), 1U);
    EXPECT_EQ(taken().size(), 1U);
    EXPECT_EQ(outcomes(), 1U);
    makeRoom();
    expectUploadsEnd(*application);
    EXPECT_EQ(place.service(), service->process());
    expectWordsOf(*service);
  });
}

TEST_F(UploadsOnAFullDisk, AnOutcomeIsToldOnceItCanBeStored) {
  onASmallVolume([&] {
    serve({"--read-rate", kSlowly});
    const auto service = startService();
    const auto application = startApplication();
    upload(*application);
    ASSERT_TRUE(waitForPart());
    fillVolume();
    ASSERT_TRUE(waitForFailures(*service));
    EXPECT_EQ(place.service(), service->process());
    expectTakenOnce();
    EXPECT_EQ(outcomes(), 0U);
    makeRoom();
    expectUploadsEnd(*application);
    EXPECT_EQ(place.service(), service->process());
    expectWordsOf(*service);
  });
}

TEST_F(UploadsOnAFullDisk, AServiceThatDiesThereGoesOnWhenThereIsRoom) {
  onASmallVolume([&] {
    serve();
    const auto service = startService();
    const auto application = startApplication();
    ASSERT_NO_FATAL_FAILURE(uploadBefore(*application));
    fillVolume();
    upload(*application);
    ASSERT_TRUE(waitForFailures(*service));
    service->signal(SIGKILL);
    EXPECT_EQ(service->waitForEnd(), "killed by signal 9");
    const Program next(test::binary("kestrova-transferd"), {"--directory", place.transfers()});
    ASSERT_TRUE(comes("the next service to be up or gone", [&] { return place.service() != 0 || hasEnded(next.process()); }));
    EXPECT_NE(place.service(), 0);
    EXPECT_EQ(spool().size(), 1U);
    EXPECT_EQ(outcomes(), 1U);
    makeRoom();
    expectUploadsEnd(*application);
    for (const std::string& name : namesIn(place.transfers())) EXPECT_EQ(name.find("corrupt"), std::string::npos) << name;
  });
}

}  // namespace

int main(int argc, char** argv) {
  if (const auto status = test::runUploadingApplication(argc, argv)) return *status;
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}

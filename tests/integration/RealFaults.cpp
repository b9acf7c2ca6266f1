// The real command while the machine fails: a system call that returns an error or kills the process, a file system that fills or
// that cannot be written, and a limit on the size of files.
//
// A run meets a queue of three records, reports three more, and reaches no server. Whatever fails, the queue file is one that the
// client may leave there, the command's report is true, and once server and machine are well the queue's records are delivered.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "support/CommandTest.h"
#include "support/DevServer.h"
#include "support/Files.h"
#include "support/ForkedChild.h"
#include "support/Program.h"

namespace test {
namespace {

namespace fs = std::filesystem;
using platform::Value;
using testing::AnyOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;

class RealFaults : public CommandTest {
 protected:
  static constexpr int kWaiting = 3;
  static constexpr int kReported = 3;

  std::string homeFolder() const { return home.path() + "/home"; }
  fs::path applicationFolder() const { return fs::path(homeFolder()) / DevServer::kAppId; }
  fs::path queueFile() const { return applicationFolder() / "application-support/event-queue.json"; }

  std::string events(int first, int count) {
    std::string lines;
    for (int n = first; n < first + count; ++n) lines += R"({"event": "gif-viewed", "data": {"n": )" + std::to_string(n) + "}}\n";
    return file("events-" + std::to_string(first), lines);
  }
  /// A home in which records 1 to 3 wait.
  void begin() {
    fs::remove_all(homeFolder());
    ASSERT_EQ(run({"--json", "events", events(1, kWaiting)}).end, "exited with 3");
    before_ = contentOf(queueFile());
    ASSERT_THAT(numbersIn(before_), ElementsAre(1, 2, 3));
  }

  /// The numbers of the records in a queue file; a line that is no record fails the test.
  static std::vector<int> numbersIn(const std::string& content) {
    EXPECT_TRUE(content.empty() || content.ends_with('\n')) << content;
    const auto json = platform::makeRapidJSONSerialization();
    std::vector<int> numbers;
    std::istringstream lines(content);
    for (std::string line; std::getline(lines, line);) {
      const auto record = json->read(platform::Data(line));
      EXPECT_TRUE(record && record->isObject()) << line;
      if (record && record->isObject()) numbers.push_back(record->objectForKey("eventData")->objectForKey("n")->intValue());
    }
    return numbers;
  }

  /// What a process may leave that was ended, or that a file failed, anywhere between reading the queue and writing it back: the
  /// queue as it was, emptied by the load, with the batch written back, or with the batch behind what the load could not take out.
  void expectALegalQueue() const {
    const std::string content = contentOf(queueFile());
    const std::vector<int> numbers = numbersIn(content);
    EXPECT_THAT(numbers, AnyOf(ElementsAre(1, 2, 3), IsEmpty(), ElementsAre(1, 2, 3, 4, 5, 6), ElementsAre(4, 5, 6),
                               ElementsAre(1, 2, 3, 1, 2, 3, 4, 5, 6), ElementsAre(1, 2, 3, 4, 5, 6, 4, 5, 6)));
    for (std::size_t at = 0; at + before_.size() <= content.size() && at < numbers.size(); ++at) {
      EXPECT_TRUE(numbers.at(at) != 1 || content.find(before_) != std::string::npos) << "a record was changed";
    }
  }
  /// What the command says that it kept is in the file, and what it says that it lost is not.
  void expectATrueReport(const Run& done) const {
    if (done.end != "exited with 3" && done.end != "exited with 4") {
      EXPECT_THAT(done.end, AnyOf("exited with 1", "exited with 2", "exited with 127", "killed by signal 9", "killed by signal 6"))
          << done.output << done.errors;
      EXPECT_TRUE(done.end == "killed by signal 9" || !done.errors.empty()) << "it says nothing";
      return;
    }
    if (done.output.empty()) return;  // the report itself is what could not be written
    const auto numbers = numbersIn(contentOf(queueFile()));
    EXPECT_EQ(done.number("kept"), numbers.size()) << done.output;
    const std::set<int> distinct(numbers.begin(), numbers.end());
    EXPECT_EQ(done.end == "exited with 4", done.number("lost") > 0) << done.output;
    EXPECT_LE(done.number("lost"), static_cast<std::uint64_t>(kWaiting + kReported) - distinct.size()) << done.output;
    EXPECT_TRUE(done.number("lost") == 0 || done.report.objectForKey("reasons")->count() > 0) << done.output;
  }
  /// On a machine that is well again all that waits is delivered, in order, and nothing else.
  void expectRecovery() {
    const auto numbers = numbersIn(contentOf(queueFile()));
    DevServer server;
    ASSERT_EQ(server.fault(), "");
    const Run done = run({"--json", "flush"}, &server);
    EXPECT_EQ(done.end, "exited with 0") << done.output << done.errors;
    std::vector<int> taken;
    for (const Value& record : server.takenRecords())
      taken.push_back(record.objectForKey("eventData")->objectForKey("n")->intValue());
    EXPECT_THAT(taken, ElementsAreArray(numbers));
    EXPECT_EQ(contentOf(queueFile()), "");
  }

  std::string before_;
};

// System calls.

/// A call of the command to its own files: the number that it has among the calls of that name in its thread, from 1.
struct Call {
  std::string name;
  int number = 0;
};

class FailedCalls : public RealFaults, public testing::WithParamInterface<std::tuple<const char*, const char*>> {
 protected:
  struct Traced {
    Run run;
    std::string calls;
  };

  /// The run under strace, with its options.
  Traced traced(const std::vector<std::string>& options) {
    const std::string log = home.path() + "/calls";
    std::vector<std::string> arguments{"-f", "-qq", "-y", "-a1", "-e", "signal=none", "-o", log};
    arguments.insert(arguments.end(), options.begin(), options.end());
    for (const std::string& word : {binary("kestrova"), std::string("--json"), std::string("events"), events(4, kReported)})
      arguments.push_back(word);
    Program::Variables all = variables(nullptr);
    all.emplace_back("ASAN_OPTIONS", "detect_leaks=0");  // the leak check is a tracer itself
    Program program("/usr/bin/strace", arguments, all);
    program.closeInput();
    return {finish(program), contentOf(log)};
  }
  /// The calls of this name that touch the application's folder, as a run without faults makes them.
  std::set<int> callsToOwnFiles(const std::string& name) {
    const Traced clean = traced({"-e", "trace=" + name});
    EXPECT_EQ(clean.run.end, "exited with 3") << clean.run.errors;
    std::set<int> numbers;
    std::map<std::string, int> counts;  // by thread
    std::istringstream lines(clean.calls);
    const std::regex call("^([0-9]+) +([a-z0-9_]+)\\(");
    std::smatch found;
    for (std::string line; std::getline(lines, line);) {
      if (!std::regex_search(line, found, call)) continue;
      const int number = ++counts[found[1]];
      if (line.find(applicationFolder().string()) != std::string::npos) numbers.insert(number);
    }
    return numbers;
  }
};

TEST_P(FailedCalls, LeaveAQueueAndATrueReport) {
  ASSERT_TRUE(canTrace());
  const auto& [name, fault] = GetParam();
  ASSERT_NO_FATAL_FAILURE(begin());
  const std::set<int> numbers = callsToOwnFiles(name);
  ASSERT_THAT(numbers, Not(IsEmpty())) << "the command makes no such call to its files";
  int injected = 0;
  for (const int number : numbers) {
    SCOPED_TRACE(std::string(name) + " number " + std::to_string(number));
    ASSERT_NO_FATAL_FAILURE(begin());
    const std::string what = std::string(name) + ":" + fault + ":when=" + std::to_string(number);
    const Traced done = traced({"-e", std::string("trace=") + name, "-e", "inject=" + what});
    const bool isKilled = done.run.end == "killed by signal 9";
    if (isKilled || done.calls.find("(INJECTED)") != std::string::npos) ++injected;
    expectALegalQueue();
    expectATrueReport(done.run);
    ASSERT_NO_FATAL_FAILURE(expectRecovery());
  }
  EXPECT_EQ(injected, static_cast<int>(numbers.size()));
  RecordProperty(std::string_view(fault) == "signal=SIGKILL" ? "kills" : "callsFailed", injected);
}

std::string nameOfCalls(const testing::TestParamInfo<FailedCalls::ParamType>& info) {
  std::string name = std::string(std::get<0>(info.param)) + "_" + std::get<1>(info.param);
  std::erase_if(name, [](char letter) { return std::isalnum(static_cast<unsigned char>(letter)) == 0 && letter != '_'; });
  return name;
}

INSTANTIATE_TEST_SUITE_P(Opening, FailedCalls,
                         testing::Combine(testing::Values("openat"),
                                          testing::Values("error=EIO", "error=EMFILE", "signal=SIGKILL")),
                         nameOfCalls);
INSTANTIATE_TEST_SUITE_P(Writing, FailedCalls,
                         testing::Combine(testing::Values("pwrite64"),
                                          testing::Values("error=ENOSPC", "error=EINTR", "signal=SIGKILL")),
                         nameOfCalls);
INSTANTIATE_TEST_SUITE_P(Replacing, FailedCalls,
                         testing::Combine(testing::Values("fsync", "rename"),
                                          testing::Values("error=EIO", "error=ENOSPC", "signal=SIGKILL")),
                         nameOfCalls);

// File systems.

/// In a child: a mount name space of its own, so that nothing that is mounted is seen elsewhere or stays.
void leaveMountNamespace() {
  ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "needs the right to mount: " << strerror(errno);
  ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << strerror(errno);
}
void mountMemory(const std::string& folder, const char* options, unsigned long flags = 0) {
  fs::create_directories(folder);
  ASSERT_EQ(mount("none", folder.c_str(), "tmpfs", flags, options), 0) << "needs the right to mount: " << strerror(errno);
}

class RealFileSystems : public RealFaults {
 protected:
  /// Runs events first, first + 1, … that reach no server.
  Run report(int first, int count, const std::vector<std::string>& through = {}, const Program::Variables& more = {}) {
    std::vector<std::string> command = through;
    for (const std::string& word : {binary("kestrova"), std::string("--json"), std::string("events"), events(first, count)})
      command.push_back(word);
    const std::string path = command.front();
    command.erase(command.begin());
    Program::Variables all = variables(nullptr);
    all.insert(all.end(), more.begin(), more.end());
    Program program(path, command, all);
    program.closeInput();
    return finish(program);
  }
};

TEST_F(RealFileSystems, AFullOneOf100KilobytesLosesOnlyWhatTheCommandSays) {
  EXPECT_EQ(runInChild([this] {
              ASSERT_NO_FATAL_FAILURE(leaveMountNamespace());
              ASSERT_NO_FATAL_FAILURE(mountMemory(homeFolder(), "size=100k"));
              int first = 1;
              std::uint64_t lost = 0;
              for (; lost == 0 && first < 10'000; first += 50) {
                const std::string earlier = contentOf(queueFile());
                const Run done = report(first, 50);
                ASSERT_THAT(done.end, AnyOf("exited with 3", "exited with 4")) << done.output << done.errors;
                lost = done.number("lost");
                EXPECT_EQ(done.number("kept"), numbersIn(contentOf(queueFile())).size()) << done.output;
                EXPECT_TRUE(lost > 0 || contentOf(queueFile()).starts_with(earlier)) << "records were lost or changed unsaid";
              }
              ASSERT_GT(lost, 0U) << "the file system never filled";
              ASSERT_EQ(mount("none", homeFolder().c_str(), "tmpfs", MS_REMOUNT, "size=10m"), 0) << strerror(errno);
              expectRecovery();
              EXPECT_EQ(report(first, 3).number("kept"), 3U);
            }),
            0);
}

TEST_F(RealFileSystems, AReadOnlyOneKeepsTheQueueAsItIs) {
  EXPECT_EQ(runInChild([this] {
              ASSERT_NO_FATAL_FAILURE(leaveMountNamespace());
              ASSERT_NO_FATAL_FAILURE(mountMemory(homeFolder(), "size=1m"));
              ASSERT_EQ(run({"--json", "events", events(1, kWaiting)}).end, "exited with 3");
              const std::string earlier = contentOf(queueFile());
              ASSERT_EQ(mount("none", homeFolder().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0) << strerror(errno);
              const Run done = report(4, 3);
              EXPECT_EQ(done.end, "exited with 4") << done.output << done.errors;
              EXPECT_EQ(done.number("kept"), 3U) << done.output;
              EXPECT_EQ(done.number("lost"), 3U) << done.output;
              EXPECT_EQ(contentOf(queueFile()), earlier);
              ASSERT_EQ(mount("none", homeFolder().c_str(), nullptr, MS_REMOUNT, nullptr), 0) << strerror(errno);
              expectRecovery();
            }),
            0);
}

// The signal that such a write brings would end the process; the threads that write block it.
TEST_F(RealFileSystems, ALimitOnTheSizeOfFilesLosesTheBatchAndSaysSoAndKillsNobody) {
  ASSERT_NO_FATAL_FAILURE(begin());
  // The counters of a coverage build would meet the limit too, at the end of the process; they are written nowhere.
  const Run done =
      report(4, 3, {"/usr/bin/prlimit", "--fsize=" + std::to_string(before_.size() + 100)}, {{"GCOV_PREFIX", "/proc"}});
  EXPECT_EQ(done.end, "exited with 4") << done.output << done.errors;
  EXPECT_EQ(done.number("lost"), 6U) << done.output;
  EXPECT_EQ(contentOf(queueFile()), "") << "it was loaded, and the write-back did not fit";
  expectRecovery();
}

}  // namespace
}  // namespace test

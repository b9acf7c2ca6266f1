// Each public operation with the k-th call of the platform failing, for k = 1, 2, … until none is left to fail.
//
// A call fails once or for good, with an error where it has one, by a raise, or the process dies as the call has come back. The
// application then lives once more on the same device, with nothing failing. Whatever happened: no step hangs, the queue file holds
// whole records, a process that ended said why, every record that was answered or kept is with the server in the end, and one that
// is not was told lost, or died with its process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "companions/KSVCookieMatch.h"
#include "companions/KSVShare.h"
#include "platform/URL.h"
#include "platform/linux/OpenSSLDigest.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "support/FaultPlan.h"
#include "support/KSVDataInspector.h"
#include "support/TestProcess.h"

namespace test {
namespace {

using platform::Dictionary;
using platform::Value;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSubsetOf;

/// Stands for the end of the process; no part of the system knows it, so nothing catches it.
struct ProcessDeath {};

/// One life of the application, played step by step. Every record has a number, which the server's double reads back.
class Life {
 public:
  explicit Life(const std::shared_ptr<TestDevice>& device) : process_({.device = device}), device_(device) {}

  TestProcess& process() { return process_; }
  bool isDead() const { return isDead_; }
  /// What ended the process; empty for the death that the test brought.
  const std::vector<std::string>& reasons() const { return reasons_; }
  const std::set<int>& recorded() const { return recorded_; }
  const std::set<int>& taken() const { return taken_; }

  /// Runs a step on the caller's thread, then all that follows from it, as long as the process lives.
  void step(const std::function<void()>& body) {
    if (isDead_) return;
    try {
      body();
      process_.runAll();
    } catch (const ProcessDeath&) {
      isDead_ = true;
    } catch (const platform::Exception& exception) {  // of a public operation: the host would end by it
      reasons_.push_back(std::string(exception.reason()));
      isDead_ = true;
    }
    for (const std::string& reason : process_.uncaughtReasons()) {
      isDead_ = true;
      if (std::ranges::find(reasons_, reason) == reasons_.end()) reasons_.push_back(reason);
    }
  }
  void start() {
    step([this] { client_ = process_.makeClient(); });
  }
  void report(int first, int count) {
    for (int n = first; n < first + count; ++n) {
      step([this, n] {
        recorded_.insert(n);
        client_->createEventWithData("gif-viewed", Dictionary{{"n", n}});
      });
    }
  }
  /// Answers each request that waits, and those that follow.
  void serve(std::int64_t status, std::string_view body = "{}", ScriptedURLSession::Fields fields = {}) {
    for (int requests = 0; !isDead_ && !process_.urlSession().pending().empty(); ++requests) {
      ASSERT_LT(requests, 100) << "the client goes on asking";
      const auto task = process_.urlSession().next();
      step([&] {
        if (status < 400 && task->request().URL()->path().ends_with("/events")) noteTaken(task->request());
        task->answer(status, fields, body);
      });
    }
  }
  void failRequests() {
    for (int requests = 0; !isDead_ && !process_.urlSession().pending().empty(); ++requests) {
      ASSERT_LT(requests, 100) << "the client goes on asking";
      step([this] { process_.failRequest(platform::kURLErrorNetworkConnectionLost); });
    }
  }
  KSVData& client() { return *client_; }
  std::shared_ptr<KSVData> clientRef() const { return client_; }
  TestDevice& device() { return *device_; }

 private:
  void noteTaken(const platform::URLRequest& request) {
    const auto body = platform::makeRapidJSONSerialization()->read(*request.HTTPBody());
    ASSERT_TRUE(body);
    const std::optional<Value> records = body->objectForKey("data");
    ASSERT_TRUE(records);
    for (const Value& record : records->array()) {
      const auto data = record.objectForKey("eventData");
      if (const auto n = data ? data->objectForKey("n") : std::nullopt) taken_.insert(n->intValue());
    }
  }

  TestProcess process_;
  const std::shared_ptr<TestDevice> device_;
  std::shared_ptr<KSVData> client_;
  bool isDead_ = false;
  std::vector<std::string> reasons_;
  std::set<int> recorded_;
  std::set<int> taken_;
};

struct Scenario {
  std::string name;
  std::function<void(Life&)> play;

  friend void PrintTo(const Scenario& scenario, std::ostream* stream) { *stream << scenario.name; }
};

std::shared_ptr<KSVShare> share() {
  auto made = std::make_shared<KSVShare>();
  made->referralCode = std::make_shared<const KSVReferralCode>(KSVReferralCode{"12345678", "share"});
  made->data = Dictionary{{"text", "a cat"}};
  return made;
}

/// The server's word that it is a minute later.
std::string challenge() {
  const std::string time = std::to_string(static_cast<std::int64_t>(TestDevice::kStartTime) + 60);
  const auto mac =
      platform::OpenSSLDigest().hmac(platform::Digest::Algorithm::kSHA256, TestProcess::kSecret, {"hawk.1.ts\n", time, "\n"});
  return "Hawk ts=\"" + time + "\", tsm=\"" + mac.base64EncodedString() + "\"";
}

std::vector<Scenario> allScenarios() {
  constexpr const char* kGif = "/host/cat.gif";
  const auto upload = [](Life& life) {
    life.start();
    life.step([&life] {
      life.device().files->setBytesAtPath(kGif, "GIF89a cat");
      life.client().uploadGIFForShare(platform::URL::fileURLWithPath(kGif), share());
    });
  };
  return {
      {"Start", [](Life& life) { life.start(); }},
      {"Delivery",
       [](Life& life) {
         life.start();
         life.report(1, 10);
         life.serve(200, R"({"userId": "u", "appIdentifier": "a", "events": [{"name": "n"}], "disabledFeatures": 3})");
       }},
      {"WriteBackAndLoad",
       [](Life& life) {
         life.start();
         life.report(1, 10);
         life.failRequests();
         life.report(11, 10);
         life.serve(500);
         life.report(21, 10);
         life.serve(200);
       }},
      {"ClockCorrection",
       [](Life& life) {
         life.start();
         life.report(1, 10);
         const std::string stale = challenge();
         life.step([&] {
           if (!life.process().urlSession().pending().empty()) life.process().answer(401, "", {{"Www-Authenticate", stale}});
         });
         life.serve(200);
       }},
      {"SessionAndPatch",
       [](Life& life) {
         life.start();
         life.step([&life] { life.client().markNewSession(); });
         life.step([&life] { life.client().patchPreviousSessionStarted(Dictionary{{"link", "x"}}); });
         life.serve(200);
       }},
      {"ShareSubmission",
       [](Life& life) {
         life.start();
         life.step([&life] { life.client().submitShare(share()); });
         life.serve(200, R"({"data": {"id": "12345678share"}})");
       }},
      {"ShareRefresh",
       [](Life& life) {
         life.start();
         life.step([&life] { life.client().updateSharesFromServerWithCallback(KSVShares{share()}, [](const KSVShares&) {}); });
         life.serve(200, R"({"data": []})");
       }},
      {"CookieMatch",
       [](Life& life) {
         life.start();
         life.step([&life] { life.client().tryCookieMatchWithCompletion([](bool) {}); });
         life.step([&life] {
           if (!life.process().browser().opened().empty()) life.process().browser().answer(0, true);
         });
         life.serve(200);
       }},
      {"UploadThatSucceeds",
       [upload](Life& life) {
         upload(life);
         life.step([&life] {
           if (!life.device().transfers->uploads().empty()) life.device().transfers->answerUpload(200);
         });
       }},
      {"UploadThatFails",
       [upload](Life& life) {
         upload(life);
         life.step([&life] { life.client().setBackgroundCompletionHandler([] {}); });
         life.step([&life] {
           if (life.device().transfers->uploads().empty()) return;
           life.device().transfers->failUpload(platform::urlError(platform::kURLErrorServerCertificateUntrusted));
         });
       }},
      {"Truncation",
       [](Life& life) {
         life.start();
         life.report(1, 10);
         // A queue over its limit that the load of this batch has not seen.
         life.step([&life] {
           KSVDataInspector(life.clientRef()).maxQueueSizeOnDiskInBytes() = 500;
           std::string queue;
           for (int line = 0; line < 20; ++line) queue += "{\"event\": \"old\", \"eventData\": {\"text\": \"of long ago\"}}\n";
           life.process().setQueueFile(queue);
         });
         life.failRequests();
       }},
  };
}

/// The ways in which the k-th call goes wrong.
struct Way {
  std::string name;
  std::function<void(FaultPlan&, std::uint64_t)> spoil;
  bool isByContract = false;  // an error where the call has one, else a raise, and no call that can do neither

  friend void PrintTo(const Way& way, std::ostream* stream) { *stream << way.name; }
};

std::vector<Way> allWays() {
  return {{"BreaksOnce", [](FaultPlan& plan, std::uint64_t k) { plan.breakCalls(nth(k)); }, true},
          {"BreaksForGood", [](FaultPlan& plan, std::uint64_t k) { plan.breakCalls(fromNth(k)); }, true},
          {"RaisesOnce", [](FaultPlan& plan, std::uint64_t k) { plan.raise(FaultPlan::kAnyOperation, nth(k), someException()); }},
          {"RaisesForGood",
           [](FaultPlan& plan, std::uint64_t k) { plan.raise(FaultPlan::kAnyOperation, fromNth(k), someException()); }},
          {"DiesAfter",
           [](FaultPlan& plan, std::uint64_t k) { plan.after(FaultPlan::kAnyOperation, nth(k), [] { throw ProcessDeath(); }); }}};
}

class FailingCallSweep : public testing::TestWithParam<std::tuple<Scenario, Way>> {
 protected:
  /// It is another process, though its twin is in this one.
  static void leaveOutTheTransferService(FaultPlan& plan) {
    plan.leaveOut("DispatchQueue.async", std::string(MemoryTransferService::kQueueLabel));
    if (std::get<0>(GetParam()).name.starts_with("Upload"))
      for (const auto* const operation : {"JSON.write", "JSON.read", "SystemLog.log"}) plan.leaveOut(operation);
  }
  /// What nothing catches (docs/delivery.md): the seeks of a truncation, storing a clock correction, an upload's task and
  /// signature.
  static inline const std::set<std::string> kEndTheProcess{"BackgroundURLSession.uploadTask", "Digest.hmac",
                                                           "FileHandle.seekToEndOfFile", "FileHandle.seekToFileOffset",
                                                           "UserDefaults.setObject"};
  static std::string operationIn(const std::string& call) { return call.substr(0, call.find(' ')); }

  static void expectWholeRecords(const std::string& queue) {
    EXPECT_TRUE(queue.empty() || queue.ends_with('\n')) << queue.substr(queue.size() - std::min<std::size_t>(queue.size(), 100));
    const auto json = platform::makeRapidJSONSerialization();
    std::istringstream lines(queue);
    for (std::string line; std::getline(lines, line);) {
      const auto record = json->read(platform::Data(line));
      ASSERT_TRUE(record && record->isObject()) << line;
    }
  }
};

TEST_P(FailingCallSweep, LeavesTheNextLifeWithAllThatWasKept) {
  const auto& [scenario, way] = GetParam();
  std::set<std::string> ended;  // by which failing call
  std::uint64_t k = 1;
  for (bool isOver = false; !isOver; ++k) {
    ASSERT_LT(k, 3000U) << "the sweep does not end";
    SCOPED_TRACE("call " + std::to_string(k));
    const auto device = std::make_shared<TestDevice>();
    std::set<int> reported;
    std::set<int> taken;
    bool mayLose = false;
    {
      Life life(device);
      leaveOutTheTransferService(life.process().plan());
      way.spoil(life.process().plan(), k);
      scenario.play(life);
      const auto unused = life.process().plan().unused();
      isOver = way.isByContract ? !life.process().plan().brokenCall() : !unused.empty();
      reported = life.recorded();
      taken = life.taken();
      mayLose = life.isDead() || !life.process().trace().empty();
      if (life.isDead() && !life.reasons().empty()) {
        EXPECT_EQ(life.reasons().size(), 1U);
        if (way.isByContract) ended.insert(operationIn(life.process().plan().brokenCall().value_or("nothing")));
      }
      life.process().plan().clear();
      expectWholeRecords(life.process().queueFile().value_or(""));
    }
    Life next(device);
    next.start();
    next.report(101, 10);
    next.serve(200);
    for (int sends = 0; sends < 200 && !next.process().queueFile().value_or("").empty(); ++sends) {
      next.step([&next] { next.client().sendEventQueueToServer(); });
      next.serve(200);
    }
    ASSERT_FALSE(next.isDead());
    EXPECT_EQ(next.process().queueFile().value_or(""), "");
    taken.insert(next.taken().begin(), next.taken().end());
    for (const int n : reported) EXPECT_TRUE(taken.contains(n) || mayLose) << "record " << n << " was lost unsaid";
    for (int n = 101; n <= 110; ++n) EXPECT_TRUE(taken.contains(n)) << "the next life loses record " << n;
  }
  RecordProperty("callsFailed", static_cast<int>(k - 2));
  EXPECT_GT(k, 2U) << "nothing was failed";
  EXPECT_THAT(ended, IsSubsetOf(kEndTheProcess)) << "calls whose failure by contract ends the process";
}

/// What a sweep fails is what its scenario calls, one after the other.
TEST(FailingCallSweepScope, HasEveryOperationThatCanFail) {
  std::set<std::string> called;
  for (const Scenario& scenario : allScenarios()) {
    Life life(std::make_shared<TestDevice>());
    scenario.play(life);
    EXPECT_FALSE(life.isDead()) << scenario.name;
    for (const std::string& name : life.process().plan().callNames()) called.insert(name);
  }
  std::set<std::string> missing;
  for (const Operation& operation : allOperations())
    if ((operation.fails || operation.raises) && !called.contains(std::string(operation.name))) missing.emplace(operation.name);
  // The client neither moves files nor opens them only to read, and the main queue's executor is given before it starts.
  EXPECT_THAT(missing, ElementsAre("DispatchQueues.setMainExecutor", "FileManager.moveItem", "FileManager.openForReading"));
}

std::string nameOf(const testing::TestParamInfo<FailingCallSweep::ParamType>& info) {
  return std::get<0>(info.param).name + "_" + std::get<1>(info.param).name;
}

INSTANTIATE_TEST_SUITE_P(EachOperation, FailingCallSweep,
                         testing::Combine(testing::ValuesIn(allScenarios()), testing::ValuesIn(allWays())), nameOf);

}  // namespace
}  // namespace test

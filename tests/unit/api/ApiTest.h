// What the tests of the API share: a client over the twins, and challenges as a server signs them.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "companions/KSVDebugger.h"
#include "companions/KSVDelegate.h"
#include "companions/KSVFeatureControl.h"
#include "platform/Digest.h"
#include "platform/Exception.h"
#include "platform/JSONSerialization.h"
#include "support/KSVDataInspector.h"
#include "support/TestProcess.h"

namespace test {

using platform::Array;
using platform::Dictionary;
using platform::Value;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

/// Writes down what it is told, in order.
class RecordingDelegate final : public KSVDelegate {
 public:
  void setUserId(const Value& userId) override { calls.emplace_back("setUserId", userId); }
  void setAppIdentifier(const Value& appIdentifier) override { calls.emplace_back("setAppIdentifier", appIdentifier); }
  void handleEventsFromServer(const Value& notifications) override { calls.emplace_back("handleEventsFromServer", notifications); }

  std::vector<std::pair<std::string, Value>> calls;
};

class ApiTest : public testing::Test {
 protected:
  ApiTest() {
    client->setDelegate(delegate);
    process.runAll();  // the sweep of old upload files
    process.plan().clearCalls();
    process.clearMessages();
  }

  /// A stale challenge with the right tsm for the client's key.
  static std::string challenge(std::int64_t time, const std::string& tsm = {}) {
    const std::string ts = std::to_string(time);
    const std::string mac = platform::Digest::digests()
                                .hmac(platform::Digest::Algorithm::kSHA256, TestProcess::kSecret, {"hawk.1.ts\n", ts, "\n"})
                                .base64EncodedString();
    return "Hawk ts=\"" + ts + "\", tsm=\"" + (tsm.empty() ? mac : tsm) + "\", error=\"Stale timestamp\"";
  }

  /// The records in the body of the request with that index, by their "n".
  std::vector<int> posted(std::size_t index) {
    const auto body = platform::JSONSerialization::JSONObjectWithData(process.posts().at(index));
    std::vector<int> numbers;
    const std::optional<Value> data = body.value().objectForKey("data");
    for (const Value& record : data->array()) numbers.push_back(record.objectForKey("n")->intValue());
    return numbers;
  }
  static Value record(int number) { return Dictionary{{"n", number}}; }
  static std::string line(int number) { return "{\"n\":" + std::to_string(number) + "}\n"; }

  TestProcess process;
  std::shared_ptr<KSVData> client = process.makeClient();
  KSVDataInspector inspect{client};
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
};

inline constexpr double kStart = TestProcess::kStartTime;

}  // namespace test

// What the tests of the queue file share: a client over the twins, records, and the texts of errors.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "companions/KSVUtils.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "support/KSVDataInspector.h"
#include "support/TestProcess.h"

namespace test {

using platform::Array;
using platform::Dictionary;
using platform::Value;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

class QueueTest : public testing::Test {
 protected:
  QueueTest() {
    process.runAll();  // the sweep of old upload files
    path = process.supportPath("event-queue.json");
    url = "file://" + path;
    process.plan().clearCalls();
    process.clearMessages();
  }

  static Array records(std::initializer_list<Value> values) { return Array(values); }
  static Value record(int number) { return Dictionary{{"n", number}}; }
  static std::string line(int number) { return "{\"n\":" + std::to_string(number) + "}\n"; }

  /// A record whose line has exactly `bytes` bytes, the line feed included.
  static std::string lineOfLength(std::size_t bytes, int number = 0) {
    const std::string head = "{\"n\":" + std::to_string(number) + ",\"t\":\"";
    const std::string tail = "\"}\n";
    return head + std::string(bytes - head.size() - tail.size(), 'x') + tail;
  }
  static std::string linesOfLength(std::size_t bytes, int first, int last) {
    std::string text;
    for (int number = first; number <= last; ++number) text += lineOfLength(bytes, number);
    return text;
  }
  static int numberOf(const Value& value) { return value.objectForKey("n")->intValue(); }

  /// The messages, without those that tell of each chunk.
  std::vector<std::string> messagesWithoutChunks() {
    std::vector<std::string> kept;
    for (std::string& message : process.messages())
      if (!message.starts_with("Read new chunk")) kept.push_back(std::move(message));
    return kept;
  }
  std::vector<std::string> fileCalls() { return process.plan().callNames({"FileManager.", "FileHandle."}); }

  TestProcess process;
  KSVDataInspector inspect{process.makeClient()};
  std::string path;  // of the queue file
  std::string url;
};

inline const platform::Error kError = someError("It went wrong on purpose.");
inline const platform::Exception kRaise = someException("raised on purpose");
/// What the queue file's name stands for in rules about calls.
inline constexpr const char* kQueue = "event-queue.json";
inline constexpr const char* kTempfile = "kestrova-";

}  // namespace test

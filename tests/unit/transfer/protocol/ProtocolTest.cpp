// Messages and spool entries: the way there and back, everything that is refused, and inputs that nobody thought of.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <random>

#include "platform/Process.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "support/TransferSamples.h"
#include "transfer/protocol/Messages.h"
#include "transfer/protocol/SpoolEntry.h"

namespace {

using transfer::decode;
using transfer::decodeSpoolEntry;
using transfer::encode;
using transfer::Message;
using transfer::MessageReader;

class Protocol : public testing::Test {
 protected:
  Protocol() {
    process_.json = platform::makeRapidJSONSerialization();
    scope_.emplace(process_);
  }
  static std::string refusal(std::string_view line) {
    const auto message = decode(line);
    return message ? "a message" : message.error();
  }
  static std::string entryRefusal(std::string text, const std::string& from, const std::string& to) {
    const std::size_t at = text.find(from);
    if (at == std::string::npos) return "nothing to replace";
    const auto entry = decodeSpoolEntry(text.replace(at, from.size(), to));
    return entry ? "an entry" : entry.error();
  }

  platform::Process process_;
  std::optional<platform::Process::Scope> scope_;
};

transfer::TaskStatus fullStatus() {
  transfer::TaskStatus task = test::endedStatusFor(test::entryFor("one", UINT64_MAX));
  task.bytesSent = 1;
  task.bytesExpected = 2;
  task.nextTryAt = 1'795'205'979.25;
  task.error = platform::Error("Domain", INT64_MIN, "a text\nof two lines, “quoted”");
  return task;
}

std::vector<Message> everyMessage() {
  return {transfer::Hello{.application = test::applicationNamed("app"), .launchCommand = {"/usr/bin/app", ""}},
          transfer::Hold{.session = "ä", .wasLaunchedForIt = true},
          transfer::GetTasks{.request = UINT64_MAX, .session = "one"},
          transfer::Wake{},
          transfer::Handed{.session = "one", .event = 3},
          transfer::Invalidate{.session = "one"},
          transfer::Cancel{.session = "one"},
          transfer::List{.request = 1},
          transfer::Welcome{},
          transfer::Refused{.reason = ""},
          transfer::SessionTasks{.request = 0, .session = "one", .tasks = {fullStatus(), test::statusFor(test::entryFor("one"))}},
          transfer::Listed{.request = 9},
          transfer::TaskEvent{.session = "one", .event = 4, .task = fullStatus()},
          transfer::EventsDelivered{.session = "one"},
          transfer::Invalidated{.session = "one"}};
}

/// What a fuzzer calls: whatever is accepted is said again in the same words. Also reads the input as a stream and as an entry.
void takeAnything(std::string_view input) {
  const std::string given(input);
  if (const auto message = decode(given)) {
    const std::string said = encode(*message);
    const auto again = decode(said);
    ASSERT_TRUE(again) << said;
    ASSERT_EQ(encode(*again), said);
  }
  if (const auto entry = decodeSpoolEntry(given)) {
    const auto again = decodeSpoolEntry(encode(*entry));
    ASSERT_TRUE(again) << encode(*entry);
    ASSERT_EQ(*again, *entry);
  }
  MessageReader reader;
  reader.append(given);
  while (const auto message = reader.next())
    if (!*message) break;
}

TEST_F(Protocol, everyMessageComesBackAsItWas) {
  const std::vector<Message> messages = everyMessage();
  ASSERT_EQ(messages.size(), std::variant_size_v<Message>);
  for (std::size_t i = 0; i < messages.size(); ++i) {
    ASSERT_EQ(messages[i].index(), i) << "each kind once";
    const std::string line = encode(messages[i]);
    EXPECT_EQ(line.find('\n'), line.size() - 1) << line;
    const auto back = decode(line);
    ASSERT_TRUE(back) << line << back.error();
    EXPECT_EQ(back->index(), i);
    EXPECT_EQ(encode(*back), line);
    EXPECT_TRUE(decode(std::string_view(line).substr(0, line.size() - 1))) << "without its line feed";
  }
}

TEST_F(Protocol, aTaskKeepsEveryMember) {
  const auto back = decode(encode(transfer::TaskEvent{.session = "one", .event = 4, .task = fullStatus()}));
  const transfer::TaskStatus task = std::get<transfer::TaskEvent>(*back).task;
  EXPECT_EQ(task.identifier, UINT64_MAX);
  EXPECT_EQ(task.state, transfer::TaskStatus::State::kCompleted);
  EXPECT_EQ(task.url, "https://api.example.com/gifs?shareId=one");
  EXPECT_EQ(task.file, "/home/user/app/uploads/one");
  EXPECT_EQ(task.bytesSent, 1U);
  EXPECT_EQ(task.bytesExpected, 2U);
  EXPECT_EQ(task.tries, 1U);
  EXPECT_EQ(task.statusCode, 200);
  EXPECT_EQ(task.nextTryAt, 1'795'205'979.25);
  EXPECT_EQ(task.error->domain(), "Domain");
  EXPECT_EQ(task.error->code(), INT64_MIN);
  EXPECT_EQ(task.error->localizedDescription(), "a text\nof two lines, “quoted”");
}

TEST_F(Protocol, theWireTextIsAsDocumented) {
  EXPECT_EQ(encode(transfer::Hold{.session = "one", .wasLaunchedForIt = true}),
            "{\"is\":\"hold\",\"session\":\"one\",\"wasLaunchedForIt\":true}\n");
  EXPECT_EQ(encode(transfer::Wake{}), "{\"is\":\"wake\"}\n");
  EXPECT_EQ(encode(transfer::Handed{.session = "one", .event = 3}), "{\"event\":3,\"is\":\"handed\",\"session\":\"one\"}\n");
}

TEST_F(Protocol, unknownMembersAreNotLookedAt) {
  const auto message = decode(R"({"is":"cancel","session":"one","later":{"deep":[1,{"x":null}]}})");
  ASSERT_TRUE(message);
  EXPECT_EQ(std::get<transfer::Cancel>(*message).session, "one");
}

TEST_F(Protocol, whatIsNoMessageIsRefusedWithItsReason) {
  EXPECT_EQ(refusal(""), "not JSON");
  EXPECT_EQ(refusal("\n"), "not JSON");
  EXPECT_EQ(refusal("{} {}"), "not JSON");
  EXPECT_EQ(refusal("[]"), "no JSON object");
  EXPECT_EQ(refusal("{}"), "“is” is missing");
  EXPECT_EQ(refusal(R"({"is":7})"), "“is” is no text");
  EXPECT_EQ(refusal(R"({"is":"Wake"})"), "“is” is unknown");
  EXPECT_EQ(refusal("{\"is\":\n\"wake\"}"), "a line feed inside");
  EXPECT_EQ(refusal(std::string_view("{\"is\":\"wake\"}\0", 14)), "a NUL inside");
  EXPECT_EQ(refusal("{\"is\":\"wake\xFF\"}"), "not UTF-8");
  EXPECT_EQ(refusal(std::string(100'000, '[')), "not JSON");
  EXPECT_EQ(refusal(R"({"is":"wake","x":)" + std::string(600, '[') + std::string(600, ']') + "}"), "not JSON");
  EXPECT_EQ(refusal(R"({"is":"cancel"})"), "cancel: “session” is missing");
  EXPECT_EQ(refusal(R"({"is":"cancel","session":null})"), "cancel: “session” is no text");
  EXPECT_EQ(refusal(R"({"is":"cancel","session":""})"), "cancel: “session” is empty");
  EXPECT_EQ(refusal(R"({"is":"cancel","session":"a\u0000b"})"), "cancel: “session” is no text");
  EXPECT_EQ(refusal(R"({"is":"hold","session":"a","wasLaunchedForIt":1})"), "hold: “wasLaunchedForIt” is neither true nor false");
  EXPECT_EQ(refusal(R"({"is":"list","request":-1})"), "list: “request” is no whole number of 64 bits");
  EXPECT_EQ(refusal(R"({"is":"list","request":1.5})"), "list: “request” is no whole number of 64 bits");
  EXPECT_EQ(refusal(R"({"is":"list","request":18446744073709551616})"), "list: “request” is no whole number of 64 bits");
  EXPECT_EQ(refusal(R"({"is":"list","request":true})"), "list: “request” is no whole number of 64 bits");
  EXPECT_EQ(refusal(R"({"is":"sessionTasks","request":1,"session":"a","tasks":{}})"), "sessionTasks: “tasks” is no array");
  EXPECT_EQ(refusal(R"({"is":"sessionTasks","request":1,"session":"a","tasks":[1]})"),
            "sessionTasks: “tasks” holds what is no object");
  EXPECT_EQ(refusal(R"({"is":"taskEvent","event":1,"session":"a","task":[]})"), "taskEvent: “task” is no object");
}

TEST_F(Protocol, everyMemberOfATaskIsChecked) {
  const std::string line = encode(transfer::TaskEvent{.session = "one", .event = 4, .task = fullStatus()});
  const auto changed = [&](const std::string& from, const std::string& to) {
    std::string text = line;
    const std::size_t at = text.find(from);
    return at == std::string::npos ? "nothing to replace" : refusal(text.replace(at, from.size(), to));
  };
  EXPECT_EQ(changed("\"completed\"", "\"done\""), "taskEvent: “state” is unknown");
  EXPECT_EQ(changed("\"statusCode\":200", "\"statusCode\":1000"), "taskEvent: “statusCode” is above 999");
  EXPECT_EQ(changed("1795205979.25", "-1"), "taskEvent: “nextTryAt” is no number from 0 on");
  EXPECT_EQ(changed("1795205979.25", "\"x\""), "taskEvent: “nextTryAt” is no number from 0 on");
  EXPECT_EQ(changed("-9223372036854775808", "9223372036854775808"), "taskEvent: “code” is no whole number of 64 bits");
  EXPECT_EQ(changed("\"domain\":\"Domain\"", "\"domain\":1"), "taskEvent: “domain” is no text");
  EXPECT_EQ(changed("\"tries\":1", "\"attempts\":1"), "taskEvent: “tries” is missing");
}

TEST_F(Protocol, aHelloMayLeaveItsLaunchCommandOut) {
  transfer::Hello looking{.application = test::applicationNamed("app"), .launchCommand = {}};
  looking.leavesLaunchCommand = true;
  const std::string line = encode(looking);
  EXPECT_EQ(line.find("launchCommand"), std::string::npos);
  const auto read = decode(line);
  ASSERT_TRUE(read) << read.error();
  EXPECT_TRUE(std::get<transfer::Hello>(*read).leavesLaunchCommand);
}

TEST_F(Protocol, everyMemberOfAnApplicationIsChecked) {
  const std::string line = encode(everyMessage().front());
  const auto changed = [&](const std::string& from, const std::string& to) {
    std::string text = line;
    const std::size_t at = text.find(from);
    return at == std::string::npos ? "nothing to replace" : refusal(text.replace(at, from.size(), to));
  };
  EXPECT_EQ(changed("com.example.app", ""), "hello: “identifier” is empty");
  EXPECT_EQ(changed("/home/user/app", "home"), "hello: “folder” is no absolute path");
  EXPECT_EQ(changed("aaaa", "aaa"), "hello: “token” is not 64 hexadecimal digits");
  EXPECT_EQ(changed("aaaa", "aaag"), "hello: “token” is not 64 hexadecimal digits");
  EXPECT_EQ(changed("/usr/bin/app", "app"), "hello: “launchCommand” does not begin with an absolute path");
  EXPECT_EQ(changed("[\"/usr/bin/app\"", "[7"), "hello: “launchCommand” holds what is no text");
  EXPECT_EQ(changed("\"version\":1", "\"version\":18446744073709551615"), "hello: “version” is above 9223372036854775807");
}

TEST_F(Protocol, anEntryComesBackAsItWas) {
  transfer::SpoolEntry entry = test::entryFor("one", UINT64_MAX);
  EXPECT_EQ(decodeSpoolEntry(encode(entry)).value(), entry);
  entry.trustAnchors.reset();
  entry.url.clear();
  entry.headerFields.clear();
  entry.launchCommand.clear();
  EXPECT_EQ(decodeSpoolEntry(encode(entry)).value(), entry);
}

TEST_F(Protocol, everyMemberOfAnEntryIsChecked) {
  const std::string text = encode(test::entryFor("one"));
  EXPECT_EQ(entryRefusal(text, "\"is\":\"task\"", "\"is\":\"tasks\""), "“is” is unknown");
  EXPECT_EQ(entryRefusal(text, "\"version\":1", "\"version\":2"), "“version” is unknown");
  EXPECT_EQ(entryRefusal(text, "\"POST\"", "\"PO ST\""), "“method” is no name of a method");
  EXPECT_EQ(entryRefusal(text, "\"POST\"", "\"\""), "“method” is no name of a method");
  EXPECT_EQ(entryRefusal(text, "\"image/gif\"", "\"a\\r\\nHost: b\""), "“headerFields” holds what is no header field");
  EXPECT_EQ(entryRefusal(text, "\"image/gif\"", "\"a\\u0000\""), "“headerFields” holds what is no header field");
  EXPECT_EQ(entryRefusal(text, "\"Content-Type\"", "\"Content Type\""), "“headerFields” holds what is no header field");
  EXPECT_EQ(entryRefusal(text, ",\"image/gif\"", ""), "“headerFields” holds what is no header field");
  EXPECT_EQ(entryRefusal(text, "\"/home/user/app/uploads/one\"", "\"one\""), "“file” is no absolute path");
  EXPECT_EQ(entryRefusal(text, "\"/home/user/app/uploads/one\"", "\"/" + std::string(4096, 'x') + "\""),
            "“file” is longer than 4096 bytes");
  EXPECT_EQ(entryRefusal(text, "\"session\":\"one\"", "\"session\":\"" + std::string(1025, 'x') + "\""),
            "“session” is longer than 1024 bytes");
  EXPECT_EQ(entryRefusal(text, "https://", "https://" + std::string(16384, 'x')), "“url” is longer than 16384 bytes");
  EXPECT_EQ(entryRefusal(text, "\"requestTimeout\":60", "\"requestTimeout\":0"), "“requestTimeout” is 0");
  EXPECT_EQ(entryRefusal(text, "\"resumedAt\":1795205979", "\"resumedAt\":-1"), "“resumedAt” is no number from 0 on");
  EXPECT_EQ(entryRefusal(text, "\"trustAnchors\":\"/etc/anchors.pem\"", "\"trustAnchors\":7"), "“trustAnchors” is no text");
}

// The store keeps an entry as it is encoded here, and counts as damaged when it cannot be read back.
TEST_F(Protocol, anEntryThatGrowsPastTheBoundWhenItIsEncodedIsRefused) {
  transfer::SpoolEntry entry = test::entryFor("one");
  entry.requestTimeout = 1e9;
  entry.launchCommand.emplace_back();
  entry.launchCommand.back().assign(transfer::kMaxMessageBytes - encode(entry).size(), 'x');
  std::string text = encode(entry);
  ASSERT_EQ(text.size(), transfer::kMaxMessageBytes);
  EXPECT_EQ(decodeSpoolEntry(text).value(), entry);
  const std::string number = "\"requestTimeout\":";
  const std::size_t at = text.find(number) + number.size();
  const std::size_t length = text.find(',', at) - at;
  ASSERT_GT(length, 3U);
  text.replace(at, length, "1e9");
  text.insert(text.find("xxx"), length - 3, 'x');
  ASSERT_EQ(text.size(), transfer::kMaxMessageBytes);
  EXPECT_EQ(decodeSpoolEntry(text).error(), "longer than 1048576 bytes");
}

TEST_F(Protocol, anIdentifierThatMessagesCarryUnchangedIsOneOfASession) {
  EXPECT_TRUE(transfer::isSessionIdentifier("com.example.GifUpload-ä"));
  EXPECT_TRUE(transfer::isSessionIdentifier(std::string(transfer::kMaxSessionBytes, 'x')));
  EXPECT_FALSE(transfer::isSessionIdentifier(std::string(transfer::kMaxSessionBytes + 1, 'x')));
  EXPECT_FALSE(transfer::isSessionIdentifier(""));
  EXPECT_FALSE(transfer::isSessionIdentifier(std::string_view("a\0b", 3)));
  EXPECT_FALSE(transfer::isSessionIdentifier("\xE4"));
}

TEST_F(Protocol, whatJSONCannotSayIsReplaced) {
  EXPECT_EQ(encode(transfer::Refused{.reason = "a\xFFä\xC3"}), "{\"is\":\"refused\",\"reason\":\"a\xEF\xBF\xBDä\xEF\xBF\xBD\"}\n");
  transfer::SpoolEntry entry = test::entryFor("one");
  entry.resumedAt = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(decodeSpoolEntry(encode(entry)).value().resumedAt, 0);
}

TEST_F(Protocol, aStreamCutAnywhereGivesTheSameMessages) {
  std::string stream;
  for (const Message& message : everyMessage()) stream += encode(message);
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    MessageReader reader;
    std::string read;
    for (const std::string_view part : {std::string_view(stream).substr(0, cut), std::string_view(stream).substr(cut)}) {
      reader.append(part);
      while (const auto message = reader.next()) read += encode(message->value());
    }
    ASSERT_EQ(read, stream) << cut;
  }
}

TEST_F(Protocol, aStreamThatFailedStaysFailed) {
  MessageReader reader;
  reader.append("{\"is\":\"wake\"}\n{}\n{\"is\":\"wake\"}\n");
  ASSERT_TRUE(reader.next()->has_value());
  for (int n = 0; n < 2; ++n) {
    EXPECT_EQ(reader.next()->error(), "“is” is missing");
    reader.append("{\"is\":\"wake\"}\n");
  }
}

TEST_F(Protocol, theLongestLineIsReadAndNoLongerOne) {
  std::string line = encode(transfer::Refused{.reason = ""});
  line = encode(transfer::Refused{.reason = std::string(transfer::kMaxMessageBytes - line.size(), 'x')});
  ASSERT_EQ(line.size(), transfer::kMaxMessageBytes);
  MessageReader reader;
  reader.append(line);
  EXPECT_TRUE(reader.next()->has_value());
  EXPECT_FALSE(reader.next());
  line.insert(line.size() - 3, "x");
  reader.append(line);
  EXPECT_EQ(reader.next()->error(), "longer than 1048576 bytes");
  EXPECT_EQ(refusal(line), "longer than 1048576 bytes");
  MessageReader endless;
  endless.append(std::string(transfer::kMaxMessageBytes - 1, ' '));
  EXPECT_FALSE(endless.next());
  endless.append(" ");
  EXPECT_EQ(endless.next()->error(), "longer than 1048576 bytes");
}

// A reader that looked at all it holds for each byte that comes would take hours here.
TEST_F(Protocol, aLongLineByteForByteTakesLinearTime) {
  const std::string line = encode(transfer::Refused{.reason = std::string(transfer::kMaxMessageBytes - 100, 'x')});
  MessageReader reader;
  for (std::size_t n = 0; n + 1 < line.size(); ++n) {
    reader.append(std::string_view(line).substr(n, 1));
    ASSERT_FALSE(reader.next());
  }
  reader.append("\n");
  EXPECT_TRUE(reader.next()->has_value());
}

TEST_F(Protocol, mutatedInputsNeverRaise) {
  std::vector<std::string> seeds;
  for (const Message& message : everyMessage()) seeds.push_back(encode(message));
  seeds.push_back(encode(test::entryFor("one")));
  std::mt19937 generator(20261121);  // NOLINT(cert-msc51-cpp): the same inputs in every run
  const auto below = [&](std::size_t bound) { return std::uniform_int_distribution<std::size_t>(0, bound - 1)(generator); };
  constexpr std::array<std::string_view, 10> kPieces = {"\"",      "{",     "}",    "[", "\n",
                                                        "\\u0000", "1e999", "null", "-", "18446744073709551616"};
  for (int n = 0; n < 6000; ++n) {
    std::string input = seeds[below(seeds.size())];
    for (std::size_t change = 0; change <= below(4); ++change) {
      const std::size_t at = below(input.size());
      if (n % 3 == 0) {
        input[at] = static_cast<char>(below(256));
      } else if (n % 3 == 1) {
        input.insert(at, kPieces.at(below(kPieces.size())));
      } else {
        input.erase(at, 1 + below(8));
      }
      if (input.empty()) input = " ";
    }
    ASSERT_NO_THROW(takeAnything(input)) << input;
    ASSERT_FALSE(HasFailure()) << input;
  }
}

}  // namespace

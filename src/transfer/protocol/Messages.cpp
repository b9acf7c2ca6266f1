// The messages as lines of JSON, both ways.
#include "transfer/protocol/Messages.h"

#include <array>
#include <functional>
#include <type_traits>

#include "transfer/protocol/Members.h"

namespace transfer {
namespace {

using detail::MemberReader;
using detail::numberValue;
using detail::textValue;
using platform::Array;
using platform::Dictionary;
using platform::Value;

constexpr std::array<std::string_view, 3> kStates = {"waiting", "running", "completed"};
constexpr std::int64_t kHighestStatusCode = 999;

// Writing.

Value taskValue(const TaskStatus& task) {
  Dictionary object{{"identifier", Value(task.identifier)}, {"state", Value(kStates.at(static_cast<std::size_t>(task.state)))},
                    {"url", textValue(task.url)},           {"file", textValue(task.file)},
                    {"bytesSent", Value(task.bytesSent)},   {"bytesExpected", Value(task.bytesExpected)},
                    {"tries", Value(task.tries)},           {"statusCode", Value(task.statusCode)}};
  if (task.nextTryAt) object.setObjectForKey(numberValue(*task.nextTryAt), "nextTryAt");
  if (task.error) object.setObjectForKey(detail::errorValue(*task.error), "error");
  return object;
}

Value tasksValue(const std::vector<TaskStatus>& tasks) {
  Array values;
  for (const TaskStatus& task : tasks) values.addObject(taskValue(task));
  return values;
}

Dictionary objectFor(const Hello& hello) {
  Dictionary object{
      {"is", "hello"}, {"version", Value(hello.version)}, {"application", detail::applicationValue(hello.application)}};
  if (!hello.leavesLaunchCommand) object.setObjectForKey(detail::textsValue(hello.launchCommand), "launchCommand");
  return object;
}
Dictionary objectFor(const Hold& hold) {
  return {{"is", "hold"}, {"session", textValue(hold.session)}, {"wasLaunchedForIt", Value(hold.wasLaunchedForIt)}};
}
Dictionary objectFor(const GetTasks& getTasks) {
  return {{"is", "getTasks"}, {"request", Value(getTasks.request)}, {"session", textValue(getTasks.session)}};
}
Dictionary objectFor(const Wake& /*wake*/) { return {{"is", "wake"}}; }
Dictionary objectFor(const Handed& handed) {
  return {{"is", "handed"}, {"session", textValue(handed.session)}, {"event", Value(handed.event)}};
}
Dictionary objectFor(const Invalidate& invalidate) { return {{"is", "invalidate"}, {"session", textValue(invalidate.session)}}; }
Dictionary objectFor(const Cancel& cancel) { return {{"is", "cancel"}, {"session", textValue(cancel.session)}}; }
Dictionary objectFor(const List& list) { return {{"is", "list"}, {"request", Value(list.request)}}; }
Dictionary objectFor(const Welcome& welcome) { return {{"is", "welcome"}, {"version", Value(welcome.version)}}; }
Dictionary objectFor(const Refused& refused) { return {{"is", "refused"}, {"reason", textValue(refused.reason)}}; }
Dictionary objectFor(const SessionTasks& answer) {
  return {{"is", "sessionTasks"},
          {"request", Value(answer.request)},
          {"session", textValue(answer.session)},
          {"tasks", tasksValue(answer.tasks)}};
}
Dictionary objectFor(const Listed& listed) { return {{"is", "listed"}, {"request", Value(listed.request)}}; }
Dictionary objectFor(const TaskEvent& event) {
  return {
      {"is", "taskEvent"}, {"session", textValue(event.session)}, {"event", Value(event.event)}, {"task", taskValue(event.task)}};
}
Dictionary objectFor(const EventsDelivered& delivered) {
  return {{"is", "eventsDelivered"}, {"session", textValue(delivered.session)}};
}
Dictionary objectFor(const Invalidated& invalidated) {
  return {{"is", "invalidated"}, {"session", textValue(invalidated.session)}};
}

// Reading.

TaskStatus::State readState(MemberReader& reader) {
  const std::string name = reader.text("state");
  for (std::size_t i = 0; i < kStates.size(); ++i)
    if (kStates.at(i) == name) return static_cast<TaskStatus::State>(i);
  reader.fail("“state” is unknown");
  return TaskStatus::State::kWaiting;
}

TaskStatus readTask(MemberReader& outer, const Dictionary& object) {
  MemberReader reader(object);
  TaskStatus task{.identifier = reader.whole("identifier"),
                  .state = readState(reader),
                  .url = reader.text("url"),
                  .file = reader.text("file"),
                  .bytesSent = reader.whole("bytesSent"),
                  .bytesExpected = reader.whole("bytesExpected"),
                  .tries = reader.whole("tries"),
                  .nextTryAt = reader.optionalNumber("nextTryAt"),
                  .error = reader.optionalError("error"),
                  .statusCode = reader.wholeUpTo("statusCode", kHighestStatusCode)};
  outer.takeFailure(reader);
  return task;
}

std::vector<TaskStatus> readTasks(MemberReader& reader) {
  std::vector<TaskStatus> tasks;
  for (const Array values = reader.array("tasks"); const Value& value : values) {
    if (!value.isObject()) {
      reader.fail("“tasks” holds what is no object");
      return {};
    }
    tasks.push_back(readTask(reader, value.object()));
  }
  return tasks;
}

std::int64_t readVersion(MemberReader& reader) { return reader.wholeUpTo("version", INT64_MAX); }
std::string readSession(MemberReader& reader) { return reader.nonEmptyText("session"); }

struct MessageKind {
  std::string_view is;
  Message (*read)(MemberReader& reader);
};

constexpr std::array<MessageKind, std::variant_size_v<Message>> kMessages = {{
    {"hello",
     [](MemberReader& reader) -> Message {
       Hello hello;
       hello.version = readVersion(reader);
       hello.application = reader.application("application");
       hello.leavesLaunchCommand = !reader.has("launchCommand");
       if (!hello.leavesLaunchCommand) hello.launchCommand = reader.command("launchCommand");
       return hello;
     }},
    {"hold", [](MemberReader& reader) -> Message { return Hold{readSession(reader), reader.boolean("wasLaunchedForIt")}; }},
    {"getTasks", [](MemberReader& reader) -> Message { return GetTasks{reader.whole("request"), readSession(reader)}; }},
    {"wake", [](MemberReader& /*reader*/) -> Message { return Wake{}; }},
    {"handed", [](MemberReader& reader) -> Message { return Handed{readSession(reader), reader.whole("event")}; }},
    {"invalidate", [](MemberReader& reader) -> Message { return Invalidate{readSession(reader)}; }},
    {"cancel", [](MemberReader& reader) -> Message { return Cancel{readSession(reader)}; }},
    {"list", [](MemberReader& reader) -> Message { return List{reader.whole("request")}; }},
    {"welcome", [](MemberReader& reader) -> Message { return Welcome{readVersion(reader)}; }},
    {"refused", [](MemberReader& reader) -> Message { return Refused{reader.text("reason")}; }},
    {"sessionTasks",
     [](MemberReader& reader) -> Message { return SessionTasks{reader.whole("request"), readSession(reader), readTasks(reader)}; }},
    {"listed", [](MemberReader& reader) -> Message { return Listed{reader.whole("request")}; }},
    {"taskEvent",
     [](MemberReader& reader) -> Message {
       return TaskEvent{readSession(reader), reader.whole("event"), readTask(reader, reader.object("task"))};
     }},
    {"eventsDelivered", [](MemberReader& reader) -> Message { return EventsDelivered{readSession(reader)}; }},
    {"invalidated", [](MemberReader& reader) -> Message { return Invalidated{readSession(reader)}; }},
}};

}  // namespace

std::string encode(const Message& message) {
  return std::visit([](const auto& each) { return detail::lineOf(objectFor(each)); }, message);
}

std::expected<Message, std::string> decode(std::string_view line) {
  if (line.ends_with('\n')) line.remove_suffix(1);
  if (line.size() >= kMaxMessageBytes) return std::unexpected("longer than " + std::to_string(kMaxMessageBytes) + " bytes");
  const std::expected<Dictionary, std::string> object = detail::objectOf(line);
  if (!object) return std::unexpected(object.error());
  MemberReader reader(*object);
  const std::string is = reader.text("is");
  if (reader.failure()) return std::unexpected(*reader.failure());
  for (const MessageKind& kind : kMessages) {
    if (kind.is != is) continue;
    Message message = kind.read(reader);
    if (reader.failure()) return std::unexpected(is + ": " + *reader.failure());
    return message;
  }
  return std::unexpected("“is” is unknown");
}

void MessageReader::append(std::string_view bytes) {
  if (!failure_) buffer_.append(bytes);
}

std::optional<std::expected<Message, std::string>> MessageReader::next() {
  if (failure_) return std::unexpected(*failure_);
  const std::size_t end = buffer_.find('\n', scanned_);
  const std::size_t length = (end == std::string::npos ? buffer_.size() : end) - taken_;
  if (length >= kMaxMessageBytes) return fail("longer than " + std::to_string(kMaxMessageBytes) + " bytes");
  if (end == std::string::npos) {
    dropTaken();
    scanned_ = buffer_.size();
    return std::nullopt;
  }
  std::expected<Message, std::string> message = decode(std::string_view(buffer_).substr(taken_, length));
  taken_ = scanned_ = end + 1;
  if (!message) return fail(message.error());
  return message;
}

// Only when more bytes are needed, and so once for each append: what is moved is at most one unfinished line.
void MessageReader::dropTaken() {
  buffer_.erase(0, taken_);
  taken_ = 0;
}

std::expected<Message, std::string> MessageReader::fail(const std::string& reason) {
  failure_ = reason;
  buffer_ = {};
  return std::unexpected(reason);
}

}  // namespace transfer

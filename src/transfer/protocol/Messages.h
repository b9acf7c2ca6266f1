// What an application and the transfer service say to each other: one JSON object a line over a Unix stream socket.
//
// docs/transfer-service.md has the protocol in words. Both sides read with decode(), which takes nothing on trust: what is not
// exactly a message of this version is refused with a reason and never raises.
#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/Error.h"

namespace transfer {

inline constexpr std::int64_t kProtocolVersion = 1;
/// The longest line that is read, its line feed included.
inline constexpr std::size_t kMaxMessageBytes = std::size_t{1024} * 1024;

/// Who an application is to the service: its identifier, its own folder, and a random token that only that folder holds.
struct ApplicationIdentity {
  std::string identifier;
  std::string folder;  // absolute
  std::string token;   // 64 hexadecimal digits
  friend bool operator==(const ApplicationIdentity&, const ApplicationIdentity&) = default;
};

/// A task as the service knows it.
struct TaskStatus {
  enum class State { kWaiting, kRunning, kCompleted };  // waiting: for its turn or for its next try
  std::uint64_t identifier = 0;
  State state = State::kWaiting;
  std::string url;
  std::string file;
  std::uint64_t bytesSent = 0;  // of the present try
  std::uint64_t bytesExpected = 0;
  std::uint64_t tries = 0;               // begun so far
  std::optional<double> nextTryAt;       // seconds since 1970
  std::optional<platform::Error> error;  // how it ended, or why the last try failed
  std::int64_t statusCode = 0;           // of the answer; 0 before there is one
};

// From the application.

/// First message on every connection.
struct Hello {
  std::int64_t version = kProtocolVersion;
  ApplicationIdentity application;
  /// The command that launches the application for its events, an absolute path first; empty when the application has none.
  std::vector<std::string> launchCommand;
  /// Who only looks has no command to tell: the one that the service has stays. Left out of the message is what says so.
  bool leavesLaunchCommand = false;
};
/// This process has made the session. The service answers with SessionTasks and hands over the session's events from now on.
struct Hold {
  std::string session;
  bool wasLaunchedForIt = false;
};
/// Asks for the session's tasks; answered with SessionTasks of the same request number.
struct GetTasks {
  std::uint64_t request = 0;
  std::string session;
};
/// Tasks were put into the spool folder.
struct Wake {};
/// The delegate operation of that event has returned.
struct Handed {
  std::string session;
  std::uint64_t event = 0;
};
/// Ends the session's unended tasks with -999, and the session when all events are handed over; answered with Invalidated then.
struct Invalidate {
  std::string session;
};
/// Ends the session's unended tasks with -999; the session stays.
struct Cancel {
  std::string session;
};
/// Asks for all sessions of the application; answered with one SessionTasks for each and Listed.
struct List {
  std::uint64_t request = 0;
};

// From the service.

struct Welcome {
  std::int64_t version = kProtocolVersion;
};
/// The connection is closed after it.
struct Refused {
  std::string reason;
};
struct SessionTasks {
  std::uint64_t request = 0;  // 0 when it answers Hold
  std::string session;
  std::vector<TaskStatus> tasks;  // by identifier
};
struct Listed {
  std::uint64_t request = 0;
};
/// A task has ended. Handed over again after a reconnection until Handed has been recorded.
struct TaskEvent {
  std::string session;
  std::uint64_t event = 0;  // unique within the session, growing
  TaskStatus task;          // completed; with the error, or without one
};
/// The events that had come up while nobody held the session are recorded as handed over.
struct EventsDelivered {
  std::string session;
};
struct Invalidated {
  std::string session;
};

using Message = std::variant<Hello, Hold, GetTasks, Wake, Handed, Invalidate, Cancel, List, Welcome, Refused, SessionTasks, Listed,
                             TaskEvent, EventsDelivered, Invalidated>;

/// One line, its line feed included. Never fails: bytes that are no UTF-8 become U+FFFD, numbers that JSON does not know become 0.
std::string encode(const Message& message);
/// Of one line, with or without its line feed; the reason when it is no message.
std::expected<Message, std::string> decode(std::string_view line);

/// Cuts a stream into messages.
class MessageReader {
 public:
  /// Takes bytes as they came; drops them once something has failed.
  void append(std::string_view bytes);
  /// The next whole message; absent when more bytes are needed. A line that is no message, or is too long, gives its reason, and so
  /// does every call after it.
  std::optional<std::expected<Message, std::string>> next();

 private:
  void dropTaken();
  std::expected<Message, std::string> fail(const std::string& reason);

  std::string buffer_;
  std::size_t taken_ = 0;    // bytes of the buffer that were handed out
  std::size_t scanned_ = 0;  // bytes known to hold no line feed
  std::optional<std::string> failure_;
};

}  // namespace transfer

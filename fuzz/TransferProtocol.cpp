// What applications and the transfer service say to each other: single lines, whole streams in any pieces, and spool entries.
//
// Input: a byte with the size of the pieces that the stream comes in, and the stream.
#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <vector>

#include "common/Check.h"
#include "common/Input.h"
#include "support/TestProcess.h"
#include "transfer/protocol/Messages.h"
#include "transfer/protocol/SpoolEntry.h"

namespace {

/// The texts of the messages of a stream, and the reason it ended with.
struct Conversation {
  std::vector<std::string> messages;
  std::optional<std::string> failure;
  friend bool operator==(const Conversation&, const Conversation&) = default;
};

/// Line by line, without a reader.
Conversation expectedConversation(std::string_view stream) {
  Conversation conversation;
  for (auto end = stream.find('\n'); end != std::string_view::npos; end = stream.find('\n')) {
    const auto message = transfer::decode(stream.substr(0, end));
    if (!message) {
      conversation.failure = message.error();
      return conversation;
    }
    conversation.messages.push_back(transfer::encode(*message));
    stream.remove_prefix(end + 1);
  }
  if (stream.size() >= transfer::kMaxMessageBytes)
    conversation.failure = "longer than " + std::to_string(transfer::kMaxMessageBytes) + " bytes";
  return conversation;
}

Conversation inPieces(std::string_view stream, std::size_t piece) {
  Conversation conversation;
  transfer::MessageReader reader;
  for (std::size_t at = 0; at < stream.size(); at += piece) {
    reader.append(stream.substr(at, piece));
    while (const auto message = reader.next()) {
      if (!*message) {
        fuzz::check(!conversation.failure || *conversation.failure == message->error(), "a failed reader gave another reason");
        conversation.failure = message->error();
        break;
      }
      fuzz::check(!conversation.failure, "a failed reader gave a message");
      conversation.messages.push_back(transfer::encode(**message));
    }
  }
  return conversation;
}

void checkMessage(std::string_view line) {
  const auto message = transfer::decode(line);
  if (!message) return;
  const std::string encoded = transfer::encode(*message);
  fuzz::check(encoded.ends_with('\n') && encoded.find('\n') == encoded.size() - 1, "a message is not one line");
  const auto again = transfer::decode(encoded);
  fuzz::check(again.has_value(), "an encoded message is refused");
  fuzz::check(again->index() == message->index(), "a message became one of another kind");
  fuzz::check(transfer::encode(*again) == encoded, "a message is encoded differently the second time");
}

void checkSpoolEntry(std::string_view line) {
  const auto entry = transfer::decodeSpoolEntry(line);
  if (!entry) return;
  const std::string encoded = transfer::encode(*entry);
  const auto again = transfer::decodeSpoolEntry(encoded);
  fuzz::check(again.has_value(), "an encoded entry is refused");
  fuzz::check(*again == *entry, "an entry changed on the way");
  fuzz::check(transfer::encode(*again) == encoded, "an entry is encoded differently the second time");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static test::TestProcess process({.faults = false, .debug = false});
  fuzz::Input input(data, size);
  const std::size_t piece = std::size_t{1} + input.byte();
  const std::string_view stream = input.rest();
  const Conversation expected = expectedConversation(stream);
  fuzz::check(inPieces(stream, piece) == expected, "pieces made another conversation");
  fuzz::check(inPieces(stream, std::max<std::size_t>(stream.size(), 1)) == expected, "a reader cut a stream in other places");
  while (!input.isAtEnd()) {
    const std::string_view line = input.line();
    checkMessage(line);
    checkSpoolEntry(line);
  }
  return 0;
}

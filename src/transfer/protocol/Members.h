// Reading and writing the members of one JSON object, for what applications and the transfer service exchange.
//
// A reader takes nothing on trust: the first member that is missing or of the wrong kind is remembered as its failure, and what was
// asked for reads as empty from there on. So a structure is read member by member, and judged once at the end.
#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Error.h"
#include "platform/Value.h"
#include "transfer/protocol/Messages.h"

namespace transfer::detail {

class MemberReader {
 public:
  explicit MemberReader(const platform::Dictionary& object) : object_(object) {}

  std::string text(std::string_view key);
  std::string nonEmptyText(std::string_view key);
  /// Absent when the member is; it must be a text when it is there.
  std::optional<std::string> optionalText(std::string_view key);
  std::string absolutePath(std::string_view key);
  std::vector<std::string> texts(std::string_view key);
  /// Empty, or an absolute path with its arguments.
  std::vector<std::string> command(std::string_view key);
  std::uint64_t whole(std::string_view key);
  /// A whole number from 0 to `most`.
  std::int64_t wholeUpTo(std::string_view key, std::int64_t most);
  bool boolean(std::string_view key);
  /// A finite number that is not negative.
  double number(std::string_view key);
  std::optional<double> optionalNumber(std::string_view key);
  platform::Dictionary object(std::string_view key);
  platform::Array array(std::string_view key);
  ApplicationIdentity application(std::string_view key);
  std::optional<platform::Error> optionalError(std::string_view key);

  bool has(std::string_view key) const { return object_.find(key) != nullptr; }
  /// The first failure counts.
  void fail(std::string reason) {
    if (!failure_) failure_ = std::move(reason);
  }
  /// Also takes over the failure of a part.
  void takeFailure(const MemberReader& part) {
    if (part.failure_) fail(*part.failure_);
  }
  const std::optional<std::string>& failure() const { return failure_; }

 private:
  const platform::Value* member(std::string_view key);

  platform::Dictionary object_;
  std::optional<std::string> failure_;
};

/// The object that a text holds, or the reason why it holds none: no line feed inside, no NUL, well-formed UTF-8, one JSON object.
std::expected<platform::Dictionary, std::string> objectOf(std::string_view text);

/// Well-formed text stays; each byte that belongs to no character becomes U+FFFD, so that nothing that is said can fail to be
/// written.
platform::Value textValue(std::string_view text);
platform::Value textsValue(const std::vector<std::string>& texts);
platform::Value applicationValue(const ApplicationIdentity& application);
platform::Value errorValue(const platform::Error& error);
/// JSON knows no infinity and no NaN; they become 0.
platform::Value numberValue(double number);
/// One line with its line feed.
std::string lineOf(const platform::Dictionary& object);

}  // namespace transfer::detail

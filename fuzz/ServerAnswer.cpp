// Whatever a server answers to events, a share or a share refresh, through the real client: what the delegate is told, what is sent
// again, what is kept, and that the process ends where it is meant to and nowhere else.
//
// Input: a line with the operation ('e' events, 's' share, 'r' refresh) and the status, a line with a time, a line with the
// www-authenticate field (an '@' becomes the MAC over that time; empty for none), and the body. Both tries get the same answer.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/Challenge.h"
#include "common/Check.h"
#include "common/Input.h"
#include "common/SecondJSON.h"
#include "companions/KSVFeatureControl.h"
#include "support/KSVDataInspector.h"
#include "support/TestProcess.h"

namespace {

using platform::Array;
using platform::Dictionary;
using platform::Value;

/// What a client does with an answer.
struct Outcome {
  std::vector<std::string> told;  // calls of the delegate and of the refresh's callback
  bool isDead = false;

  void tell(const char* operation, const Value& value) { told.push_back(operation + (": " + value.description())); }
};

class RecordingDelegate final : public KSVDelegate {
 public:
  explicit RecordingDelegate(Outcome& outcome) : outcome_(outcome) {}
  void setUserId(const Value& userId) override { outcome_.tell("user", userId); }
  void setAppIdentifier(const Value& appIdentifier) override { outcome_.tell("app", appIdentifier); }
  void handleEventsFromServer(const Value& notifications) override { outcome_.tell("notifications", notifications); }

 private:
  Outcome& outcome_;
};

struct Answer {
  std::int64_t status = 0;
  std::string challenge;
  std::string_view body;
};

const Value* memberOf(const Value& object, const char* name) {
  const Value* const member = object.object().find(name);
  return member && !member->isNull() ? member : nullptr;
}

bool isContainer(const Value& value) { return value.isArray() || value.isObject(); }

/// Directives are followed one after the other; the first that cannot be ends the process.
void expectDirectives(const Value& answer, Outcome& outcome) {
  if (!answer.isObject()) {
    outcome.isDead = true;
    return;
  }
  if (const Value* const user = memberOf(answer, "referralCode")) outcome.tell("user", *user);
  if (const Value* const path = memberOf(answer, "urlPath")) outcome.tell("app", *path);
  if (const Value* const notifications = memberOf(answer, "notifications")) {
    outcome.isDead = !isContainer(*notifications);
    if (outcome.isDead) return;
    const bool isEmpty = notifications->isArray() ? notifications->array().empty() : notifications->object().empty();
    if (!isEmpty) outcome.tell("notifications", *notifications);
  }
  if (const Value* const features = memberOf(answer, "features")) outcome.isDead = isContainer(*features);
}

/// The first eight characters of well-formed UTF-8; absent when there are fewer.
std::optional<std::string> firstEight(std::string_view text) {
  std::size_t characters = 0;
  for (std::size_t at = 0; at <= text.size(); ++at) {
    const bool begins = at == text.size() || (static_cast<unsigned char>(text[at]) & 0xC0) != 0x80;
    if (begins && characters++ == 8) return std::string(text.substr(0, at));
  }
  return std::nullopt;
}

void expectSubmission(const Value& answer, Outcome& outcome) {
  if (!answer.isObject()) {
    outcome.isDead = true;
    return;
  }
  const Value* const data = memberOf(answer, "data");
  if (!data) return;
  outcome.isDead = !data->isObject();
  const Value* const code = outcome.isDead ? nullptr : memberOf(*data, "id");
  if (!code) return;
  const auto user = code->isString() ? firstEight(code->string()) : std::nullopt;
  outcome.isDead = !user.has_value();
  if (user) outcome.tell("user", Value(*user));
}

void expectRefresh(const std::optional<Value>& answer, Outcome& outcome) {
  std::size_t shares = 0;
  if (answer) {
    outcome.isDead = !answer->isObject();
    const Value* const data = outcome.isDead ? nullptr : memberOf(*answer, "data");
    outcome.isDead = outcome.isDead || (data && !isContainer(*data));
    if (outcome.isDead) return;
    if (data && data->isArray())
      for (const Value& element : data->array()) shares += KSVShare::deserialize(element) ? 1 : 0;
  }
  outcome.tell("shares", Value(shares));
}

Outcome expectedOutcome(char operation, const Answer& answer) {
  Outcome outcome;
  const bool isTaken = answer.status < 400;
  const auto json = isTaken ? fuzz::readBySecondParser(answer.body) : std::nullopt;
  if (operation == 'r') expectRefresh(json, outcome);
  if (operation == 's' && json) expectSubmission(*json, outcome);
  if (operation == 'e' && json) expectDirectives(*json, outcome);
  return outcome;
}

std::shared_ptr<KSVShare> someShare() {
  auto share = std::make_shared<KSVShare>();
  share->referralCode = std::make_shared<const KSVReferralCode>(KSVReferralCode{"abcdefgh", "1234"});
  return share;
}

class Exchange {
 public:
  explicit Exchange(char operation) : operation_(operation) { client_->setDelegate(delegate_); }

  void run(const Answer& answer) {
    begin();
    process_.runAll();
    fuzz::check(process_.urlSession().pending().size() == 1, "nothing was sent");
    for (posts_ = 0; !process_.urlSession().pending().empty(); ++posts_) {
      fuzz::check(posts_ < 2, "a third post");
      if (answer.challenge.empty())
        process_.answer(answer.status, answer.body);
      else
        process_.answer(answer.status, answer.body, {{"WWW-Authenticate", answer.challenge}});
      process_.runAll();
    }
  }

  void check(const Answer& answer, const Outcome& expected) {
    fuzz::check(outcome_.told == expected.told, "other things were told");
    const auto reasons = process_.uncaughtReasons();
    fuzz::check(reasons.empty() != expected.isDead, expected.isDead ? "the process lives on" : "the process ended");
    for (const std::string& reason : reasons)
      fuzz::check(reason.starts_with("*** Terminating app due to uncaught exception 'NSInvalidArgumentException'"),
                  "the process ended otherwise: " + reason);
    checkPosts(answer);
    if (operation_ == 'e') checkRecords(answer);
  }

 private:
  void begin() {
    if (operation_ == 's') return client_->submitShare(someShare());
    if (operation_ == 'r') {
      return client_->updateSharesFromServerWithCallback(
          KSVShares{someShare()}, [this](const KSVShares& shares) { outcome_.tell("shares", Value(shares.size())); });
    }
    client_->createEvent("opened");
    client_->sendEventQueueToServer();
  }

  bool isCorrected() { return process_.userDefaults().objectForKey(test::TestProcess::kSkewKey).has_value(); }

  /// The clock is corrected by a challenge and by nothing else, and only then is there a second post.
  void checkPosts(const Answer& answer) {
    const bool isChallenge = answer.status == 401 && !answer.challenge.empty() && operation_ != 'r';
    fuzz::check(!isCorrected() || isChallenge, "the clock was corrected without a challenge");
    fuzz::check(posts_ == (isCorrected() ? 2U : 1U), "a post too many or too few");
  }

  /// A batch that was refused without a challenge waits in the file; every other one is gone.
  void checkRecords(const Answer& answer) {
    const bool isKept = answer.status >= 400 && (answer.status != 401 || answer.challenge.empty());
    const auto file = process_.queueFile();
    fuzz::check(file.has_value() == isKept, isKept ? "the batch was lost" : "a batch was kept");
    if (file) fuzz::check(file->find("\"event\":\"opened\"") != std::string::npos, "another batch was kept");
    fuzz::check(KSVDataInspector(client_).diskCacheQueue().empty(), "a record stayed in memory");
  }

  const char operation_;
  Outcome outcome_;
  std::size_t posts_ = 0;
  test::TestProcess process_{{.faults = false}};
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>(outcome_);
  std::shared_ptr<KSVData> client_ = process_.makeClient();
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::string_view first = input.line();
  const bool isOther = first.starts_with('s') || first.starts_with('r');
  const char operation = isOther ? first.front() : 'e';
  Answer answer;
  answer.status = std::atoll(std::string(first.substr(std::min<std::size_t>(first.size(), 1))).c_str());
  const std::string_view time = input.line();
  answer.challenge = fuzz::withMac(input.line(), time);
  // No header carries these; the answer then has no such field.
  if (answer.challenge.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) answer.challenge.clear();
  answer.body = input.rest();

  Exchange exchange(operation);
  exchange.run(answer);
  exchange.check(answer, expectedOutcome(operation, answer));
  return 0;
}

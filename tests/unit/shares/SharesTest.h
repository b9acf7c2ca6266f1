// What the tests of the shares have in common: a client over the twins, a server that the test plays, challenges as it signs them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "../api/ApiTest.h"
#include "companions/KSVShare.h"
#include "support/FaultyServices.h"

namespace test {

class SharesTest : public ApiTest {
 protected:
  static std::shared_ptr<KSVShare> share(std::optional<std::string> userId, std::optional<std::string> shareId) {
    auto made = std::make_shared<KSVShare>();
    made->referralCode = std::make_shared<const KSVReferralCode>(KSVReferralCode{std::move(userId), std::move(shareId)});
    return made;
  }
  static std::shared_ptr<KSVShare> shareWithText(const std::string& text) {
    auto made = std::make_shared<KSVShare>();
    made->data = Dictionary{{"text", text}};
    return made;
  }

  std::vector<platform::URLRequest> requests() { return process.urlSession().requests(); }
  std::size_t requestCount() { return requests().size(); }

  /// The server's answer, and what comes of it.
  void serve(std::int64_t status, std::string_view body, ScriptedURLSession::Fields fields = {}) {
    process.answer(status, body, fields);
    process.runAll();
  }
  void refuseAsStale(std::int64_t serverTime) {
    const std::string header = challenge(serverTime);
    serve(401, "", {{"www-authenticate", header}});
  }
  void loseConnection(std::int64_t code) {
    process.failRequest(code);
    process.runAll();
  }
  /// An end of the exchange that no server brings about: what the platform may still hand over.
  void endWith(std::optional<platform::Data> data, platform::HTTPURLResponseRef response, std::optional<platform::Error> error) {
    process.urlSession().next()->end(std::move(data), std::move(response), std::move(error));
    process.runAll();
  }

  /// How often a correction was stored.
  std::size_t storedSkews() { return static_cast<std::size_t>(process.plan().count("UserDefaults.setObject")); }
  std::int64_t skew() { return inspect.getLocalTimeSkew(); }

  /// What would have ended the process; the one thing, or what else there is.
  std::string uncaught() {
    const auto reasons = process.uncaughtReasons();
    if (reasons.empty()) return "nothing";
    return reasons.size() == 1 ? reasons.front() : std::to_string(reasons.size()) + " of them";
  }

  static std::string terminated(const std::string& reason) {
    return "*** Terminating app due to uncaught exception 'NSInvalidArgumentException', reason: '" + reason + "'";
  }

  /// JSON that nests deeper than is read.
  static std::string nested(std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

  static constexpr std::int64_t kServer = static_cast<std::int64_t>(kStart) + 100;
  static constexpr const char* kInvalidJSON =
      "Got invalid JSON from server: The data couldn’t be read because it isn’t in the correct format.";
};

/// For what stays out of the debug trace.
class QuietSharesTest : public SharesTest {
 protected:
  QuietSharesTest() { process.process().debug = false; }
};

}  // namespace test

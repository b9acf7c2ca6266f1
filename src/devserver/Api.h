// The API and the server's own pages, apart from the wire: what a request means, whether it is taken, and what is answered.
//
// A request comes in two steps, so that nobody unknown can make the server read a body: Exchange is made from the header and
// verifies it; only then says plan() whether the body is wanted. finish() verifies the rest, applies misbehaviour, writes the
// journal and answers.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "devserver/Behaviour.h"
#include "devserver/Feed.h"
#include "devserver/Gifs.h"
#include "devserver/HawkVerifier.h"
#include "devserver/Journal.h"
#include "devserver/Sessions.h"
#include "devserver/Shares.h"
#include "devserver/SignatureChecks.h"
#include "devserver/Story.h"
#include "platform/Value.h"

namespace devserver {

/// The longest body of a JSON request, of a share, and of a GIF, in bytes.
inline constexpr std::uint64_t kMaxTextBody = 64ULL * 1024 * 1024;
inline constexpr std::uint64_t kMaxShareBody = 256ULL * 1024;
inline constexpr std::uint64_t kMaxGif = 1024ULL * 1024 * 1024;

/// The header of a request as it was received.
struct RequestHead {
  std::string method;
  std::string target;
  std::string host;
  std::optional<std::string> authorization;
  std::string contentType;
  std::optional<std::string> origin;  // there when it was sent by a page in a browser
  std::string fetchSite;              // Sec-Fetch-Site: where the page is from, as the browser says
  bool hasPageMark = false;           // sent by a script of the live page, which no other page can imitate
  bool acceptsHtml = false;
  std::optional<std::string> lastEventId;  // where a live stream broke off
  bool isAmbiguous = false;                // Host or Authorization more than once, or no Host
  std::uint64_t connection = 0;            // which of the server's connections it came on

  std::string_view path() const { return std::string_view(target).substr(0, target.find('?')); }
  /// The value of a query parameter as it stands; absent when there is none.
  std::optional<std::string> parameter(std::string_view name) const;
  /// The target without what signs a link, which would be good for whoever reads it.
  std::string shownTarget() const;
};

/// What the connection is to do once a request is dealt with.
struct Reaction {
  std::optional<Answer> answer;  // absent: close without one
  /// The answer has no end: after its body come the feed's items with numbers above this one, as server-sent events.
  std::optional<std::uint64_t> follows;
  std::chrono::milliseconds delay{0};
};

/// What all connections share. Any thread.
class Api {
 public:
  using Now = std::function<std::chrono::milliseconds()>;

  /// Whether the header of an upload that was not taken may come again.
  enum class Uploads { kRepeatable, kStrict };

  Api(HawkVerifier::Keys keys, Journal& journal, Gifs& gifs, Uploads uploads, std::filesystem::path authorityFile, Now now);

  Behaviour& behaviour() { return behaviour_; }
  /// The time that requests are measured by.
  std::chrono::milliseconds serverTime() const { return now_() + behaviour_.clockOffset(); }
  Feed& feed() { return feed_; }

 private:
  friend class Exchange;

  std::string textPage() const;

  Behaviour behaviour_;
  HawkVerifier verifier_;
  Journal& journal_;
  Gifs& gifs_;
  const Uploads uploads_;
  const std::filesystem::path authorityFile_;
  const std::vector<std::string> applications_;
  const Now now_;
  std::atomic<std::uint64_t> taken_{0};
  Shares shares_;
  Sessions sessions_;
  const std::string run_;  // tells this run's numbers in the feed from those of another
  Feed feed_;
  Story story_{feed_};
};

/// One request on its way. Used by one thread.
class Exchange {
 public:
  struct Plan {
    bool wantsBody = false;
    std::uint64_t maxBody = 0;
  };

  Exchange(Api& api, RequestHead head);
  ~Exchange();
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  Plan plan() const;
  /// A piece of the body; not more than the plan allows in all. False when no more of it is wanted.
  bool take(std::string_view piece);
  /// The body was longer than the plan allows.
  void refuseLongBody();
  /// The connection ended, or failed, before the whole body had come. Nothing can be answered, but the journal says so.
  void abandon();
  Reaction finish();

 private:
  enum class Route {
    kPage,
    kPageFile,
    kFeed,
    kLiveFeed,
    kShownGif,
    kRecords,
    kBehaviour,
    kShareStates,
    kSessions,
    kEvents,
    kSubmitShare,
    kFindShares,
    kShareLink,
    kCookieMatch,
    kPatch,
    kGif,
    kNone
  };
  void route();
  void refuse(int status, std::string reason, std::string challenge = {});
  void refuse(HawkRefusal refusal) { refuse(refusal.status, std::move(refusal.reason), std::move(refusal.challenge)); }
  /// One of the server's own pages, which are neither journalled nor misbehaved with.
  bool isOwn() const { return route_ <= Route::kSessions; }
  /// A page of the API for people with a browser.
  bool isForBrowsers() const { return route_ == Route::kShareLink || route_ == Route::kCookieMatch; }
  bool hasTextBody() const { return route_ == Route::kEvents || route_ == Route::kSubmitShare || route_ == Route::kPatch; }

  /// Whether a request for the server's own pages comes from a program of this machine or from the live page.
  bool mayAskForOwn() const;
  bool isReadByPage() const { return route_ >= Route::kPageFile && route_ <= Route::kShownGif; }

  /// The server's time, which is that of the judgement from now on.
  std::chrono::milliseconds judgeNow() { return judgedAt_ = api_.serverTime(); }
  void verifyHeader();
  /// The nonce, which is used up unless somebody was there before, and the age.
  void verifyFreshness();
  void beginGif();
  /// Takes a GIF for good that would be answered like this; false when it cannot be.
  bool keepGif(int status);
  void verifyLink();
  void verifyBody();
  /// Reads what was posted, for the journal too, and refuses what the API does not take.
  void examine();
  std::expected<platform::Value, std::string> readPosted() const;
  std::expected<void, std::string> checkPosted(const platform::Value& data);

  Reaction finishOwn();
  Answer serveOwn();
  Answer servePage() const;
  Answer servePageFile() const;
  Answer serveFeed() const;
  Answer serveShownGif() const;
  Reaction beginLiveFeed() const;
  Answer serveRecords() const;
  Answer serveBehaviour();
  Answer serveShareStates();
  Answer serveApi();
  Answer serveSubmittedShare();
  Answer serveShareLink();
  Answer servePatch();
  Reaction misbehave(const Misbehaviour& misbehaviour) const;

  /// Who the request claims to come from, whether or not that is true: the verdict tells.
  struct Sender {
    std::optional<std::string> app;
    std::optional<std::string> device;
  };
  Sender claimedSender() const;
  bool record(int status, const char* misbehaviour);
  platform::Dictionary entryOf(int status, const char* misbehaviour) const;
  const char* kind() const;
  /// Tells the live page of the request.
  void tell(const std::optional<Answer>& answer, const char* misbehaviour) const;
  Judged judged() const;
  std::string identity() const;
  std::string nonceKey() const;
  void print(int status, std::string_view misbehaviour) const;
  std::string remark() const;

  Api& api_;
  const RequestHead head_;
  Route route_ = Route::kNone;
  std::optional<HawkTicket> ticket_;
  bool isSigned_ = false;       // the MAC of the header or link is right
  bool isNonceUsedUp_ = false;  // by this request
  std::chrono::milliseconds judgedAt_{};
  std::optional<Answer> refusal_;
  std::string verdict_ = "ok";
  std::string body_;
  std::uint64_t bodyBytes_ = 0;
  std::optional<std::string> hash_;  // of a body that came whole
  std::unique_ptr<Gifs::Intake> gif_;
  platform::Value posted_;        // the member "data" of a JSON body
  platform::Dictionary details_;  // what the journal says beyond the members that every entry has
};

}  // namespace devserver

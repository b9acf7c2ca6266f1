// The facade: starting once, the constants' sources, handing calls to the client, and standing between the client and the delegate.
#include "companions/Kestrova.h"

#include <unistd.h>

#include <array>
#include <barrier>
#include <thread>

#include "CompanionsTest.h"
#include "client/KSVData.h"
#include "companions/KSVConstants.h"
#include "platform/Exception.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "support/FixedBundle.h"
#include "support/KSVDataInspector.h"
#include "support/MemoryUserDefaults.h"
#include "support/RecordingBrowserOpener.h"
#include "support/RecordingSystemLog.h"
#include "support/ScriptedURLSession.h"
#include "support/SteppedQueues.h"
#include "support/TemporaryDirectory.h"

namespace test {
namespace {

using platform::Dictionary;
using platform::Value;

class RecordingDelegate final : public KSVDelegate {
 public:
  void setUserId(const Value& userId) override { calls.push_back("setUserId " + userId.description()); }
  void setAppIdentifier(const Value& appIdentifier) override { calls.push_back("setAppIdentifier " + appIdentifier.description()); }
  void handleEventsFromServer(const Value& notifications) override {
    calls.push_back("handleEventsFromServer " + std::to_string(notifications.count()));
  }
  std::vector<std::string> calls;
};

class KestrovaTest : public CompanionsTest {
 protected:
  KestrovaTest() {
    process.systemLog = std::make_shared<RecordingSystemLog>();
    process.uncaughtException = uncaught;
    process.json = platform::makeRapidJSONSerialization();
    process.bundle = std::make_shared<FixedBundle>();
    process.userDefaults = std::make_shared<MemoryUserDefaults>();
    process.queues = queues;
    process.urlSession = urlSession;
  }
  ~KestrovaTest() override { EXPECT_EQ(uncaught->descriptions(), std::vector<std::string>{}); }

  static Kestrova::Configuration configuration() {
    Kestrova::Configuration configuration;
    configuration.secret = "s3cr3t";
    configuration.apiHost = "api.example.com";
    return configuration;
  }

  std::shared_ptr<RecordingUncaughtException> uncaught = std::make_shared<RecordingUncaughtException>();
  std::shared_ptr<SteppedQueues> queues = std::make_shared<SteppedQueues>(uncaught);
  std::shared_ptr<ScriptedURLSession> urlSession = std::make_shared<ScriptedURLSession>(*queues);
};

// --- Starting.

TEST_F(KestrovaTest, TheStartMakesOneClientWithTheSecret) {
  EXPECT_EQ(Kestrova::shared(), nullptr);
  const auto facade = Kestrova::start(configuration());
  ASSERT_TRUE(facade && facade->data());
  EXPECT_EQ(Kestrova::shared(), facade);
  KSVDataInspector client(facade->data());
  EXPECT_EQ(client.appSecret(), "s3cr3t");
  EXPECT_EQ(client.appRDNS(), "com.example.app");
  EXPECT_EQ(facade->data()->delegate(), facade);
  EXPECT_EQ(urlSession->requests().size(), 0u);
}

TEST_F(KestrovaTest, LaterStartsGiveTheSameFacadeAndChangeNothing) {
  const auto facade = Kestrova::start(configuration());
  const auto client = facade->data();
  Kestrova::Configuration other;
  other.secret = "another";
  other.apiHost = "other.example.com";
  other.debug = true;
  other.mainExecutor = [](platform::DispatchQueue::Block) { FAIL() << "the executor came too late"; };
  EXPECT_EQ(Kestrova::start(other), facade);
  EXPECT_EQ(Kestrova::start({}), facade);
  EXPECT_EQ(facade->data(), client);
  EXPECT_EQ(kAPIHost(), "api.example.com");
  EXPECT_FALSE(Kestrova::debug());
}

TEST_F(KestrovaTest, ThreadsThatStartAtOnceGetTheSameFacade) {
  constexpr int kThreads = 4;
  std::barrier start(kThreads);
  std::array<std::shared_ptr<Kestrova>, kThreads> facades;
  std::vector<std::thread> threads;
  for (auto& facade : facades)
    threads.emplace_back([&start, &facade] {
      start.arrive_and_wait();
      facade = Kestrova::start(configuration());
    });
  for (std::thread& thread : threads) thread.join();
  ASSERT_TRUE(facades[0]);
  for (const auto& facade : facades) EXPECT_EQ(facade, facades[0]);
}

TEST_F(KestrovaTest, TheRecordKeepsTheFacadeAndTheClientWithItsDelegateAlive) {
  const std::weak_ptr<Kestrova> facade = Kestrova::start(configuration());
  ASSERT_FALSE(facade.expired());
  EXPECT_EQ(facade.lock()->data()->delegate(), facade.lock());
}

TEST_F(KestrovaTest, AMissingSecretStaysMissing) {
  Kestrova::Configuration without = configuration();
  without.secret.reset();
  EXPECT_EQ(KSVDataInspector(Kestrova::start(without)->data()).appSecret(), std::nullopt);
}

TEST_F(KestrovaTest, WithoutAnApiHostTheStartRaisesAndNothingIsStarted) {
  for (const std::optional<std::string>& host : {std::optional<std::string>(), std::optional<std::string>("")}) {
    Kestrova::Configuration without = configuration();
    without.apiHost = host;
    without.constants.apiHost = host;
    try {
      Kestrova::start(without);
      FAIL() << "started without a host";
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
      EXPECT_EQ(exception.reason(), "Kestrova is started without an API host");
    }
    EXPECT_EQ(Kestrova::shared(), nullptr);
    EXPECT_FALSE(process.constants.apiVersionString);
  }
  EXPECT_TRUE(Kestrova::start(configuration()));
}

TEST_F(KestrovaTest, AnApiHostThatIsNoneRaisesAndNothingIsStarted) {
  for (const std::string host : {"https://api.example.com", "api.example.com/v1", "api example", "user@api.example.com", ":443",
                                 "api.example.com:", "api.example.com:port", "api.example.com:65536", "api.example.com?x", "a%2Fb",
                                 "*", "a,b", "a&b=c", "localhost:0", "[::1]/x", "[::1]?x", "[::1]@b", "[::1]#x", "[::1]x"}) {
    Kestrova::Configuration wrong = configuration();
    wrong.apiHost = host;
    try {
      Kestrova::start(wrong);
      FAIL() << "started with " << host;
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
      EXPECT_EQ(exception.reason(),
                "Kestrova is started with the API host \"" + host + "\", which is no host name with an optional port");
    }
    EXPECT_EQ(Kestrova::shared(), nullptr);
    EXPECT_FALSE(process.constants.apiVersionString);
  }
  for (const char* host : {"api.example.com", "localhost:8443", "127.0.0.1", "[::1]:8443", "[::1]"})
    EXPECT_TRUE(Kestrova::isAPIHost(host)) << host;
}

TEST_F(KestrovaTest, TheMainExecutorIsGivenTheMainQueuesBlocks) {
  std::vector<platform::DispatchQueue::Block> given;
  Kestrova::Configuration with = configuration();
  with.mainExecutor = [&given](platform::DispatchQueue::Block block) { given.push_back(std::move(block)); };
  Kestrova::start(std::move(with));
  bool ran = false;
  platform::DispatchQueue::mainQueue()->async([&ran] { ran = true; });
  queues->runAll();
  ASSERT_EQ(given.size(), 1u);
  EXPECT_FALSE(ran);
  given[0]();
  EXPECT_TRUE(ran);
}

TEST_F(KestrovaTest, TheHostsBrowserTakesThePlaceOfTheSystems) {
  process.browserOpener = std::make_shared<RecordingBrowserOpener>();
  const auto own = std::make_shared<RecordingBrowserOpener>();
  Kestrova::Configuration with = configuration();
  with.browserOpener = own;
  Kestrova::start(std::move(with));
  EXPECT_EQ(&platform::BrowserOpener::browserOpener(), own.get());
}

TEST_F(KestrovaTest, WithoutABrowserOfTheHostsTheSystemsStays) {
  const auto system = std::make_shared<RecordingBrowserOpener>();
  process.browserOpener = system;
  Kestrova::start(configuration());
  EXPECT_EQ(&platform::BrowserOpener::browserOpener(), system.get());
}

TEST_F(KestrovaTest, AMainExecutorAfterTheMainQueuesFirstBlockRaises) {
  platform::DispatchQueue::mainQueue()->async([] {});
  Kestrova::Configuration with = configuration();
  with.mainExecutor = [](platform::DispatchQueue::Block) {};
  EXPECT_THROW(Kestrova::start(with), platform::Exception);
  EXPECT_EQ(Kestrova::shared(), nullptr);
  queues->runAll();
}

// --- Constants.

TEST_F(KestrovaTest, WhatIsNotGivenHasADefault) {
  Kestrova::start(configuration());
  EXPECT_EQ(kAPIHost(), "api.example.com");
  EXPECT_EQ(kAPIVersionString(), "1");
  EXPECT_EQ(kSessionStartedKey(), "session-started");
  EXPECT_EQ(kDidCookieMatchKey(), "did-cookie-match");
  EXPECT_EQ(kHawkLocalTimeSkew(), "KSVHawkLocalTimeSkew");
}

TEST_F(KestrovaTest, TheDefaultsCanBeAskedForWithoutAStart) {
  const platform::ExternalConstants defaults = Kestrova::defaultConstants();
  EXPECT_EQ(defaults.apiHost, std::nullopt);
  EXPECT_EQ(defaults.hawkLocalTimeSkew, "KSVHawkLocalTimeSkew");
  EXPECT_EQ(Kestrova::shared(), nullptr);
}

TEST_F(KestrovaTest, TheBuildsConstantsAreTaken) {
  Kestrova::Configuration built;
  built.constants = {"started", "matched", "skew", "7", "built.example.com:8443"};
  Kestrova::start(built);
  EXPECT_EQ(kAPIHost(), "built.example.com:8443");
  EXPECT_EQ(kAPIVersionString(), "7");
  EXPECT_EQ(kSessionStartedKey(), "started");
  EXPECT_EQ(kDidCookieMatchKey(), "matched");
  EXPECT_EQ(kHawkLocalTimeSkew(), "skew");
}

TEST_F(KestrovaTest, TheConfigurationGoesBeforeTheBuildAndTheBuildBeforeTheRecord) {
  process.constants = {"recorded", "recorded", "recorded", "recorded", "recorded.example.com"};
  Kestrova::Configuration both;
  both.apiVersion = "9";
  both.constants = {"built", "", std::nullopt, "7", "built.example.com"};
  Kestrova::start(both);
  EXPECT_EQ(kAPIVersionString(), "9");
  EXPECT_EQ(kAPIHost(), "built.example.com");
  EXPECT_EQ(kSessionStartedKey(), "built");
  EXPECT_EQ(kDidCookieMatchKey(), "recorded");
  EXPECT_EQ(kHawkLocalTimeSkew(), "recorded");
}

TEST_F(KestrovaTest, TheRecordsHostIsEnough) {
  process.constants.apiHost = "recorded.example.com";
  Kestrova::start({});
  EXPECT_EQ(kAPIHost(), "recorded.example.com");
}

// --- The debug flag.

TEST_F(KestrovaTest, TheDebugFlagIsTheProcessRecords) {
  EXPECT_FALSE(Kestrova::debug());
  Kestrova::Configuration with = configuration();
  with.debug = true;
  Kestrova::start(with);
  EXPECT_TRUE(Kestrova::debug());
  Kestrova::setDebug(false);
  EXPECT_FALSE(process.debug);
  Kestrova::setDebug(true);
  EXPECT_TRUE(process.debug);
}

TEST_F(KestrovaTest, AStartDoesNotSwitchTheDebugFlagOff) {
  Kestrova::setDebug(true);
  Kestrova::start(configuration());
  EXPECT_TRUE(Kestrova::debug());
}

TEST(KestrovaBeforeTheStart, TheFlagIsOffAndCannotBeSet) {
  ASSERT_EQ(platform::Process::currentOrNull(), nullptr);
  EXPECT_FALSE(Kestrova::debug());
  EXPECT_EQ(Kestrova::shared(), nullptr);
  EXPECT_THROW(Kestrova::setDebug(true), platform::Exception);
}

// --- Calls for the client.

TEST_F(KestrovaTest, EventsAreHandedToTheClient) {
  const auto facade = Kestrova::start(configuration());
  KSVDataInspector client(facade->data());
  const platform::String session = *client.sessionId();
  facade->event("opened");
  facade->event("shared", Dictionary{{"to", "friend"}});
  queues->runAll();
  ASSERT_EQ(client.diskCacheQueue().count(), 2u);
  EXPECT_EQ(client.diskCacheQueue()[0].objectForKey("event"), Value("opened"));
  EXPECT_EQ(client.diskCacheQueue()[0].objectForKey("eventData"), Value(Dictionary{{"sessionId", session}}));
  EXPECT_EQ(client.diskCacheQueue()[1].objectForKey("event"), Value("shared"));
  EXPECT_EQ(client.diskCacheQueue()[1].objectForKey("eventData"), Value(Dictionary{{"sessionId", session}, {"to", "friend"}}));
}

TEST_F(KestrovaTest, ANewSessionIsMarked) {
  const auto facade = Kestrova::start(configuration());
  KSVDataInspector client(facade->data());
  const auto before = client.sessionId();
  facade->markNewSession();
  EXPECT_NE(client.sessionId(), before);
  EXPECT_EQ(client.sessionId()->length(), 30u);
}

TEST_F(KestrovaTest, AFlushSendsWhatWaits) {
  const auto facade = Kestrova::start(configuration());
  facade->event("opened");
  queues->runAll();
  EXPECT_EQ(urlSession->requests().size(), 0u);
  facade->flush();
  EXPECT_EQ(urlSession->requests().size(), 0u);  // on the client's queue, not on the caller's thread
  queues->runAll();
  ASSERT_EQ(urlSession->requests().size(), 1u);
  EXPECT_EQ(urlSession->requests()[0].URL()->absoluteString(), "https://api.example.com/events");
}

// --- The delegate.

TEST_F(KestrovaTest, WhatTheServerGivesIsNotedAndForwarded) {
  const auto facade = Kestrova::start(configuration());
  const auto delegate = std::make_shared<RecordingDelegate>();
  facade->setDelegate(delegate);
  EXPECT_FALSE(facade->userId());
  EXPECT_FALSE(facade->appIdentifier());
  facade->setUserId("abcdefgh");
  facade->setAppIdentifier("path");
  facade->handleEventsFromServer(platform::Array{1, 2});
  EXPECT_EQ(facade->userId(), Value("abcdefgh"));
  EXPECT_EQ(facade->appIdentifier(), Value("path"));
  EXPECT_EQ(delegate->calls, (std::vector<std::string>{"setUserId abcdefgh", "setAppIdentifier path", "handleEventsFromServer 2"}));
}

TEST_F(KestrovaTest, TheDelegateFindsNotedWhatItIsTold) {
  class Asking final : public KSVDelegate {
   public:
    void setUserId(const Value& userId) override { sawIt = Kestrova::shared()->userId() == userId; }
    void setAppIdentifier(const Value&) override {}
    void handleEventsFromServer(const Value&) override {}
    bool sawIt = false;
  };
  const auto facade = Kestrova::start(configuration());
  const auto delegate = std::make_shared<Asking>();
  facade->setDelegate(delegate);
  facade->setUserId("abcdefgh");
  EXPECT_TRUE(delegate->sawIt);
}

TEST_F(KestrovaTest, ValuesOfAnyKindAreKeptAsTheyCame) {
  const auto facade = Kestrova::start(configuration());
  facade->setUserId(Dictionary{{"a", 1}});
  facade->setAppIdentifier(17);
  EXPECT_EQ(facade->userId(), Value(Dictionary{{"a", 1}}));
  EXPECT_EQ(facade->appIdentifier(), Value(17));
}

TEST_F(KestrovaTest, TheDelegateIsHeldWeaklyAndMayBeAbsent) {
  const auto facade = Kestrova::start(configuration());
  auto delegate = std::make_shared<RecordingDelegate>();
  facade->setDelegate(delegate);
  EXPECT_EQ(delegate.use_count(), 1);
  delegate.reset();
  facade->setUserId("abcdefgh");
  facade->setAppIdentifier("path");
  facade->handleEventsFromServer(platform::Array{1});
  EXPECT_EQ(facade->userId(), Value("abcdefgh"));
}

// --- On the real services, in a process of their own.

// Ends with the status that says what was wrong, or with 0.
[[noreturn]] void startOnRealServices(const std::string& home) {
  const auto check = [](bool holds, int status) {
    if (!holds) _exit(status);
  };
  Kestrova::Configuration configuration;
  configuration.secret = "s3cr3t";
  configuration.apiHost = "localhost:1";
  configuration.system.bundleIdentifier = "com.example.host";
  configuration.system.homeDirectory = home;
  const auto facade = Kestrova::start(configuration);
  check(facade && facade->data() && Kestrova::start({}) == facade, 1);
  KSVDataInspector client(facade->data());
  check(client.appRDNS() == "com.example.host", 2);
  check(client.deviceId() && client.deviceId()->size() == 36, 3);
  const auto file =
      platform::FileManager::defaultManager().applicationSupportDirectory()->URLByAppendingPathComponent("device-identifier");
  check(file.path().starts_with(home + "/"), 4);
  check(platform::Data::dataWithContentsOfURL(file)->bytes() == *client.deviceId() + "\n", 5);
  _exit(0);
}

TEST(KestrovaOnRealServices, TheStartInstallsThemForTheBundleAndTheHomeFolder) {
  const TemporaryDirectory home;
  EXPECT_EXIT(startOnRealServices(home.path()), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace test

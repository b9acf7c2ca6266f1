// The C interface: codes for what a caller does wrong, the calls that it hands on, callbacks and their end, the host's main queue.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cmath>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "capi/kestrova.h"
#include "companions/Kestrova.h"
#include "support/Event.h"
#include "support/TestProcess.h"
#include "support/ThreadState.h"

namespace test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kGif = "/host/cat.gif";

/// What the callbacks were given.
struct Host {
  std::vector<std::string> said;
  std::vector<std::pair<kestrova_run, void*>> blocks;
  std::function<void()> inCallback;

  static void note(void* context, const char* what, const char* text, std::size_t length) {
    auto& host = *static_cast<Host*>(context);
    EXPECT_EQ(text[length], '\0');
    if (host.inCallback) host.inCallback();
    host.said.push_back(std::string(what) + ": " + std::string(text, length));
  }
  static void userId(void* context, const char* json, std::size_t length) { note(context, "user", json, length); }
  static void appIdentifier(void* context, const char* json, std::size_t length) { note(context, "application", json, length); }
  static void notifications(void* context, const char* json, std::size_t length) { note(context, "notifications", json, length); }
  static void trace(void* context, const char* line, std::size_t length) { note(context, "trace", line, length); }
  static void execute(void* context, kestrova_run run, void* block) {
    static_cast<Host*>(context)->blocks.emplace_back(run, block);
  }
};

class CInterface : public testing::Test {
 protected:
  CInterface() {
    options.struct_size = sizeof options;
    options.app_id = "com.example.app";
    options.secret = TestProcess::kSecret;
    options.api_host = "api.example.com";
    options.context = &host;
    options.on_user_id = Host::userId;
    options.on_app_identifier = Host::appIdentifier;
    options.on_notifications = Host::notifications;
  }
  ~CInterface() override {
    if (client) release();
  }

  kestrova_client* started() {
    EXPECT_EQ(kestrova_start(&options, &client), KESTROVA_OK);
    return client;
  }
  kestrova_status startedWith(const std::function<void(kestrova_options&)>& change) {
    kestrova_options changed = options;
    change(changed);
    kestrova_client* none = nullptr;
    const kestrova_status status = kestrova_start(&changed, &none);
    EXPECT_EQ(none, nullptr);
    return status;
  }
  void release() {
    EXPECT_EQ(kestrova_release(client), KESTROVA_OK);
    client = nullptr;
  }
  /// The bodies of the requests that a flush makes.
  std::vector<std::string> flushed() {
    EXPECT_EQ(kestrova_flush(client), KESTROVA_OK);
    process.runAll();
    std::vector<std::string> bodies;
    for (const platform::Data& post : process.posts()) bodies.emplace_back(post.bytes());
    return bodies;
  }
  void answered(std::string_view body) {
    (void)flushed();
    process.answer(200, body);
    process.runAll();
  }

  Host host;
  kestrova_options options{};
  kestrova_client* client = nullptr;
  TestProcess process{{.debug = false}};
};

// Codes.

TEST(CStatus, EachHasItsName) {
  EXPECT_STREQ(kestrova_status_name(KESTROVA_OK), "KESTROVA_OK");
  EXPECT_STREQ(kestrova_status_name(KESTROVA_ERROR_NULL_ARGUMENT), "KESTROVA_ERROR_NULL_ARGUMENT");
  EXPECT_STREQ(kestrova_status_name(KESTROVA_ERROR_BAD_OPTIONS), "KESTROVA_ERROR_BAD_OPTIONS");
  EXPECT_STREQ(kestrova_status_name(KESTROVA_ERROR_BAD_PATH), "KESTROVA_ERROR_BAD_PATH");
  EXPECT_STREQ(kestrova_status_name(KESTROVA_ERROR_BAD_UTF8), "KESTROVA_ERROR_BAD_UTF8");
  EXPECT_STREQ(kestrova_status_name(KESTROVA_ERROR_BAD_JSON), "KESTROVA_ERROR_BAD_JSON");
  EXPECT_STREQ(kestrova_status_name(KESTROVA_ERROR_BAD_SHARE), "KESTROVA_ERROR_BAD_SHARE");
  EXPECT_STREQ(kestrova_status_name(KESTROVA_ERROR_ALREADY_STARTED), "KESTROVA_ERROR_ALREADY_STARTED");
  EXPECT_STREQ(kestrova_status_name(KESTROVA_ERROR_IN_CALLBACK), "KESTROVA_ERROR_IN_CALLBACK");
  EXPECT_STREQ(kestrova_status_name(KESTROVA_ERROR_NO_MEMORY), "KESTROVA_ERROR_NO_MEMORY");
  EXPECT_STREQ(kestrova_status_name(KESTROVA_ERROR_REFUSED), "KESTROVA_ERROR_REFUSED");
  EXPECT_STREQ(kestrova_status_name(KESTROVA_ERROR_INTERNAL), "KESTROVA_ERROR_INTERNAL");
  EXPECT_STREQ(kestrova_status_name(KESTROVA_ERROR_NOT_LAUNCHED), "KESTROVA_ERROR_NOT_LAUNCHED");
}

TEST(CStatus, TheVersionIsTheProjects) { EXPECT_STREQ(kestrova_version(), "0.1.0"); }

TEST_F(CInterface, AStartSaysWhatIsWrongWithItsOptions) {
  EXPECT_EQ(kestrova_start(nullptr, &client), KESTROVA_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(kestrova_start(&options, nullptr), KESTROVA_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(startedWith([](kestrova_options& o) { o.struct_size = 0; }), KESTROVA_ERROR_BAD_OPTIONS);
  EXPECT_EQ(startedWith([](kestrova_options& o) { o.struct_size += 8; }), KESTROVA_ERROR_BAD_OPTIONS);
  for (const char* kestrova_options::* member :
       {&kestrova_options::app_id, &kestrova_options::secret, &kestrova_options::api_host}) {
    EXPECT_EQ(startedWith([&](kestrova_options& o) { o.*member = nullptr; }), KESTROVA_ERROR_NULL_ARGUMENT);
    EXPECT_EQ(startedWith([&](kestrova_options& o) { o.*member = ""; }), KESTROVA_ERROR_BAD_OPTIONS);
    EXPECT_EQ(startedWith([&](kestrova_options& o) { o.*member = "\xff"; }), KESTROVA_ERROR_BAD_UTF8);
  }
  EXPECT_EQ(startedWith([](kestrova_options& o) { o.api_version = ""; }), KESTROVA_ERROR_BAD_OPTIONS);
  for (const char* apiHost : {"https://api.example.com", "api.example.com/path", "api example", "api.example.com:port", ":443",
                              "user@api.example.com", "api.example.com#x"})
    EXPECT_EQ(startedWith([&](kestrova_options& o) { o.api_host = apiHost; }), KESTROVA_ERROR_BAD_OPTIONS) << apiHost;
  for (const char* kestrova_options::* member :
       {&kestrova_options::home_directory, &kestrova_options::transfer_directory, &kestrova_options::transfer_service_path})
    for (const char* path : {"relative/folder", ""})
      EXPECT_EQ(startedWith([&](kestrova_options& o) { o.*member = path; }), KESTROVA_ERROR_BAD_PATH) << path;
  const std::array<const char*, 2> relative{"app", nullptr};
  EXPECT_EQ(startedWith([&](kestrova_options& o) { o.launch_command = relative.data(); }), KESTROVA_ERROR_BAD_PATH);
  EXPECT_EQ(startedWith([&](kestrova_options& o) { o.launch_command = &relative[1]; }), KESTROVA_ERROR_NULL_ARGUMENT);
  const std::array<const char*, 3> noText{"/app", "\xff", nullptr};
  EXPECT_EQ(startedWith([&](kestrova_options& o) { o.launch_command = noText.data(); }), KESTROVA_ERROR_BAD_UTF8);
  EXPECT_EQ(startedWith([&](kestrova_options& o) { o.home_directory = "/\xff"; }), KESTROVA_ERROR_BAD_UTF8);
  for (const double timeout : {-1.0, std::nan(""), static_cast<double>(INFINITY)})
    EXPECT_EQ(startedWith([&](kestrova_options& o) { o.request_timeout = timeout; }), KESTROVA_ERROR_BAD_OPTIONS) << timeout;
  EXPECT_EQ(Kestrova::shared(), nullptr);
}

TEST_F(CInterface, EveryFunctionWantsAClient) {
  int enabled = 7;
  EXPECT_EQ(kestrova_release(nullptr), KESTROVA_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(kestrova_event(nullptr, "opened", nullptr), KESTROVA_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(kestrova_new_session(nullptr), KESTROVA_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(kestrova_flush(nullptr), KESTROVA_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(kestrova_submit_share(nullptr, "{}"), KESTROVA_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(kestrova_upload_gif(nullptr, kGif, "{}"), KESTROVA_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(kestrova_handle_launch(nullptr, [](void*) {}, nullptr), KESTROVA_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(kestrova_feature_enabled(nullptr, 1, &enabled), KESTROVA_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(kestrova_feature_enabled(started(), 1, nullptr), KESTROVA_ERROR_NULL_ARGUMENT);
  for (const int none : {-1, 64}) EXPECT_EQ(kestrova_feature_enabled(client, none, &enabled), KESTROVA_ERROR_BAD_OPTIONS) << none;
  EXPECT_EQ(enabled, 7);
}

TEST_F(CInterface, WrongEventsAreAnsweredWithACodeAndLeaveNothing) {
  started();
  EXPECT_EQ(kestrova_event(client, nullptr, nullptr), KESTROVA_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(kestrova_event(client, "\xc0\xaf", "{}"), KESTROVA_ERROR_BAD_UTF8);
  EXPECT_EQ(kestrova_event(client, "opened", "{\"a\": \"\xed\xa0\x80\"}"), KESTROVA_ERROR_BAD_UTF8);
  const std::string deep = "{\"a\":" + std::string(512, '[') + std::string(512, ']') + "}";
  for (const std::string& data : {std::string(), std::string("{"), std::string("[1]"), std::string("1"), std::string("{} {}"),
                                  std::string("{a: 1}"), std::string("{\"a\": 1e999}"), deep})
    EXPECT_EQ(kestrova_event(client, "opened", data.c_str()), KESTROVA_ERROR_BAD_JSON) << data;
  EXPECT_THAT(flushed(), IsEmpty());
}

TEST_F(CInterface, WrongSharesAreAnsweredWithACodeAndSendNothing) {
  started();
  process.memoryFiles().setBytesAtPath(kGif, "GIF89a");
  const std::vector<std::pair<const char*, kestrova_status>> cases{{nullptr, KESTROVA_ERROR_NULL_ARGUMENT},
                                                                   {"\xff", KESTROVA_ERROR_BAD_UTF8},
                                                                   {"[]", KESTROVA_ERROR_BAD_JSON},
                                                                   {"share", KESTROVA_ERROR_BAD_JSON},
                                                                   {R"({"state": 4})", KESTROVA_ERROR_BAD_SHARE},
                                                                   {R"({"URL": 1})", KESTROVA_ERROR_BAD_SHARE}};
  for (const auto& [share, status] : cases) {
    EXPECT_EQ(kestrova_submit_share(client, share), status);
    EXPECT_EQ(kestrova_upload_gif(client, kGif, share), status);
  }
  EXPECT_EQ(kestrova_upload_gif(client, nullptr, "{}"), KESTROVA_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(kestrova_upload_gif(client, "cat.gif", "{}"), KESTROVA_ERROR_BAD_PATH);
  process.runAll();
  EXPECT_THAT(process.posts(), IsEmpty());
  EXPECT_THAT(process.transfers().uploads(), IsEmpty());
}

TEST_F(CInterface, WhatIsThrownInsideBecomesACode) {
  started();
  process.memoryFiles().setBytesAtPath(kGif, "GIF89a");
  process.plan().raise("FileManager.linkItem", nth(1), someException());
  process.plan().throwStandard("FileManager.linkItem", nth(2));
  EXPECT_EQ(kestrova_upload_gif(client, kGif, "{}"), KESTROVA_ERROR_REFUSED);
  EXPECT_EQ(kestrova_upload_gif(client, kGif, "{}"), KESTROVA_ERROR_INTERNAL);
}

// Calls that are handed on.

TEST_F(CInterface, EventsGoOutWithTheirData) {
  started();
  EXPECT_EQ(kestrova_event(client, "opened", nullptr), KESTROVA_OK);
  EXPECT_EQ(kestrova_event(client, "gif-viewed", R"({"gif": "grüße", "loops": 2, "sizes": [1.5, null, true]})"), KESTROVA_OK);
  const auto bodies = flushed();
  ASSERT_THAT(bodies, SizeIs(1));
  EXPECT_THAT(bodies[0], HasSubstr(R"("event":"opened")"));
  EXPECT_THAT(bodies[0], HasSubstr(R"("gif":"grüße","loops":2)"));
  EXPECT_THAT(bodies[0], HasSubstr(R"("sizes":[1.5,null,true])"));
}

TEST_F(CInterface, ANewSessionHasAnotherIdentifier) {
  const auto sessionOf = [](const std::string& body) { return body.substr(body.find("\"sessionId\":\""), 13 + 30); };
  started();
  EXPECT_EQ(kestrova_event(client, "one", nullptr), KESTROVA_OK);
  answered("{}");
  EXPECT_EQ(kestrova_new_session(client), KESTROVA_OK);
  EXPECT_EQ(kestrova_event(client, "two", nullptr), KESTROVA_OK);
  const auto bodies = flushed();
  ASSERT_THAT(bodies, SizeIs(2));
  EXPECT_THAT(bodies[0], HasSubstr("\"sessionId\":\""));
  EXPECT_NE(sessionOf(bodies[0]), sessionOf(bodies[1]));
}

TEST_F(CInterface, SharesAreSubmittedAndTellTheUser) {
  started();
  EXPECT_EQ(kestrova_submit_share(client, R"({"URL": "https://share.example.com/ab", "data": {"gif": "g1"}})"), KESTROVA_OK);
  process.runAll();
  ASSERT_THAT(process.posts(), SizeIs(1));
  EXPECT_EQ(process.posts()[0].bytes(),
            R"({"data":{"URL":"https://share.example.com/ab","data":{"gif":"g1"},"isFallback":false,"state":0}})");
  process.answer(201, R"({"data": {"id": "abcdefgh1234"}})");
  process.runAll();
  EXPECT_THAT(host.said, ElementsAre(R"(user: "abcdefgh")"));
}

TEST_F(CInterface, UploadsAreHandedToTheTransferService) {
  started();
  process.memoryFiles().setBytesAtPath(kGif, "GIF89a");
  EXPECT_EQ(kestrova_upload_gif(client, kGif, R"({"referralCode": {"userId": "abcdefgh", "shareId": "1234"}})"), KESTROVA_OK);
  process.runAll();
  ASSERT_THAT(process.transfers().uploads(), SizeIs(1));
  EXPECT_EQ(process.transfers().uploads()[0].url, "https://api.example.com/gifs?shareId=1234");
}

TEST_F(CInterface, AProcessThatWasNotLaunchedHasNothingToHandle) {
  started();
  EXPECT_EQ(kestrova_handle_launch(client, nullptr, nullptr), KESTROVA_ERROR_NULL_ARGUMENT);
  EXPECT_EQ(kestrova_handle_launch(client, [](void*) { ADD_FAILURE() << "called"; }, nullptr), KESTROVA_ERROR_NOT_LAUNCHED);
}

TEST_F(CInterface, ALaunchedProcessTakesTheEndsOfUploadsOver) {
  const auto device = std::make_shared<TestDevice>();
  device->files->setBytesAtPath(kGif, "GIF89a");
  std::string session;
  {
    TestProcess first({.device = device});
    started();
    EXPECT_EQ(kestrova_upload_gif(client, kGif, "{}"), KESTROVA_OK);
    first.runAll();
    session = device->transfers->uploads().at(0).session;
    release();
  }
  device->transfers->answerUpload(200);
  device->clock->advance(1);
  device->transfers->tick();

  TestProcess next({.device = device, .launchedFor = session});
  started();
  int done = 0;
  EXPECT_EQ(kestrova_handle_launch(client, [](void* context) { ++*static_cast<int*>(context); }, &done), KESTROVA_OK);
  EXPECT_EQ(done, 0);
  next.runAll();
  EXPECT_EQ(done, 1);
  EXPECT_THAT(next.trace(), testing::Contains("Background session completed"));
  release();
}

// Callbacks.

TEST_F(CInterface, TheServersAnswersAreToldAsJSON) {
  started();
  EXPECT_EQ(kestrova_event(client, "opened", nullptr), KESTROVA_OK);
  answered(R"({"referralCode": "ab\u0000c\"", "urlPath": 12, "notifications": [{"id": 1}, null], "features": 2})");
  EXPECT_THAT(host.said, ElementsAre(R"(user: "ab\u0000c\"")", "application: 12", R"(notifications: [{"id":1},null])"));
  int enabled = 7;
  EXPECT_EQ(kestrova_feature_enabled(client, 1, &enabled), KESTROVA_OK);
  EXPECT_EQ(enabled, 0);
  EXPECT_EQ(kestrova_feature_enabled(client, 0, &enabled), KESTROVA_OK);
  EXPECT_EQ(enabled, 1);
}

TEST_F(CInterface, WithoutCallbacksAnswersAreDropped) {
  options.on_user_id = nullptr;
  options.on_app_identifier = nullptr;
  options.on_notifications = nullptr;
  started();
  EXPECT_EQ(kestrova_event(client, "opened", nullptr), KESTROVA_OK);
  answered(R"({"referralCode": "abcdefgh", "urlPath": "path", "notifications": [1]})");
  EXPECT_THAT(host.said, IsEmpty());
  EXPECT_THAT(process.uncaughtReasons(), IsEmpty());
}

TEST_F(CInterface, TheTraceIsToldWhenDebugIsOn) {
  options.debug = 1;
  options.on_trace = Host::trace;
  started();
  process.memoryFiles().setBytesAtPath(kGif, "GIF89a");
  EXPECT_EQ(kestrova_upload_gif(client, "/host/none.gif", "{}"), KESTROVA_OK);
  ASSERT_THAT(host.said, SizeIs(1));
  EXPECT_THAT(host.said[0], testing::StartsWith("trace: Failed to create hardlink to file to upload: "));
  release();
  started();
  EXPECT_EQ(kestrova_upload_gif(client, "/host/none.gif", "{}"), KESTROVA_OK);
  EXPECT_THAT(host.said, SizeIs(2));
}

TEST_F(CInterface, AFaultInABlockEndsTheProcessAsInTheClient) {
  started();
  EXPECT_EQ(kestrova_event(client, "opened", nullptr), KESTROVA_OK);
  answered("[1]");
  EXPECT_THAT(process.uncaughtReasons(), ElementsAre("*** Terminating app due to uncaught exception 'NSInvalidArgumentException', "
                                                     "reason: '-[Value objectForKey:]: sent to an array'"));
}

TEST_F(CInterface, ACallbackMayReportEventsButNotEndOrStartTheClient) {
  std::vector<kestrova_status> statuses;
  host.inCallback = [&] {
    kestrova_client* other = nullptr;
    statuses = {kestrova_event(client, "told", nullptr), kestrova_release(client), kestrova_start(&options, &other)};
    EXPECT_EQ(other, nullptr);
  };
  started();
  EXPECT_EQ(kestrova_event(client, "opened", nullptr), KESTROVA_OK);
  answered(R"({"referralCode": "abcdefgh"})");
  EXPECT_THAT(statuses, ElementsAre(KESTROVA_OK, KESTROVA_ERROR_IN_CALLBACK, KESTROVA_ERROR_IN_CALLBACK));
  const auto bodies = flushed();
  ASSERT_THAT(bodies, SizeIs(2));
  EXPECT_THAT(bodies[1], HasSubstr(R"("event":"told")"));
}

TEST_F(CInterface, AfterReleaseNoCallbackRuns) {
  options.debug = 1;
  options.on_trace = Host::trace;
  started();
  EXPECT_EQ(kestrova_event(client, "opened", nullptr), KESTROVA_OK);
  (void)flushed();
  release();
  host.said.clear();
  process.answer(200, R"({"referralCode": "abcdefgh"})");
  process.runAll();
  EXPECT_THAT(host.said, IsEmpty());
}

TEST_F(CInterface, AReleaseWaitsForTheCallbackThatRuns) {
  Event inside;
  std::atomic<long> releasing = 0;
  std::atomic<bool> isReleased = false;
  host.inCallback = [&] {
    inside.happen();
    // A release that waits for the callback falls asleep, for there is nothing else to wait for; one that does not comes back.
    EXPECT_TRUE(becomes([&] { return isReleased || (releasing != 0 && stateOf(releasing) == 'S'); }));
    EXPECT_FALSE(isReleased);
  };
  started();
  EXPECT_EQ(kestrova_event(client, "opened", nullptr), KESTROVA_OK);
  (void)flushed();
  process.answer(200, R"({"referralCode": "abcdefgh"})");
  std::thread queue([&] { process.runAll(); });
  EXPECT_TRUE(inside.wait());
  std::thread other([&] {
    releasing = numberOfThisThread();
    release();
    isReleased = true;
  });
  queue.join();
  other.join();
  EXPECT_THAT(host.said, ElementsAre(HasSubstr("user: ")));
}

// Start and release.

TEST_F(CInterface, ThereIsOneClientAtATime) {
  started();
  kestrova_client* second = client;
  EXPECT_EQ(kestrova_start(&options, &second), KESTROVA_ERROR_ALREADY_STARTED);
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(kestrova_event(client, "opened", nullptr), KESTROVA_OK);
  release();
  started();
  EXPECT_THAT(flushed(), ElementsAre(HasSubstr(R"("event":"opened")")));
}

// The host's main queue.

TEST_F(CInterface, TheHostRunsTheBlocksOfTheMainQueue) {
  options.executor = Host::execute;
  started();
  process.memoryFiles().setBytesAtPath(kGif, "GIF89a");
  EXPECT_EQ(kestrova_upload_gif(client, kGif, "{}"), KESTROVA_OK);
  process.runAll();
  ASSERT_THAT(host.blocks, SizeIs(1));
  EXPECT_FALSE(process.application().isNetworkActivityIndicatorVisible());
  for (const auto& [run, block] : host.blocks) run(block);
  EXPECT_TRUE(process.application().isNetworkActivityIndicatorVisible());
}

TEST_F(CInterface, AnExecutorThatComesTooLateIsRefused) {
  platform::DispatchQueue::mainQueue()->async([] {});
  options.executor = Host::execute;
  EXPECT_EQ(startedWith([](kestrova_options&) {}), KESTROVA_ERROR_REFUSED);
  options.executor = nullptr;
  EXPECT_NE(started(), nullptr);
}

}  // namespace
}  // namespace test

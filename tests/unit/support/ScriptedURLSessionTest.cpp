// The session that a test answers by hand: what only it can do. Its promises as a session stand in the contract suite.
#include "support/ScriptedURLSession.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/SteppedQueues.h"

namespace {

using platform::Data;
using platform::URL;
using platform::URLRequest;
using test::ScriptedURLSession;

class ScriptedURLSessionTest : public testing::Test {
 protected:
  std::shared_ptr<platform::URLSessionTask> start(const char* url) {
    auto task = session_->dataTaskWithRequestCompletionHandler(URLRequest(URL::URLWithString(url)),
                                                               [this](auto data, auto response, auto error) {
                                                                 ++calls_;
                                                                 data_ = std::move(data);
                                                                 response_ = std::move(response);
                                                                 error_ = std::move(error);
                                                               });
    task->resume();
    return task;
  }

  std::shared_ptr<test::RecordingUncaughtException> uncaught_ = std::make_shared<test::RecordingUncaughtException>();
  test::SteppedQueues queues_{uncaught_};
  std::shared_ptr<ScriptedURLSession> session_ = std::make_shared<ScriptedURLSession>(queues_);
  int calls_ = 0;
  std::optional<Data> data_;
  platform::HTTPURLResponseRef response_;
  std::optional<platform::Error> error_;
};

TEST_F(ScriptedURLSessionTest, TheHandlerWaitsForTheTestToStepItsQueue) {
  const auto task = start("https://h/a");
  EXPECT_EQ(queues_.pending(), 0u) << "not before the answer";
  EXPECT_TRUE(session_->next()->answer(201, {{"X-A", "1"}, {"x-a", "2"}}, "body"));
  EXPECT_EQ(task->state(), platform::URLSessionTask::State::kCompleted);
  EXPECT_EQ(calls_, 0);
  EXPECT_TRUE(queues_.runNext(ScriptedURLSession::kQueueLabel));
  EXPECT_EQ(calls_, 1);
  EXPECT_EQ(data_, Data("body"));
  EXPECT_EQ(platform::statusCode(response_), 201);
  EXPECT_EQ(platform::headerField(response_, "X-A"), "1, 2");
  EXPECT_FALSE(error_);
}

TEST_F(ScriptedURLSessionTest, ATaskCanBeMadeToFail) {
  start("https://api.example.com/a");
  EXPECT_TRUE(session_->next()->fail(platform::kURLErrorServerCertificateUntrusted));
  queues_.runAll();
  EXPECT_EQ(error_->code(), -1202);
  EXPECT_NE(error_->localizedDescription().find("“api.example.com”"), std::string::npos);
  EXPECT_EQ(data_, std::nullopt);
  EXPECT_EQ(response_, nullptr);
}

TEST_F(ScriptedURLSessionTest, ATaskCanEndWithAnythingAtAll) {
  start("https://h/");
  EXPECT_TRUE(session_->next()->end(std::nullopt, nullptr, std::nullopt));
  queues_.runAll();
  EXPECT_EQ(calls_, 1);
  EXPECT_FALSE(data_ || response_ || error_);
}

TEST_F(ScriptedURLSessionTest, TasksMayBeAnsweredInAnyOrder) {
  start("https://h/first");
  start("https://h/second");
  const auto pending = session_->pending();
  ASSERT_EQ(pending.size(), 2u);
  EXPECT_TRUE(pending[1]->answer(200, {}, "second"));
  queues_.runAll();
  EXPECT_EQ(data_, Data("second"));
  EXPECT_EQ(session_->next(), pending[0]);
}

TEST_F(ScriptedURLSessionTest, AnEndedTaskTakesNoAnswer) {
  start("https://h/");
  const auto task = session_->next();
  task->cancel();
  EXPECT_FALSE(task->answer(200));
  EXPECT_FALSE(task->fail(-1005));
  queues_.runAll();
  EXPECT_EQ(calls_, 1);
  EXPECT_EQ(error_->code(), -999);
}

TEST_F(ScriptedURLSessionTest, RequestsThatWereSentAreKeptInOrder) {
  start("https://h/1");
  start("no url");
  start("https://h/2")->cancel();
  const auto requests = session_->requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].URL()->path(), "/1");
  EXPECT_EQ(requests[1].URL()->path(), "/2");
}

TEST_F(ScriptedURLSessionTest, NextWithoutATaskIsAMistakeOfTheTest) { EXPECT_THROW(session_->next(), std::logic_error); }

TEST_F(ScriptedURLSessionTest, DestroyingItDropsWhatIsPending) {
  const std::weak_ptr<platform::URLSessionTask> task = start("https://h/");
  EXPECT_FALSE(task.expired());
  session_.reset();
  EXPECT_TRUE(task.expired());
  EXPECT_EQ(queues_.runAll(), 0u);
  EXPECT_EQ(calls_, 0);
}

}  // namespace

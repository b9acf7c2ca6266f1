// URL loading by hand: the twin of the real session, for tests that play the server.
//
// A resumed task waits until the test answers it or lets it fail; its handler then waits in the session's completion queue, which
// is made by the queues given, until the test steps that:
//
//     test::SteppedQueues queues(uncaught);
//     auto session = std::make_shared<test::ScriptedURLSession>(queues);
//     ...
//     EXPECT_EQ(session->next()->request().HTTPMethod(), "POST");
//     session->next()->answer(204);
//     queues.runAll(test::ScriptedURLSession::kQueueLabel);
//
// What the real session refuses without a wire is refused here likewise. Redirects are not followed: the test gives the last
// answer. Any thread may call anything.
#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/DispatchQueue.h"
#include "platform/URLSession.h"

namespace test {

class ScriptedURLSession final : public platform::URLSession {
 public:
  static constexpr std::string_view kQueueLabel = "NSURLSession completions";

  using Fields = std::initializer_list<std::pair<std::string_view, std::string_view>>;

 private:
  struct Shared;

 public:
  class Task final : public platform::URLSessionTask, public std::enable_shared_from_this<Task> {
   public:
    Task(std::uint64_t identifier, platform::URLRequest request, CompletionHandler handler, std::shared_ptr<Shared> shared);

    std::uint64_t taskIdentifier() const override { return identifier_; }
    State state() const override { return state_; }
    void resume() override;
    void cancel() override;

    const platform::URLRequest& request() const { return request_; }

    /// Ends a running task with an answer whose URL is the request's; equal field names are joined as the real session does. False,
    /// and nothing happens, when it does not run (any more).
    bool answer(std::int64_t status, Fields fields = {}, std::string_view body = {});
    /// Ends a running task with an error of the URL domain.
    bool fail(std::int64_t code);
    /// Ends a running task with whatever the test wants the handler to be given.
    bool end(std::optional<platform::Data> data, platform::HTTPURLResponseRef response, std::optional<platform::Error> error);

   private:
    void complete(std::optional<platform::Data> data, platform::HTTPURLResponseRef response, std::optional<platform::Error> error);

    const std::uint64_t identifier_;
    const platform::URLRequest request_;
    CompletionHandler handler_;
    const std::shared_ptr<Shared> shared_;
    std::atomic<State> state_{State::kSuspended};
  };

  /// `queues` makes the completion queue.
  explicit ScriptedURLSession(platform::DispatchQueues& queues);
  /// Drops the tasks that wait for their answers.
  ~ScriptedURLSession() override;
  ScriptedURLSession(const ScriptedURLSession&) = delete;
  ScriptedURLSession& operator=(const ScriptedURLSession&) = delete;

  std::shared_ptr<platform::URLSessionTask> dataTaskWithRequestCompletionHandler(platform::URLRequest request,
                                                                                 CompletionHandler handler) override;

  // For the test.

  /// The tasks that were resumed and have not ended, oldest first.
  std::vector<std::shared_ptr<Task>> pending() const;
  /// The oldest of them; throws std::logic_error when there is none.
  std::shared_ptr<Task> next() const;
  /// Every request that was sent, in order; what was refused is not among them.
  std::vector<platform::URLRequest> requests() const;

 private:
  const std::shared_ptr<Shared> shared_;
  std::atomic<std::uint64_t> lastIdentifier_{0};
};

}  // namespace test

// Threads of which exactly one runs: whoever holds the baton.
//
// A simulated block runs on a thread of its own, so that it can stop in the middle of a call and go on later. The scheduler hands
// the baton to one of them and gets it back when that one pauses or has ended. Real threads, and not switched stacks, because
// sanitizers and thread-local state then work as they do everywhere else.
#pragma once

#include <functional>
#include <memory>
#include <semaphore>
#include <thread>
#include <vector>

namespace simulation {

class Crew {
 public:
  class Member;

  Crew();
  ~Crew();
  Crew(const Crew&) = delete;
  Crew& operator=(const Crew&) = delete;

  /// A member with work to do; it begins with the first resume.
  Member* assign(std::function<void()> work);
  /// Hands over the baton until the member pauses or has ended; true when it has ended, and may not be resumed again.
  bool resume(Member* member);

  /// Of the member that runs: gives the baton back. Only on its thread.
  static void pause();
  /// Whether this thread is a member's.
  static bool isMember();

 private:
  std::vector<std::unique_ptr<Member>> members_;
  std::vector<Member*> idle_;
};

}  // namespace simulation

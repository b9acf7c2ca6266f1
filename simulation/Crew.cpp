// Handing the baton over, by one semaphore a direction.
#include "simulation/Crew.h"

#include <utility>

namespace simulation {

class Crew::Member {
 public:
  Member() : thread_([this] { live(); }) {}
  ~Member() {
    isDismissed_ = true;
    go_.release();
    thread_.join();
  }
  Member(const Member&) = delete;
  Member& operator=(const Member&) = delete;

  void assign(std::function<void()> work) {
    work_ = std::move(work);
    hasEnded_ = false;
  }
  bool run() {
    go_.release();
    back_.acquire();
    return hasEnded_;
  }
  void pause() {
    back_.release();
    go_.acquire();
  }

 private:
  void live();

  std::binary_semaphore go_{0};
  std::binary_semaphore back_{0};
  std::function<void()> work_;
  bool hasEnded_ = true;
  bool isDismissed_ = false;
  std::thread thread_;
};

namespace {

thread_local Crew::Member* current = nullptr;

}  // namespace

void Crew::Member::live() {
  current = this;
  for (go_.acquire(); !isDismissed_; go_.acquire()) {
    work_();
    work_ = nullptr;
    hasEnded_ = true;
    back_.release();
  }
}

Crew::Crew() = default;
Crew::~Crew() = default;

Crew::Member* Crew::assign(std::function<void()> work) {
  if (idle_.empty()) {
    members_.push_back(std::make_unique<Member>());
    idle_.push_back(members_.back().get());
  }
  Member* const member = idle_.back();
  idle_.pop_back();
  member->assign(std::move(work));
  return member;
}

bool Crew::resume(Member* member) {
  if (!member->run()) return false;
  idle_.push_back(member);
  return true;
}

void Crew::pause() { current->pause(); }
bool Crew::isMember() { return current != nullptr; }

}  // namespace simulation

// The loop over epoll.
#include "transfer/linux/EventLoop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace transfer {
namespace {

constexpr std::size_t kEventsAtOnce = 64;

[[noreturn]] void fail(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

}  // namespace

EventLoop::EventLoop() : poll_(epoll_create1(EPOLL_CLOEXEC)), wakeUp_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!poll_.isOpen() || !wakeUp_.isOpen()) fail("No descriptors for the event loop");
  control(EPOLL_CTL_ADD, wakeUp_.get(), EPOLLIN);
}

void EventLoop::watch(int descriptor, std::uint32_t events, Handler handler) {
  control(EPOLL_CTL_ADD, descriptor, events);
  handlers_[descriptor] = std::make_shared<Handler>(std::move(handler));
}

void EventLoop::change(int descriptor, std::uint32_t events) { control(EPOLL_CTL_MOD, descriptor, events); }

void EventLoop::unwatch(int descriptor) {
  if (handlers_.erase(descriptor) > 0) control(EPOLL_CTL_DEL, descriptor, 0);
}

void EventLoop::control(int operation, int descriptor, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = descriptor;
  if (epoll_ctl(poll_.get(), operation, descriptor, &event) != 0) fail("The event loop cannot watch a descriptor");
}

void EventLoop::turn(std::chrono::milliseconds limit) {
  std::array<epoll_event, kEventsAtOnce> events{};
  const int count = epoll_wait(poll_.get(), events.data(), events.size(), static_cast<int>(limit.count()));
  if (count < 0 && errno != EINTR) fail("The event loop cannot wait");
  for (int i = 0; i < count; ++i) {
    const auto found = handlers_.find(events[i].data.fd);
    if (found == handlers_.end()) continue;  // the wake-up, or gone since
    const std::shared_ptr<Handler> handler = found->second;
    (*handler)(events[i].events);
  }
  runPosted();
}

void EventLoop::post(Block block) {
  const std::lock_guard lock(mutex_);
  posted_.push_back(std::move(block));
  if (posted_.size() == 1) (void)eventfd_write(wakeUp_.get(), 1);  // fails only when a wake-up is there already
}

void EventLoop::runPosted() {
  std::vector<Block> blocks;
  {
    const std::lock_guard lock(mutex_);
    eventfd_t ignored = 0;
    (void)eventfd_read(wakeUp_.get(), &ignored);
    blocks.swap(posted_);
  }
  for (Block& block : blocks) block();
}

}  // namespace transfer

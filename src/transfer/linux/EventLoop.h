// The service's one thread: waits for descriptors, and runs what other threads hand in.
#pragma once

#include <sys/epoll.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/linux/FileDescriptor.h"

namespace transfer {

class EventLoop {
 public:
  /// Gets the events of epoll_wait(2).
  using Handler = std::function<void(std::uint32_t events)>;
  using Block = std::function<void()>;

  /// Throws std::system_error when the system has no descriptors left.
  EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  // On the loop's thread.

  /// Throws std::system_error when the system refuses.
  void watch(int descriptor, std::uint32_t events, Handler handler);
  void change(int descriptor, std::uint32_t events);
  /// Before the descriptor is closed. No call of its handler begins after it.
  void unwatch(int descriptor);
  /// Waits for at most that long, and runs what has come up.
  void turn(std::chrono::milliseconds limit);

  /// Any thread; returns at once. The block runs in one of the next turns, never inside this call, after those that came before.
  void post(Block block);

 private:
  void control(int operation, int descriptor, std::uint32_t events);
  void runPosted();

  platform::FileDescriptor poll_;
  platform::FileDescriptor wakeUp_;
  std::map<int, std::shared_ptr<Handler>> handlers_;
  std::mutex mutex_;
  std::vector<Block> posted_;
};

}  // namespace transfer

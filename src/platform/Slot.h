// A value that one thread replaces while others read it, without a lock that work is done under.
//
// The flag is held only for the copy of T itself; the value that was replaced dies outside it. T should be cheap to copy
// (a reference-counted handle). A reader sees the old value or the new one, never a mixture.
#pragma once

#include <atomic>
#include <thread>
#include <utility>

#include "platform/Export.h"

namespace platform {

template <class T>
class KESTROVA_EXPORT Slot {
 public:
  Slot() = default;
  explicit Slot(T value) : value_(std::move(value)) {}
  Slot(const Slot&) = delete;
  Slot& operator=(const Slot&) = delete;

  T load() const {
    Guard guard(flag_);
    return value_;
  }

  void store(T value) {
    Guard guard(flag_);
    std::swap(value_, value);
    // `value`, now the old one, is destroyed by the caller of this function after the guard: parameters outlive locals.
  }

 private:
  class Guard {
   public:
    explicit Guard(std::atomic_flag& flag) : flag_(flag) {
      // Whoever holds the flag copies a handle and is gone; waiting in the kernel would cost every load a look for waiters.
      while (flag_.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
    }
    ~Guard() { flag_.clear(std::memory_order_release); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

   private:
    std::atomic_flag& flag_;
  };

  mutable std::atomic_flag flag_;
  T value_{};
};

}  // namespace platform

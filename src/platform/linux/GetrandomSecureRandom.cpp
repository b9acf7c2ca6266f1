// Secure random bytes from getrandom(2).
#include "platform/linux/GetrandomSecureRandom.h"

#include <string.h>
#include <sys/mman.h>
#include <sys/random.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <new>
#include <system_error>

#include "platform/Exception.h"

namespace platform {
namespace {

void askSystem(std::span<std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t count = getrandom(bytes.data(), bytes.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw Exception(kInternalInconsistencyException, "getrandom: " + std::generic_category().message(errno));
    bytes = bytes.subspan(static_cast<std::size_t>(count));
  }
}

}  // namespace

struct GetrandomSecureRandom::Store {
  // Cleared memory must be a store that is free and empty: 0 is "not in use" and "nothing left".
  std::atomic<bool> inUse;
  std::size_t left;
  std::array<std::byte, 512> bytes;

  void take(std::span<std::byte> wanted) {
    if (left < wanted.size()) {
      left = 0;  // also if the system fails half-way
      askSystem(bytes);
      left = bytes.size();
    }
    left -= wanted.size();
    memcpy(wanted.data(), bytes.data() + left, wanted.size());
    explicit_bzero(bytes.data() + left, wanted.size());
  }
};

GetrandomSecureRandom::GetrandomSecureRandom() : store_(nullptr) {
  void* memory = mmap(nullptr, sizeof(Store), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return;
  if (madvise(memory, sizeof(Store), MADV_WIPEONFORK) == 0)
    store_ = new (memory) Store{};
  else
    munmap(memory, sizeof(Store));
}

GetrandomSecureRandom::~GetrandomSecureRandom() {
  if (!store_) return;
  explicit_bzero(store_->bytes.data(), store_->bytes.size());
  munmap(store_, sizeof(Store));
}

void GetrandomSecureRandom::fill(std::span<std::byte> bytes) {
  constexpr std::size_t kWorthStoring = 64;
  if (bytes.empty()) return;
  if (!store_ || bytes.size() > kWorthStoring || store_->inUse.exchange(true, std::memory_order_acquire)) return askSystem(bytes);
  struct Release {
    std::atomic<bool>& inUse;
    ~Release() { inUse.store(false, std::memory_order_release); }
  } release{store_->inUse};
  store_->take(bytes);
}

}  // namespace platform

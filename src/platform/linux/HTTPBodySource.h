// Where a transfer takes a request's body from, a piece at a time. Used by the loop's thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <expected>
#include <string_view>

#include "platform/Error.h"

namespace platform {

class HTTPBodySource {
 public:
  virtual ~HTTPBodySource() = default;
  /// Of the whole body; does not change.
  virtual std::uint64_t length() const = 0;
  /// Fills the buffer with what the body has from `offset` on, which lies before its end, and yields the number of bytes, never
  /// none. A failure ends the transfer with that error. A request that is redirected asks for the body again from its start.
  virtual std::expected<std::size_t, Error> readAt(char* buffer, std::size_t size, std::uint64_t offset) = 0;
  /// So much of it has been sent; less than before when it is sent again.
  virtual void wasSent(std::uint64_t bytes) { (void)bytes; }
};

/// A body in memory, which must outlive it.
class MemoryBodySource final : public HTTPBodySource {
 public:
  explicit MemoryBodySource(std::string_view bytes) : bytes_(bytes) {}

  std::uint64_t length() const override { return bytes_.size(); }
  std::expected<std::size_t, Error> readAt(char* buffer, std::size_t size, std::uint64_t offset) override {
    const std::string_view piece = bytes_.substr(offset, size);
    std::memcpy(buffer, piece.data(), piece.size());
    return piece.size();
  }

 private:
  std::string_view bytes_;
};

}  // namespace platform

// An immutable byte string whose copies share one block of memory.
//
// It is what a Value holds as text and what dictionaries use as keys. The bytes are usually UTF-8 but nothing here demands it.
// One pointer wide; the empty string owns nothing. Any thread may copy and read the same String.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Export.h"

namespace platform {

class KESTROVA_EXPORT String {
 public:
  String() noexcept = default;
  String(std::string_view text);                                       // NOLINT(google-explicit-constructor): text converts freely
  String(const char* text) : String(std::string_view(text)) {}         // NOLINT(google-explicit-constructor)
  String(const std::string& text) : String(std::string_view(text)) {}  // NOLINT(google-explicit-constructor)
  String(const String& other) noexcept : block_(other.block_) { retain(); }
  String(String&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
  String& operator=(String other) noexcept {
    std::swap(block_, other.block_);
    return *this;
  }
  ~String() { release(); }

  std::string_view view() const noexcept {
    return block_ ? std::string_view(reinterpret_cast<const char*>(block_ + 1), block_->length) : std::string_view();
  }
  operator std::string_view() const noexcept { return view(); }  // NOLINT(google-explicit-constructor)
  std::size_t length() const noexcept { return block_ ? block_->length : 0; }
  std::string description() const { return std::string(view()); }

  friend bool operator==(const String& a, const String& b) noexcept { return a.block_ == b.block_ || a.view() == b.view(); }
  friend auto operator<=>(const String& a, const String& b) noexcept { return a.view() <=> b.view(); }

 private:
  friend class Value;
  friend class StringBuilder;

  struct Block {  // followed in memory by `length` bytes
    std::atomic<std::uint32_t> references{1};
    std::size_t length;
  };

  static Block* makeBlock(std::size_t length);
  static void freeBlock(Block* block) noexcept;

  void retain() const noexcept {
    if (block_) block_->references.fetch_add(1, std::memory_order_relaxed);
  }
  void release() noexcept {
    if (block_ && block_->references.fetch_sub(1, std::memory_order_acq_rel) == 1) freeBlock(block_);
  }

  Block* block_ = nullptr;
};

/// Bytes that grow and become a String without being copied. One thread at a time.
class KESTROVA_EXPORT StringBuilder {
 public:
  StringBuilder() noexcept = default;
  StringBuilder(const StringBuilder&) = delete;
  StringBuilder& operator=(const StringBuilder&) = delete;
  ~StringBuilder();

  void push(char byte) { *room(1) = byte, ++length_; }
  void append(std::string_view bytes) {
    if (bytes.empty()) return;
    std::memcpy(room(bytes.size()), bytes.data(), bytes.size());
    length_ += bytes.size();
  }
  /// Where up to `count` more bytes may be written; grown() then says how many were.
  char* room(std::size_t count) {
    if (capacity_ - length_ < count) grow(count);
    return reinterpret_cast<char*>(block_ + 1) + length_;
  }
  void grown(std::size_t count) noexcept { length_ += count; }
  std::size_t length() const noexcept { return length_; }

  /// What was put together; the builder is empty after it.
  String take();

 private:
  void grow(std::size_t count);

  String::Block* block_ = nullptr;
  std::size_t length_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace platform

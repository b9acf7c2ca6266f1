// The blocks behind String: one allocation each, counted references.
#include "platform/String.h"

#include <cstdlib>
#include <limits>
#include <new>

namespace platform {
namespace {

constexpr std::size_t kFirstCapacity = 512;    // of a builder: an ordinary event record fits without growing
constexpr std::size_t kTolerableSlack = 1024;  // bytes that a built string may hold unused without being shrunk

}  // namespace

String::String(std::string_view text) {
  if (text.empty()) return;
  block_ = makeBlock(text.size());
  std::memcpy(reinterpret_cast<char*>(block_ + 1), text.data(), text.size());
}

// malloc, not new, so that a builder's block can grow and shrink where it lies.
String::Block* String::makeBlock(std::size_t length) {
  if (length > std::numeric_limits<std::size_t>::max() - sizeof(Block)) throw std::bad_alloc();
  void* memory = std::malloc(sizeof(Block) + length);
  if (!memory) throw std::bad_alloc();
  auto* block = new (memory) Block;
  block->length = length;
  return block;
}

void String::freeBlock(Block* block) noexcept { std::free(block); }

StringBuilder::~StringBuilder() { std::free(block_); }

void StringBuilder::grow(std::size_t count) {
  if (count > std::numeric_limits<std::size_t>::max() / 4 - length_) throw std::bad_alloc();
  std::size_t capacity = capacity_ == 0 ? kFirstCapacity : 2 * capacity_;
  if (capacity < length_ + count) capacity = length_ + count;
  void* memory = std::realloc(static_cast<void*>(block_), sizeof(String::Block) + capacity);
  if (!memory) throw std::bad_alloc();
  block_ = static_cast<String::Block*>(memory);
  capacity_ = capacity;
}

String StringBuilder::take() {
  String result;
  if (length_ == 0) return result;
  if (capacity_ - length_ > kTolerableSlack) {
    if (void* smaller = std::realloc(static_cast<void*>(block_), sizeof(String::Block) + length_))
      block_ = static_cast<String::Block*>(smaller);
  }
  result.block_ = new (static_cast<void*>(block_)) String::Block;  // the bytes behind it stay
  result.block_->length = length_;
  block_ = nullptr;
  length_ = capacity_ = 0;
  return result;
}

}  // namespace platform

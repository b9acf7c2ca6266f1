// How every queue runs a block.
#include "platform/DispatchQueue.h"

#include <exception>

#include "platform/Exception.h"
#include "platform/UncaughtException.h"

namespace platform {

void DispatchQueue::run(Block& block, UncaughtException& handler) {
  try {
    if (!block) throw Exception(kInvalidArgumentException, "An absent block was submitted to a queue");
    block();
  } catch (...) {
    handler.uncaught(std::current_exception());
  }
}

}  // namespace platform

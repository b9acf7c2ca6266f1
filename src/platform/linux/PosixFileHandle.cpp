// The operations of a file handle.
#include "platform/linux/PosixFileHandle.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "platform/linux/FileErrors.h"

namespace platform {
namespace {

constexpr std::size_t kBufferOnStack = 16384;

}  // namespace

std::uint64_t PosixFileHandle::seekToEndOfFile() {
  struct stat status;
  if (::fstat(file_.get(), &status) != 0) throw fileHandleException("seekToEndOfFile", errno);
  position_ = static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0));
  return position_;
}

void PosixFileHandle::seekToFileOffset(std::uint64_t offset) {
  expectOpen("seekToFileOffset:");
  position_ = offset;
}

Data PosixFileHandle::readDataOfLength(std::uint64_t length) {
  constexpr const char* kOperation = "readDataOfLength:";
  expectOpen(kOperation);
  std::array<char, kBufferOnStack> small;
  if (length <= small.size()) {
    const auto count = file_.readAt(small.data(), static_cast<std::size_t>(length), position_);
    if (!count) throw fileHandleException(kOperation, count.error());
    position_ += *count;
    return Data(std::string_view(small.data(), *count));
  }
  std::string content;  // grows with what is there, whatever was asked for
  while (content.size() < length) {
    const auto count = file_.readAt(small.data(), std::min<std::uint64_t>(small.size(), length - content.size()), position_);
    if (!count) throw fileHandleException(kOperation, count.error());
    if (*count == 0) break;
    content.append(small.data(), *count);
    position_ += *count;
  }
  return Data(std::string_view(content));
}

Data PosixFileHandle::readDataToEndOfFile() {
  constexpr const char* kOperation = "readDataToEndOfFile";
  expectOpen(kOperation);
  const auto content = file_.readToEnd(position_);
  if (!content) throw fileHandleException(kOperation, content.error());
  position_ += content->size();
  return Data(std::string_view(*content));
}

void PosixFileHandle::writeData(const Data& data) {
  constexpr const char* kOperation = "writeData:";
  expectOpen(kOperation);
  if (const int error = file_.writeAllAt(data.bytes(), position_)) throw fileHandleException(kOperation, error);
  position_ += data.length();
}

void PosixFileHandle::synchronizeFile() {
  if (const int error = file_.synchronize()) throw fileHandleException("synchronizeFile", error);
}

void PosixFileHandle::closeFile() { file_.close(); }

void PosixFileHandle::expectOpen(const char* operation) const {
  if (!file_.isOpen()) throw fileHandleException(operation, EBADF);
}

}  // namespace platform

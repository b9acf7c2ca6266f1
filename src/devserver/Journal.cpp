// Appending to the journal file and to standard output.
#include "devserver/Journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <system_error>

#include "devserver/Json.h"

namespace devserver {
namespace {

std::unexpected<std::string> failure(const char* action, const std::filesystem::path& file) {
  return std::unexpected(std::string(action) + " " + file.string() + ": " + std::generic_category().message(errno));
}

bool writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

Journal::~Journal() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

std::expected<void, std::string> Journal::open(const std::filesystem::path& file) {
  file_ = file;
  descriptor_ = ::open(file.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (descriptor_ < 0) return failure("cannot open the journal", file);
  const off_t end = ::lseek(descriptor_, 0, SEEK_END);
  if (end < 0) return failure("cannot use as a journal", file);
  start_ = static_cast<std::uint64_t>(end);
  return {};
}

std::expected<void, std::string> Journal::append(const platform::Dictionary& entry) {
  const std::string line = writeJson(entry) + "\n";
  std::lock_guard lock(mutex_);
  const off_t before = ::lseek(descriptor_, 0, SEEK_END);
  if (writeAll(descriptor_, line)) return {};
  const auto failed = failure("cannot write to the journal", file_);
  // Half a line would make the next one unreadable too.
  if (before >= 0) static_cast<void>(::ftruncate(descriptor_, before) == 0);
  return failed;
}

std::expected<std::string, std::string> Journal::entriesAsJson() const {
  std::lock_guard lock(mutex_);
  std::string text = "[";
  std::array<char, 65536> block{};
  std::uint64_t at = start_;
  ssize_t count = 0;
  while ((count = ::pread(descriptor_, block.data(), block.size(), static_cast<off_t>(at))) > 0 || (count < 0 && errno == EINTR)) {
    if (count < 0) continue;
    text.append(block.data(), static_cast<std::size_t>(count));
    at += static_cast<std::uint64_t>(count);
  }
  if (count < 0) return failure("cannot read the journal", file_);
  // Within a line every control character is escaped: each line feed ends an entry.
  std::ranges::replace(text, '\n', ',');
  if (text.ends_with(',')) text.pop_back();
  return text + "]";
}

std::string timeText(std::chrono::milliseconds time) {
  const auto whole = std::chrono::floor<std::chrono::seconds>(time);
  const std::time_t seconds = whole.count();
  const auto milliseconds = (time - whole).count();
  std::tm parts{};
  std::array<char, 32> text{};
  if (!::gmtime_r(&seconds, &parts)) return "";
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S.", &parts);
  return std::string(text.data(), length) + std::to_string(1000 + milliseconds).substr(1) + "Z";
}

std::string timeText() {
  return timeText(std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch()));
}

void printLine(std::string_view line) {
  // One call for each line keeps the lines of different threads whole.
  writeAll(STDOUT_FILENO, std::string(line) + "\n");
}

void printError(std::string_view message) { writeAll(STDERR_FILENO, "kestrova-devserver: " + std::string(message) + "\n"); }

}  // namespace devserver

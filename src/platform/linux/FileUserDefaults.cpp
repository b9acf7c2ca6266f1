// User defaults that survive a crash, a power cut and other processes.
//
// Readers look into a snapshot in memory and never wait for a write. A change is put into the snapshot first and then brought to
// the disk: under a lock between processes the file is read, changed and replaced in one step, so that processes that write
// different keys lose nothing. Changes that could not be written stay in `pending_`, lie over whatever the file holds, and are
// tried again with the next one.
#include "platform/linux/FileUserDefaults.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <map>
#include <mutex>
#include <string>

#include "platform/Slot.h"
#include "platform/linux/ApplicationFolder.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/PropertyListCoding.h"

namespace platform {
namespace {

constexpr std::int64_t kFormatVersion = 1;
constexpr std::int64_t kCheckInterval = 500;  // milliseconds; another process's change is promised within a second

std::int64_t systemCoarseClock() {
  timespec now;
  (void)::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

bool isSameState(const struct stat& a, const struct stat& b) {
  const auto same = [](const timespec& x, const timespec& y) { return x.tv_sec == y.tv_sec && x.tv_nsec == y.tv_nsec; };
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size && same(a.st_mtim, b.st_mtim) &&
         same(a.st_ctim, b.st_ctim);
}

// What was last seen under the file's name. The file is kept open, so that no later file can have the same inode number.
struct SeenFile {
  FileDescriptor file;
  struct stat status{};
};

enum class ReadFailure { kUnreadable, kCorrupt };

class FileUserDefaults final : public UserDefaults {
 public:
  FileUserDefaults(const SystemOptions& options, std::shared_ptr<JSONSerialization> json, CoarseClock clock)
      : folder_(options), json_(std::move(json)), clock_(clock ? clock : &systemCoarseClock) {}

  void setObjectForKey(const std::optional<Value>& value, std::string_view key) override {
    if (value) expectPropertyListValue(*value, key);
    ensureLoaded();
    const std::lock_guard lock(fileMutex_);
    pending_.insert_or_assign(String(key), value);
    publish(snapshot_.load());
    writePending();
  }

  std::optional<Value> objectForKey(std::string_view key) override {
    ensureLoaded();
    refreshWhenDue();
    return snapshot_.load().objectForKey(key);
  }

  void synchronize() override {
    ensureLoaded();
    const std::lock_guard lock(fileMutex_);
    refresh();
    if (!pending_.empty()) writePending();
  }

 private:
  void ensureLoaded() {
    if (isLoaded_.load(std::memory_order_acquire)) return;
    const std::lock_guard lock(loadMutex_);
    if (isLoaded_.load(std::memory_order_relaxed)) return;
    if (const auto path = folder_.path()) path_ = *path + "/user-defaults.json";
    refresh();
    isLoaded_.store(true, std::memory_order_release);
  }

  void refreshWhenDue() {
    if (clock_() < nextCheck_.load(std::memory_order_relaxed)) return;
    const std::unique_lock lock(fileMutex_, std::try_to_lock);
    if (lock) refresh();  // else someone is at the file already
  }

  // The operations below need fileMutex_ held, or loadMutex_ before the first load has ended.

  void refresh() {
    nextCheck_.store(clock_() + kCheckInterval, std::memory_order_relaxed);
    if (path_.empty() || isUnchanged()) return;
    auto content = read();
    if (!content && content.error() == ReadFailure::kCorrupt) {
      const FileDescriptor lock = lockedFile();
      content = lock.isOpen() ? readOrSetAside() : Dictionary();
    }
    if (content) publish(*std::move(content));
  }

  bool isUnchanged() const {
    struct stat status;
    if (::stat(path_.c_str(), &status) != 0) return errno != ENOENT;  // what cannot be looked at is not known to have changed
    return seen_.file.isOpen() && isSameState(status, seen_.status);
  }

  void publish(Dictionary content) {
    for (const auto& [key, value] : pending_) {
      if (value) {
        content.setObjectForKey(*value, key);
      } else {
        content.removeObjectForKey(key);
      }
    }
    snapshot_.store(std::move(content));
  }

  // Failing is silent: the changes stay in `pending_` and, by the snapshot, in force for this process.
  void writePending() {
    if (path_.empty() || makeDirectories(folderPath()) != 0) return;
    const FileDescriptor lock = lockedFile();
    if (!lock.isOpen()) return;
    auto content = readOrSetAside();
    if (!content) return;
    publish(*std::move(content));
    if (replaceFile(snapshot_.load())) pending_.clear();
  }

  std::string folderPath() const { return path_.substr(0, path_.rfind('/')); }

  // The lock between processes, held until the descriptor closes. It lies beside the file because the file itself is replaced.
  FileDescriptor lockedFile() const {
    auto file = FileDescriptor::open(folderPath() + "/user-defaults.lock", O_RDWR | O_CREAT);
    if (!file) return {};
    while (::flock(file->get(), LOCK_EX) != 0) {
      if (errno != EINTR) return {};
    }
    return std::move(*file);
  }

  // A missing file is an empty one.
  std::expected<Dictionary, ReadFailure> read() {
    auto file = FileDescriptor::open(path_, O_RDONLY | O_NONBLOCK);
    if (!file && file.error() == ENOENT) {
      seen_ = SeenFile();
      return Dictionary();
    }
    SeenFile seen;
    if (!file || ::fstat(file->get(), &seen.status) != 0) return std::unexpected(ReadFailure::kUnreadable);
    const auto text = file->readToEnd(0);
    if (!text) return std::unexpected(ReadFailure::kUnreadable);
    auto content = decoded(Data(std::string_view(*text)));
    if (!content) return std::unexpected(ReadFailure::kCorrupt);
    seen.file = std::move(*file);
    seen_ = std::move(seen);
    return *std::move(content);
  }

  // With the lock between processes held. A file that is no defaults file is kept under another name for whoever can make sense of
  // it.
  std::expected<Dictionary, ReadFailure> readOrSetAside() {
    auto content = read();
    if (content || content.error() != ReadFailure::kCorrupt) return content;
    for (int number = 1;; ++number) {
      const std::string name = path_ + ".corrupt-" + std::to_string(number);
      if (::renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, name.c_str(), RENAME_NOREPLACE) == 0) break;
      if (errno != EEXIST) return content;
    }
    seen_ = SeenFile();
    return Dictionary();
  }

  std::optional<Dictionary> decoded(const Data& text) const {
    const auto document = json_->read(text);
    if (!document || !document->isObject()) return std::nullopt;
    const std::optional<Value> version = document->objectForKey("version");
    const std::optional<Value> values = document->objectForKey("values");
    if (version != Value(kFormatVersion) || !values || !values->isObject()) return std::nullopt;
    const std::optional<Value> content = decodedPropertyList(*values);
    if (!content || !content->isObject()) return std::nullopt;
    return content->object();
  }

  // With the lock between processes held, so that the new file's name is nobody else's. What a killed process left under it is in
  // the way only.
  bool replaceFile(const Dictionary& content) {
    const auto text = json_->write(Dictionary{{"values", encodedPropertyList(content)}, {"version", kFormatVersion}});
    if (!text) return false;
    const std::string newPath = path_ + ".new";
    ::unlink(newPath.c_str());
    SeenFile seen;
    auto file = FileDescriptor::open(newPath, O_RDWR | O_CREAT | O_EXCL);
    const auto folder = FileDescriptor::open(folderPath(), O_RDONLY | O_DIRECTORY);
    if (!file || !folder) return false;
    if (file->writeAll(text->bytes()) != 0 || file->synchronize() != 0 || ::rename(newPath.c_str(), path_.c_str()) != 0) {
      ::unlink(newPath.c_str());
      return false;
    }
    (void)synchronizeDirectory(*folder);
    if (::fstat(file->get(), &seen.status) == 0) seen.file = std::move(*file);
    seen_ = std::move(seen);
    return true;
  }

  const ApplicationFolder folder_;
  const std::shared_ptr<JSONSerialization> json_;
  const CoarseClock clock_;

  std::mutex loadMutex_;
  std::atomic<bool> isLoaded_{false};
  std::string path_;  // empty when there is no place for the file
  std::atomic<std::int64_t> nextCheck_{0};
  Slot<Dictionary> snapshot_;

  std::mutex fileMutex_;
  std::map<String, std::optional<Value>> pending_;
  SeenFile seen_;
};

}  // namespace

std::shared_ptr<UserDefaults> makeFileUserDefaults(const SystemOptions& options, std::shared_ptr<JSONSerialization> json,
                                                   CoarseClock clock) {
  return std::make_shared<FileUserDefaults>(options, std::move(json), clock);
}

}  // namespace platform

// The in-memory file system and its handles. Every operation below the disk's lock yields the error number that the system would.
#include "support/MemoryFileManager.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <map>
#include <mutex>
#include <stdexcept>

#include "platform/Process.h"
#include "platform/linux/FileErrors.h"

namespace test {

namespace {

using platform::absentFileURLError;
using platform::Data;
using platform::Date;
using platform::Error;
using platform::FileAttributes;
using platform::fileHandleException;
using platform::fileReadingError;
using platform::fileRemovalError;
using platform::fileTransferError;
using platform::fileWritingError;
using platform::URL;

using Type = FileAttributes::Type;

constexpr int kMaxSymbolicLinks = 40;
constexpr std::uint64_t kMaxFileSize = std::uint64_t{1} << 30;

// Asked for before the disk is locked: in a simulation any call of a service may let another thread run.
Date currentDate(const std::shared_ptr<platform::Clock>& clock) {
  if (clock) return clock->now();
  const platform::Process* process = platform::Process::currentOrNull();
  return process && process->clock ? process->clock->now() : Date();
}

struct Node {
  Node(Type itsType, Date now) : type(itsType), modified(now), changed(now) {}

  Type type;
  std::string bytes;  // a symbolic link's target
  std::map<std::string, std::shared_ptr<Node>> entries;
  Date modified;
  Date changed;
  std::string lastingBytes;
  std::map<std::string, std::shared_ptr<Node>> lastingEntries;

  bool isDirectory() const { return type == Type::kDirectory; }
  void contentHasChanged(Date now) { modified = changed = now; }
  void synchronize() {
    lastingBytes = bytes;
    lastingEntries = entries;
  }
};

using NodePointer = std::shared_ptr<Node>;

// Where a path leads: the directory that holds the name, and what lies there, which may be nothing.
struct Place {
  NodePointer parent;  // null for the root
  std::string name;
  NodePointer node;

  void put(NodePointer newNode, Date now) {
    parent->entries[name] = std::move(newNode);
    parent->contentHasChanged(now);
  }
  void clear(Date now) {
    parent->entries.erase(name);
    parent->contentHasChanged(now);
  }
};

std::vector<std::string> componentsOf(std::string_view path) {
  std::vector<std::string> components;
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t slash = std::min(path.find('/', at), path.size());
    if (slash > at) components.emplace_back(path.substr(at, slash - at));
    at = slash + 1;
  }
  return components;
}

std::optional<std::string> pathOf(const std::optional<URL>& url) {
  if (!url || !url->isFileURL()) return std::nullopt;
  return std::string(platform::withoutTrailingSlashes(url->path()));
}

template <class T>
T orLogicError(std::expected<T, int> result, std::string_view path) {
  if (!result) throw std::logic_error(std::string(path) + ": " + platform::systemErrorText(result.error()));
  if constexpr (!std::is_void_v<T>) return *std::move(result);
}

void collectFiles(const Node& directory, const std::string& path, std::vector<std::string>& files) {
  for (const auto& [name, node] : directory.entries) {
    if (node->isDirectory()) {
      collectFiles(*node, path + "/" + name, files);
    } else {
      files.push_back(path + "/" + name);
    }
  }
}

void synchronizeTree(Node& node) {
  node.synchronize();
  for (const auto& [name, child] : node.entries) synchronizeTree(*child);
}

void revertTree(Node& node) {
  node.bytes = node.lastingBytes;
  node.entries = node.lastingEntries;
  for (const auto& [name, child] : node.entries) revertTree(*child);
}

using Lot = std::function<std::size_t(std::size_t bound)>;

std::string bytesLeft(const std::string& lasting, const std::string& live, const Lot& lot) {
  switch (lot(3)) {
    case 0:
      return lasting;
    case 1:
      return live;
    default: {
      const std::size_t written = lot(live.size() + 1);
      return live.substr(0, written) + (written < lasting.size() ? lasting.substr(written) : "");
    }
  }
}

void cutTree(Node& node, const Lot& lot) {
  if (node.bytes != node.lastingBytes) node.bytes = bytesLeft(node.lastingBytes, node.bytes, lot);
  auto names = node.lastingEntries;
  names.insert(node.entries.begin(), node.entries.end());
  for (const auto& [name, either] : names) {
    const auto live = node.entries.find(name);
    const auto lasting = node.lastingEntries.find(name);
    const NodePointer before = lasting == node.lastingEntries.end() ? nullptr : lasting->second;
    const NodePointer after = live == node.entries.end() ? nullptr : live->second;
    if (before == after) continue;
    const NodePointer left = lot(2) == 0 ? before : after;
    if (left)
      node.entries[name] = left;
    else
      node.entries.erase(name);
  }
  node.synchronize();
  for (const auto& [name, child] : node.entries) cutTree(*child, lot);
}

}  // namespace

class MemoryFileManager::Disk {
 public:
  explicit Disk(std::shared_ptr<platform::Clock> itsClock) : clock(std::move(itsClock)) {}

  const std::shared_ptr<platform::Clock> clock;  // null for the record's in force
  std::mutex mutex;
  NodePointer root = std::make_shared<Node>(Type::kDirectory, currentDate(clock));

  std::expected<Place, int> find(std::string_view path, bool followLast) { return find(path, followLast, kMaxSymbolicLinks); }

  // What lies at the path; ENOENT when nothing does.
  std::expected<NodePointer, int> node(std::string_view path, bool followLast) {
    auto place = find(path, followLast);
    if (!place) return std::unexpected(place.error());
    if (!place->node) return std::unexpected(ENOENT);
    return place->node;
  }

  // A new name, which must be free.
  std::expected<Place, int> freePlace(std::string_view path) {
    auto place = find(path, false);
    if (place && place->node) return std::unexpected(EEXIST);
    return place;
  }

  std::expected<void, int> makeDirectories(std::string_view path, Date now) {
    if (path.empty()) return std::unexpected(ENOENT);
    auto place = find(path, true);
    if (!place && place.error() == ENOENT && path != "/") {
      if (auto parent = makeDirectories(platform::parentOfPath(path), now); !parent) return parent;
      place = find(path, true);
    }
    if (!place) return std::unexpected(place.error());
    if (place->node) return place->node->isDirectory() ? std::expected<void, int>() : std::unexpected(EEXIST);
    place->put(std::make_shared<Node>(Type::kDirectory, now), now);
    place->parent->synchronize();
    return {};
  }

  std::expected<void, int> rename(const std::string& from, const std::string& to, bool mayReplace, Date now) {
    auto source = find(from, false);
    if (!source) return std::unexpected(source.error());
    if (!source->node) return std::unexpected(ENOENT);
    auto target = find(to, false);
    if (!target) return std::unexpected(target.error());
    if (!source->parent || !target->parent) return std::unexpected(EBUSY);
    if (target->node && !mayReplace) return std::unexpected(EEXIST);
    if (source->parent == target->parent && source->name == target->name) return {};
    if (source->node->isDirectory() && to.starts_with(from + "/")) return std::unexpected(EINVAL);
    if (target->node && target->node != source->node) {
      if (target->node->isDirectory() && !source->node->isDirectory()) return std::unexpected(EISDIR);
      if (!target->node->isDirectory() && source->node->isDirectory()) return std::unexpected(ENOTDIR);
      if (!target->node->entries.empty()) return std::unexpected(ENOTEMPTY);
    }
    source->clear(now);
    target->put(source->node, now);
    source->node->changed = now;
    return {};
  }

 private:
  std::expected<Place, int> find(std::string_view path, bool followLast, int linksLeft) {
    if (path.empty()) return std::unexpected(ENOENT);
    if (path.find('\0') != std::string_view::npos) return std::unexpected(EINVAL);
    std::vector<NodePointer> way{root};
    Place place{.parent = nullptr, .name = {}, .node = root};
    const std::vector<std::string> components = componentsOf(path);
    for (std::size_t i = 0; i < components.size(); ++i) {
      const std::string& name = components[i];
      if (!place.node) return std::unexpected(ENOENT);
      if (!place.node->isDirectory()) return std::unexpected(ENOTDIR);
      if (name == "." || name == "..") {
        if (name == ".." && way.size() > 1) way.pop_back();
        place = Place{.parent = nullptr, .name = {}, .node = way.back()};
        continue;
      }
      const auto entry = place.node->entries.find(name);
      place = Place{.parent = place.node, .name = name, .node = entry == place.node->entries.end() ? nullptr : entry->second};
      const bool isLast = i + 1 == components.size();
      if (place.node && place.node->type == Type::kSymbolicLink && (followLast || !isLast)) {
        return findThroughLink(place, pathOfFirst(components, i), components, i + 1, followLast, linksLeft);
      }
      if (place.node) way.push_back(place.node);
    }
    return place;
  }

  std::expected<Place, int> findThroughLink(const Place& link, const std::string& folder,
                                            const std::vector<std::string>& components, std::size_t next, bool followLast,
                                            int linksLeft) {
    if (linksLeft == 0) return std::unexpected(ELOOP);
    std::string path = link.node->bytes.starts_with('/') ? link.node->bytes : folder + "/" + link.node->bytes;
    for (std::size_t i = next; i < components.size(); ++i) path += "/" + components[i];
    return find(path, followLast, linksLeft - 1);
  }

  static std::string pathOfFirst(const std::vector<std::string>& components, std::size_t count) {
    std::string path;
    for (std::size_t i = 0; i < count; ++i) path += "/" + components[i];
    return path;
  }
};

namespace {

class MemoryFileHandle final : public platform::FileHandle {
 public:
  using Access = platform::FileManager::Access;

  MemoryFileHandle(std::shared_ptr<void> disk, std::mutex& mutex, std::shared_ptr<platform::Clock> clock, NodePointer node,
                   Access access)
      : disk_(std::move(disk)), mutex_(mutex), clock_(std::move(clock)), node_(std::move(node)), access_(access) {}

  std::uint64_t seekToEndOfFile() override {
    const std::lock_guard lock(mutex_);
    expectOpen("seekToEndOfFile");
    position_ = node_->bytes.size();
    return position_;
  }

  void seekToFileOffset(std::uint64_t offset) override {
    const std::lock_guard lock(mutex_);
    expectOpen("seekToFileOffset:");
    position_ = offset;
  }

  Data readDataOfLength(std::uint64_t length) override { return read(length, "readDataOfLength:"); }
  Data readDataToEndOfFile() override { return read(UINT64_MAX, "readDataToEndOfFile"); }

  void writeData(const Data& data) override {
    constexpr const char* kOperation = "writeData:";
    const Date now = currentDate(clock_);
    const std::lock_guard lock(mutex_);
    expectOpen(kOperation);
    if (data.empty()) return;
    if (position_ > kMaxFileSize || data.length() > kMaxFileSize - position_) throw fileHandleException(kOperation, EFBIG);
    if (access_ == Access::kReading) throw fileHandleException(kOperation, EBADF);
    std::string& bytes = node_->bytes;
    const auto position = static_cast<std::size_t>(position_);
    if (bytes.size() < position) bytes.resize(position, '\0');
    bytes.replace(position, data.length(), data.bytes());
    position_ += data.length();
    node_->contentHasChanged(now);
  }

  void synchronizeFile() override {
    const std::lock_guard lock(mutex_);
    expectOpen("synchronizeFile");
    node_->synchronize();
  }

  void closeFile() override {
    const std::lock_guard lock(mutex_);
    node_ = nullptr;
  }

 private:
  Data read(std::uint64_t length, const char* operation) {
    const std::lock_guard lock(mutex_);
    expectOpen(operation);
    if (length == 0 || position_ > INT64_MAX) return {};
    if (access_ == Access::kWriting) throw fileHandleException(operation, EBADF);
    if (node_->isDirectory()) throw fileHandleException(operation, EISDIR);
    if (position_ >= node_->bytes.size()) return {};
    const std::string_view rest = std::string_view(node_->bytes).substr(static_cast<std::size_t>(position_));
    Data data(rest.substr(0, static_cast<std::size_t>(std::min<std::uint64_t>(length, rest.size()))));
    position_ += data.length();
    return data;
  }

  void expectOpen(const char* operation) const {
    if (!node_) throw fileHandleException(operation, EBADF);
  }

  std::shared_ptr<void> disk_;  // keeps the mutex
  std::mutex& mutex_;
  std::shared_ptr<platform::Clock> clock_;
  NodePointer node_;  // null when closed
  Access access_;
  std::uint64_t position_ = 0;
};

}  // namespace

MemoryFileManager::MemoryFileManager(std::string folder, std::shared_ptr<platform::Clock> clock)
    : disk_(std::make_shared<Disk>(std::move(clock))), folder_(std::move(folder)) {}
MemoryFileManager::~MemoryFileManager() = default;

bool MemoryFileManager::fileExistsAtPath(std::string_view path) {
  const std::lock_guard lock(disk_->mutex);
  return disk_->node(path, true).has_value();
}

std::expected<FileAttributes, Error> MemoryFileManager::attributesOfItemAtPath(std::string_view path) {
  const std::lock_guard lock(disk_->mutex);
  const auto node = disk_->node(path, false);
  if (!node) return std::unexpected(fileReadingError(node.error(), path));
  return FileAttributes{.fileSize = (*node)->bytes.size(),
                        .type = (*node)->type,
                        .modificationDate = (*node)->modified,
                        .attributeModificationDate = (*node)->changed};
}

std::expected<std::vector<std::string>, Error> MemoryFileManager::contentsOfDirectoryAtPath(std::string_view path) {
  const std::lock_guard lock(disk_->mutex);
  const auto node = disk_->node(path, true);
  if (!node) return std::unexpected(fileReadingError(node.error(), path));
  if (!(*node)->isDirectory()) return std::unexpected(fileReadingError(ENOTDIR, path));
  std::vector<std::string> names;
  for (const auto& [name, entry] : (*node)->entries) names.push_back(name);
  return names;
}

std::expected<void, Error> MemoryFileManager::copyItemAtURLToURL(const std::optional<URL>& source,
                                                                 const std::optional<URL>& target) {
  const auto from = pathOf(source);
  const auto to = pathOf(target);
  if (!from || !to) return std::unexpected(absentFileURLError());
  const Date now = currentDate(disk_->clock);
  const std::lock_guard lock(disk_->mutex);
  const auto node = disk_->node(*from, false);
  if (!node) return std::unexpected(fileReadingError(node.error(), *from));
  if ((*node)->isDirectory()) return std::unexpected(fileReadingError(EISDIR, *from));
  auto place = disk_->freePlace(*to);
  if (!place && place.error() == EEXIST) return std::unexpected(fileTransferError("copied", EEXIST, *from, *to));
  if (!place) return std::unexpected(fileWritingError(place.error(), *to, true));
  auto copy = std::make_shared<Node>((*node)->type, now);
  copy->bytes = (*node)->bytes;
  place->put(std::move(copy), now);
  return {};
}

std::expected<void, Error> MemoryFileManager::linkItemAtURLToURL(const std::optional<URL>& source,
                                                                 const std::optional<URL>& target) {
  const auto from = pathOf(source);
  const auto to = pathOf(target);
  if (!from || !to) return std::unexpected(absentFileURLError());
  const Date now = currentDate(disk_->clock);
  const std::lock_guard lock(disk_->mutex);
  const auto node = disk_->node(*from, false);
  if (!node) return std::unexpected(fileTransferError("linked", node.error(), *from, *to));
  auto place = disk_->freePlace(*to);
  if (!place) return std::unexpected(fileTransferError("linked", place.error(), *from, *to));
  if ((*node)->isDirectory()) return std::unexpected(fileTransferError("linked", EPERM, *from, *to));
  place->put(*node, now);
  (*node)->changed = now;
  return {};
}

std::expected<void, Error> MemoryFileManager::moveItemAtURLToURL(const std::optional<URL>& source,
                                                                 const std::optional<URL>& target) {
  const auto from = pathOf(source);
  const auto to = pathOf(target);
  if (!from || !to) return std::unexpected(absentFileURLError());
  const Date now = currentDate(disk_->clock);
  const std::lock_guard lock(disk_->mutex);
  if (auto moved = disk_->rename(*from, *to, false, now); !moved) {
    return std::unexpected(fileTransferError("moved", moved.error(), *from, *to));
  }
  return {};
}

std::expected<void, Error> MemoryFileManager::removeItemAtURL(const std::optional<URL>& url) {
  const auto path = pathOf(url);
  if (!path) return std::unexpected(absentFileURLError());
  return removeItemAtPath(*path);
}

std::expected<void, Error> MemoryFileManager::removeItemAtPath(std::string_view path) {
  const Date now = currentDate(disk_->clock);
  const std::lock_guard lock(disk_->mutex);
  auto place = disk_->find(path, false);
  if (!place) return std::unexpected(fileRemovalError(place.error(), path));
  if (!place->node) return std::unexpected(fileRemovalError(ENOENT, path));
  if (!place->parent) return std::unexpected(fileRemovalError(EBUSY, path));
  if (!place->node->entries.empty()) return std::unexpected(fileRemovalError(ENOTEMPTY, path));
  place->clear(now);
  place->node->changed = now;
  return {};
}

std::expected<URL, Error> MemoryFileManager::replaceItemAtURLWithItemAtURL(const std::optional<URL>& original,
                                                                           const std::optional<URL>& newItem) {
  const auto to = pathOf(original);
  const auto from = pathOf(newItem);
  if (!from || !to) return std::unexpected(absentFileURLError());
  const Date now = currentDate(disk_->clock);
  const std::lock_guard lock(disk_->mutex);
  const auto node = disk_->node(*from, false);
  if (!node) return std::unexpected(fileWritingError(node.error(), node.error() == ENOENT ? *from : *to, node.error() != ENOENT));
  (*node)->synchronize();
  if (auto moved = disk_->rename(*from, *to, true, now); !moved) return std::unexpected(fileWritingError(moved.error(), *to, true));
  (*disk_->node(platform::parentOfPath(*to), true))->synchronize();
  return *original;
}

std::expected<void, Error> MemoryFileManager::createDirectoryAtURL(const std::optional<URL>& url) {
  const auto path = pathOf(url);
  if (!path) return std::unexpected(absentFileURLError());
  const Date now = currentDate(disk_->clock);
  const std::lock_guard lock(disk_->mutex);
  if (auto made = disk_->makeDirectories(*path, now); !made) return std::unexpected(fileWritingError(made.error(), *path, true));
  return {};
}

std::expected<URL, Error> MemoryFileManager::applicationSupportDirectory() {
  const URL url = URL::fileURLWithPath(folder_ + "/application-support");
  if (auto made = createDirectoryAtURL(url); !made) return std::unexpected(made.error());
  return url;
}

std::expected<URL, Error> MemoryFileManager::temporaryDirectory() {
  const URL url = URL::fileURLWithPath(folder_ + "/tmp");
  if (auto made = createDirectoryAtURL(url); !made) return std::unexpected(made.error());
  return url;
}

std::expected<std::shared_ptr<platform::FileHandle>, Error> MemoryFileManager::openFileHandle(const std::optional<URL>& url,
                                                                                              Access access) {
  const auto path = pathOf(url);
  if (!path) return std::unexpected(absentFileURLError());
  const std::lock_guard lock(disk_->mutex);
  const auto node = disk_->node(*path, true);
  if (access == Access::kReading) {
    if (!node) return std::unexpected(fileReadingError(node.error(), *path));
  } else if (!node || (*node)->isDirectory()) {
    return std::unexpected(fileWritingError(node ? EISDIR : node.error(), *path, false));
  }
  return std::make_shared<MemoryFileHandle>(disk_, disk_->mutex, disk_->clock, *node, access);
}

std::expected<void, Error> MemoryFileManager::writeDataWithoutOverwriting(const Data& data, const std::optional<URL>& url) {
  const auto path = pathOf(url);
  if (!path) return std::unexpected(absentFileURLError());
  const Date now = currentDate(disk_->clock);
  const std::lock_guard lock(disk_->mutex);
  auto place = disk_->freePlace(*path);
  if (!place) return std::unexpected(fileWritingError(place.error(), *path, true));
  auto node = std::make_shared<Node>(Type::kRegular, now);
  node->bytes = data.bytes();
  place->put(std::move(node), now);
  return {};
}

std::expected<Data, Error> MemoryFileManager::contentsOfURL(const std::optional<URL>& url) {
  const auto path = pathOf(url);
  if (!path) return std::unexpected(absentFileURLError());
  const std::lock_guard lock(disk_->mutex);
  const auto node = disk_->node(*path, true);
  if (!node) return std::unexpected(fileReadingError(node.error(), *path));
  if ((*node)->isDirectory()) return std::unexpected(fileReadingError(EISDIR, *path));
  return Data(std::string_view((*node)->bytes));
}

std::optional<std::string> MemoryFileManager::bytesAtPath(std::string_view path) {
  const std::lock_guard lock(disk_->mutex);
  const auto node = disk_->node(path, true);
  return node && !(*node)->isDirectory() ? std::optional((*node)->bytes) : std::nullopt;
}

void MemoryFileManager::setBytesAtPath(std::string_view path, std::string_view bytes) {
  const Date now = currentDate(disk_->clock);
  const std::lock_guard lock(disk_->mutex);
  orLogicError(disk_->makeDirectories(platform::parentOfPath(path), now), path);
  Place place = orLogicError(disk_->find(path, true), path);
  if (!place.node) place.put(place.node = std::make_shared<Node>(Type::kRegular, now), now);
  if (place.node->isDirectory()) throw std::logic_error(std::string(path) + " is a directory");
  place.node->bytes = bytes;
  place.node->contentHasChanged(now);
}

void MemoryFileManager::makeSymbolicLink(std::string_view path, std::string_view target) {
  const Date now = currentDate(disk_->clock);
  const std::lock_guard lock(disk_->mutex);
  Place place = orLogicError(disk_->freePlace(path), path);
  auto link = std::make_shared<Node>(Type::kSymbolicLink, now);
  link->bytes = target;
  place.put(std::move(link), now);
}

std::vector<std::string> MemoryFileManager::allFiles() {
  const std::lock_guard lock(disk_->mutex);
  std::vector<std::string> files;
  collectFiles(*disk_->root, "", files);
  std::sort(files.begin(), files.end());
  return files;
}

void MemoryFileManager::synchronizeAll() {
  const std::lock_guard lock(disk_->mutex);
  synchronizeTree(*disk_->root);
}

void MemoryFileManager::powerCut() {
  const std::lock_guard lock(disk_->mutex);
  revertTree(*disk_->root);
}

void MemoryFileManager::powerCut(const std::function<std::size_t(std::size_t)>& lot) {
  const std::lock_guard lock(disk_->mutex);
  cutTree(*disk_->root, lot);
}

}  // namespace test

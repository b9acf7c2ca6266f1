// The deliberate mistakes, each in a wrapper around one service.
#include "simulation/Mutation.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "support/MemoryFileManager.h"

namespace simulation {
namespace {

using platform::Data;
using platform::Error;
using platform::URL;

using Draw = std::function<bool()>;
using Gap = std::function<void()>;

/// A file manager that hands everything on; the mistakes are made by those below.
class ThroughFileManager : public platform::FileManager {
 public:
  explicit ThroughFileManager(std::shared_ptr<platform::FileManager> inner) : inner_(std::move(inner)) {}

  bool fileExistsAtPath(std::string_view path) override { return inner_->fileExistsAtPath(path); }
  std::expected<platform::FileAttributes, Error> attributesOfItemAtPath(std::string_view path) override {
    return inner_->attributesOfItemAtPath(path);
  }
  std::expected<std::vector<std::string>, Error> contentsOfDirectoryAtPath(std::string_view path) override {
    return inner_->contentsOfDirectoryAtPath(path);
  }
  std::expected<void, Error> copyItemAtURLToURL(const std::optional<URL>& source, const std::optional<URL>& target) override {
    return inner_->copyItemAtURLToURL(source, target);
  }
  std::expected<void, Error> linkItemAtURLToURL(const std::optional<URL>& source, const std::optional<URL>& target) override {
    return inner_->linkItemAtURLToURL(source, target);
  }
  std::expected<void, Error> moveItemAtURLToURL(const std::optional<URL>& source, const std::optional<URL>& target) override {
    return inner_->moveItemAtURLToURL(source, target);
  }
  std::expected<void, Error> removeItemAtURL(const std::optional<URL>& url) override { return inner_->removeItemAtURL(url); }
  std::expected<void, Error> removeItemAtPath(std::string_view path) override { return inner_->removeItemAtPath(path); }
  std::expected<URL, Error> replaceItemAtURLWithItemAtURL(const std::optional<URL>& original,
                                                          const std::optional<URL>& newItem) override {
    return inner_->replaceItemAtURLWithItemAtURL(original, newItem);
  }
  std::expected<void, Error> createDirectoryAtURL(const std::optional<URL>& url) override {
    return inner_->createDirectoryAtURL(url);
  }
  std::expected<URL, Error> applicationSupportDirectory() override { return inner_->applicationSupportDirectory(); }
  std::expected<URL, Error> temporaryDirectory() override { return inner_->temporaryDirectory(); }
  std::expected<std::shared_ptr<platform::FileHandle>, Error> openFileHandle(const std::optional<URL>& url,
                                                                             Access access) override {
    return inner_->openFileHandle(url, access);
  }
  std::expected<void, Error> writeDataWithoutOverwriting(const Data& data, const std::optional<URL>& url) override {
    return inner_->writeDataWithoutOverwriting(data, url);
  }
  std::expected<Data, Error> contentsOfURL(const std::optional<URL>& url) override { return inner_->contentsOfURL(url); }

 protected:
  std::shared_ptr<platform::FileManager> inner_;
};

/// Puts the new file there by its name alone: no byte and no name is brought to the disk.
class UnsyncedReplacement final : public ThroughFileManager {
 public:
  using ThroughFileManager::ThroughFileManager;
  std::expected<URL, Error> replaceItemAtURLWithItemAtURL(const std::optional<URL>& original,
                                                          const std::optional<URL>& newItem) override {
    (void)inner_->removeItemAtURL(original);  // there may be none
    const auto moved = inner_->moveItemAtURLToURL(newItem, original);
    if (!moved) return std::unexpected(moved.error());
    return *original;
  }
};

/// Copies the new bytes over the old ones, in two parts.
class ReplacementInPlace final : public ThroughFileManager {
 public:
  ReplacementInPlace(std::shared_ptr<platform::FileManager> inner, Gap gap)
      : ThroughFileManager(std::move(inner)), gap_(std::move(gap)) {}
  std::expected<URL, Error> replaceItemAtURLWithItemAtURL(const std::optional<URL>& original,
                                                          const std::optional<URL>& newItem) override {
    const auto content = inner_->contentsOfURL(newItem);
    const auto handle = inner_->openFileHandle(original, Access::kUpdating);
    if (!content || !handle || content->length() < 2) return inner_->replaceItemAtURLWithItemAtURL(original, newItem);
    const std::size_t half = content->length() / 2;
    (*handle)->writeData(Data(content->bytes().substr(0, half)));
    gap_();
    (*handle)->writeData(Data(content->bytes().substr(half)));
    (*handle)->closeFile();
    return inner_->replaceItemAtURLWithItemAtURL(original, newItem);
  }

 private:
  const Gap gap_;
};

class LosingFileHandle final : public platform::FileHandle {
 public:
  LosingFileHandle(std::shared_ptr<platform::FileHandle> inner, Draw happens)
      : inner_(std::move(inner)), happens_(std::move(happens)) {}
  std::uint64_t seekToEndOfFile() override { return inner_->seekToEndOfFile(); }
  void seekToFileOffset(std::uint64_t offset) override { inner_->seekToFileOffset(offset); }
  Data readDataOfLength(std::uint64_t length) override { return inner_->readDataOfLength(length); }
  Data readDataToEndOfFile() override { return inner_->readDataToEndOfFile(); }
  /// A record and its line feed go the same way.
  void writeData(const Data& data) override {
    if (data.bytes() == "\n" && std::exchange(dropsNext_, false)) return;
    dropsNext_ = data.length() > 1 && happens_();
    if (!dropsNext_) inner_->writeData(data);
  }
  void synchronizeFile() override { inner_->synchronizeFile(); }
  void closeFile() override { inner_->closeFile(); }

 private:
  const std::shared_ptr<platform::FileHandle> inner_;
  const Draw happens_;
  bool dropsNext_ = false;
};

class LosingFileManager final : public ThroughFileManager {
 public:
  LosingFileManager(std::shared_ptr<platform::FileManager> inner, Draw happens)
      : ThroughFileManager(std::move(inner)), happens_(std::move(happens)) {}
  std::expected<std::shared_ptr<platform::FileHandle>, Error> openFileHandle(const std::optional<URL>& url,
                                                                             Access access) override {
    auto opened = inner_->openFileHandle(url, access);
    if (opened && access == Access::kWriting) *opened = std::make_shared<LosingFileHandle>(*std::move(opened), happens_);
    return opened;
  }

 private:
  const Draw happens_;
};

class ReorderingJSON final : public platform::JSONSerialization {
 public:
  ReorderingJSON(std::shared_ptr<platform::JSONSerialization> inner, Draw happens)
      : inner_(std::move(inner)), happens_(std::move(happens)) {}
  std::expected<Data, Error> write(const platform::Value& object) override {
    const auto batch = object.isObject() ? object.objectForKey("data") : std::nullopt;
    if (!batch || !batch->isArray() || batch->count() < 2 || !happens_()) return inner_->write(object);
    std::vector<platform::Value> records(batch->array().begin(), batch->array().end());
    std::swap(records.front(), records.back());
    return inner_->write(platform::Dictionary{{"data", platform::Array(std::move(records))}});
  }
  std::expected<platform::Value, Error> read(const Data& data) override { return inner_->read(data); }

 private:
  const std::shared_ptr<platform::JSONSerialization> inner_;
  const Draw happens_;
};

class DroppingQueue final : public platform::DispatchQueue {
 public:
  DroppingQueue(std::shared_ptr<platform::DispatchQueue> inner, Draw happens)
      : inner_(std::move(inner)), happens_(std::move(happens)) {}
  void async(Block block) override {
    if (!happens_()) inner_->async(std::move(block));
  }
  void asyncAfter(double seconds, Block block) override { inner_->asyncAfter(seconds, std::move(block)); }
  const std::string& label() const override { return inner_->label(); }

 private:
  const std::shared_ptr<platform::DispatchQueue> inner_;
  const Draw happens_;
};

class DroppingQueues final : public platform::DispatchQueues {
 public:
  DroppingQueues(std::shared_ptr<platform::DispatchQueues> inner, Draw happens)
      : inner_(std::move(inner)), happens_(std::move(happens)) {}
  std::shared_ptr<platform::DispatchQueue> makeSerialQueue(std::string_view label) override {
    return std::make_shared<DroppingQueue>(inner_->makeSerialQueue(label), happens_);
  }
  std::shared_ptr<platform::DispatchQueue> mainQueue() override { return inner_->mainQueue(); }
  std::shared_ptr<platform::DispatchQueue> globalBackgroundQueue() override { return inner_->globalBackgroundQueue(); }
  void setMainExecutor(Executor executor) override { inner_->setMainExecutor(std::move(executor)); }

 private:
  const std::shared_ptr<platform::DispatchQueues> inner_;
  const Draw happens_;
};

class RepeatingRandom final : public platform::SecureRandom {
 public:
  RepeatingRandom(std::shared_ptr<platform::SecureRandom> inner, Draw happens)
      : inner_(std::move(inner)), happens_(std::move(happens)) {}
  void fill(std::span<std::byte> bytes) override {
    constexpr std::size_t kNonceLength = 8;
    inner_->fill(bytes);
    if (bytes.size() == kNonceLength && happens_()) std::ranges::fill(bytes, std::byte{7});
  }

 private:
  const std::shared_ptr<platform::SecureRandom> inner_;
  const Draw happens_;
};

class WrongDigest final : public platform::Digest {
 public:
  WrongDigest(std::shared_ptr<platform::Digest> inner, Draw happens) : inner_(std::move(inner)), happens_(std::move(happens)) {}
  Data hash(Algorithm algorithm, std::initializer_list<std::string_view> parts) override { return inner_->hash(algorithm, parts); }
  Data hmac(Algorithm algorithm, std::string_view key, std::initializer_list<std::string_view> parts) override {
    return happens_() ? inner_->hash(algorithm, parts) : inner_->hmac(algorithm, key, parts);
  }
  bool constantTimeEqual(std::string_view a, std::string_view b) override { return inner_->constantTimeEqual(a, b); }

 private:
  const std::shared_ptr<platform::Digest> inner_;
  const Draw happens_;
};

/// A task that goes out three times, of which one tells its outcome.
class TripledTask final : public platform::URLSessionTask {
 public:
  explicit TripledTask(std::vector<std::shared_ptr<platform::URLSessionTask>> tasks) : tasks_(std::move(tasks)) {}
  std::uint64_t taskIdentifier() const override { return tasks_.front()->taskIdentifier(); }
  State state() const override { return tasks_.front()->state(); }
  void resume() override {
    for (const auto& task : tasks_) task->resume();
  }
  void cancel() override { tasks_.front()->cancel(); }

 private:
  const std::vector<std::shared_ptr<platform::URLSessionTask>> tasks_;
};

class RepeatingSession final : public platform::URLSession {
 public:
  RepeatingSession(std::shared_ptr<platform::URLSession> inner, Draw happens)
      : inner_(std::move(inner)), happens_(std::move(happens)) {}
  std::shared_ptr<platform::URLSessionTask> dataTaskWithRequestCompletionHandler(platform::URLRequest request,
                                                                                 CompletionHandler handler) override {
    auto task = inner_->dataTaskWithRequestCompletionHandler(request, std::move(handler));
    if (!happens_()) return task;
    std::vector<std::shared_ptr<platform::URLSessionTask>> tasks{std::move(task)};
    for (int copy = 0; copy < 2; ++copy)
      tasks.push_back(inner_->dataTaskWithRequestCompletionHandler(
          request, [](const std::optional<Data>&, const platform::HTTPURLResponseRef&, const std::optional<Error>&) {}));
    return std::make_shared<TripledTask>(std::move(tasks));
  }

 private:
  const std::shared_ptr<platform::URLSession> inner_;
  const Draw happens_;
};

/// Takes a request and never sends it.
class SilentSession final : public platform::URLSession {
 public:
  SilentSession(std::shared_ptr<platform::URLSession> inner, Draw happens)
      : inner_(std::move(inner)), happens_(std::move(happens)) {}
  std::shared_ptr<platform::URLSessionTask> dataTaskWithRequestCompletionHandler(platform::URLRequest request,
                                                                                 CompletionHandler handler) override {
    if (!happens_()) return inner_->dataTaskWithRequestCompletionHandler(std::move(request), std::move(handler));
    return inner_->dataTaskWithRequestCompletionHandler(
        std::move(request), [](const std::optional<Data>&, const platform::HTTPURLResponseRef&, const std::optional<Error>&) {});
  }

 private:
  const std::shared_ptr<platform::URLSession> inner_;
  const Draw happens_;
};

}  // namespace

void mutate(platform::Process& process, Mutation mutation, const std::function<bool()>& happens, const std::function<void()>& gap) {
  switch (mutation) {
    case Mutation::kUnsyncedReplacement:
      process.fileManager = std::make_shared<UnsyncedReplacement>(process.fileManager);
      break;
    case Mutation::kReplacementInPlace:
      process.fileManager = std::make_shared<ReplacementInPlace>(process.fileManager, gap);
      break;
    case Mutation::kLostWrite:
      process.fileManager = std::make_shared<LosingFileManager>(process.fileManager, happens);
      break;
    case Mutation::kReorderedWrite:
      process.json = std::make_shared<ReorderingJSON>(process.json, happens);
      break;
    case Mutation::kDroppedBlock:
      process.queues = std::make_shared<DroppingQueues>(process.queues, happens);
      break;
    case Mutation::kRepeatedNonce:
      process.secureRandom = std::make_shared<RepeatingRandom>(process.secureRandom, happens);
      break;
    case Mutation::kWrongSignature:
      process.digest = std::make_shared<WrongDigest>(process.digest, happens);
      break;
    case Mutation::kThirdPost:
      process.urlSession = std::make_shared<RepeatingSession>(process.urlSession, happens);
      break;
    case Mutation::kLostOutcome:
      process.urlSession = std::make_shared<SilentSession>(process.urlSession, happens);
      break;
    case Mutation::kNone:
    case Mutation::kForgottenEnd:  // of the service's store
      break;
  }
}

}  // namespace simulation

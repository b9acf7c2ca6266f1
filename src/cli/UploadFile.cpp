// Reading and changing the command's file of uploads.
#include "cli/UploadFile.h"

#include <fcntl.h>
#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <system_error>
#include <utility>

#include "cli/ListFile.h"
#include "platform/linux/FileDescriptor.h"

namespace cli {
namespace {

using platform::Dictionary;
using platform::Value;

constexpr const char* kName = "command-uploads.json";
constexpr const char* kList = "uploads";
constexpr const char* kLock = "command-uploads.lock";

std::optional<std::string> textIn(const Dictionary& object, const char* key) {
  const Value* value = object.find(key);
  return value && value->isString() ? std::optional<std::string>(value->string().view()) : std::nullopt;
}

template <class T>
std::optional<T> numberIn(const Dictionary& object, const char* key) {
  const Value* value = object.find(key);
  if (!value) return std::nullopt;
  if (value->kind() == Value::Kind::kSigned) return static_cast<T>(value->signedInteger());
  if (value->kind() == Value::Kind::kUnsigned) return static_cast<T>(value->unsignedInteger());
  if (value->kind() == Value::Kind::kDouble) return static_cast<T>(value->number());
  return std::nullopt;
}

std::optional<platform::Error> errorIn(const Dictionary& object) {
  const Value* value = object.find("error");
  if (!value || !value->isObject()) return std::nullopt;
  const Dictionary& error = value->object();
  return platform::Error(textIn(error, "domain").value_or(""), numberIn<std::int64_t>(error, "code").value_or(0),
                         textIn(error, "description").value_or(""));
}

std::optional<UploadRecord> recordOf(const Value& value) {
  if (!value.isObject()) return std::nullopt;
  const Dictionary& object = value.object();
  const auto session = textIn(object, "session");
  if (!session) return std::nullopt;
  return UploadRecord{.session = *session,
                      .file = textIn(object, "file"),
                      .shareId = textIn(object, "shareId"),
                      .bytes = numberIn<std::uint64_t>(object, "bytes"),
                      .startedAt = numberIn<double>(object, "startedAt"),
                      .endedAt = numberIn<double>(object, "endedAt"),
                      .error = errorIn(object),
                      .statusCode = numberIn<std::int64_t>(object, "statusCode")};
}

template <class T>
void put(Dictionary& object, const char* key, const std::optional<T>& value) {
  if (value) object.setObjectForKey(Value(*value), key);
}

template <class T>
void lay(std::optional<T>& known, const std::optional<T>& said) {
  if (said) known = said;
}

}  // namespace

Dictionary UploadRecord::object() const {
  Dictionary object{{"session", session}};
  put(object, "file", file);
  put(object, "shareId", shareId);
  put(object, "bytes", bytes);
  put(object, "startedAt", startedAt);
  put(object, "endedAt", endedAt);
  put(object, "statusCode", statusCode);
  if (error) {
    const Dictionary members{{"domain", error->domain()}, {"code", error->code()}, {"description", error->localizedDescription()}};
    object.setObjectForKey(Value(members), "error");
  }
  return object;
}

std::expected<UploadFile, std::string> UploadFile::open() {
  auto path = pathOfListFile(kName);
  if (!path) return std::unexpected(path.error());
  return UploadFile(*std::move(path));
}

std::expected<std::vector<UploadRecord>, std::string> UploadFile::read() const {
  const auto list = readListFile(path_, kList);
  if (!list) return std::unexpected(list.error());
  std::vector<UploadRecord> records;
  for (const Value& element : *list) {
    auto record = recordOf(element);
    if (!record) return std::unexpected(path_ + ": an element of it is no upload with a session");
    records.push_back(*std::move(record));
  }
  return records;
}

std::expected<void, std::string> UploadFile::note(const UploadRecord& record) const {
  const std::string lockPath = path_.substr(0, path_.rfind('/') + 1) + kLock;
  const auto lock = platform::FileDescriptor::open(lockPath, O_RDWR | O_CREAT);
  if (!lock) return std::unexpected(lockPath + ": " + std::generic_category().message(lock.error()));
  while (flock(lock->get(), LOCK_EX) != 0 && errno == EINTR) continue;
  auto records = read();
  if (!records) return std::unexpected(records.error());
  auto known = std::ranges::find(*records, record.session, &UploadRecord::session);
  if (known == records->end()) {
    if (records->size() >= kMaxUploads) records->erase(records->begin());
    records->push_back({.session = record.session});
    known = std::prev(records->end());
  }
  lay(known->file, record.file);
  lay(known->shareId, record.shareId);
  lay(known->bytes, record.bytes);
  lay(known->startedAt, record.startedAt);
  lay(known->endedAt, record.endedAt);
  lay(known->error, record.error);
  lay(known->statusCode, record.statusCode);
  return write(*records);
}

std::expected<void, std::string> UploadFile::write(const std::vector<UploadRecord>& records) const {
  platform::Array list;
  for (const UploadRecord& record : records) list.addObject(Value(record.object()));
  return writeListFile(path_, kList, list);
}

}  // namespace cli

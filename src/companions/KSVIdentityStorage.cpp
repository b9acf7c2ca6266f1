// The device identifier, in the file "device-identifier" of the Application Support directory: the UUID's 36 characters and a line
// feed.
//
// The file never exists half written: its content is brought to the disk under a temporary name first, and that file is then linked
// to the real name. Of two processes that do so at once one link succeeds, and the other process reads what won.
#include "companions/KSVIdentityStorage.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "companions/KSVUtils.h"
#include "platform/Exception.h"
#include "platform/FileHandle.h"
#include "platform/FileManager.h"

namespace {

using platform::FileManager;
using platform::URL;
using platform::UUID;

constexpr std::string_view kFileName = "device-identifier";

// What lies at the file's name: an identifier, something else, nothing, or something that cannot be read.
struct Stored {
  enum class Sort { kValid, kInvalid, kMissing, kUnreadable };
  Sort sort;
  std::optional<UUID> identifier;
};

Stored read(const URL& file) {
  const auto content = platform::Data::dataWithContentsOfURL(file);
  if (!content) {
    const bool missing = content.error().code() == platform::kFileReadNoSuchFile;
    return {missing ? Stored::Sort::kMissing : Stored::Sort::kUnreadable, std::nullopt};
  }
  std::string_view text = content->bytes();
  if (text.ends_with('\n')) text.remove_suffix(1);
  const std::optional<UUID> identifier = UUID::fromString(text);
  return {identifier ? Stored::Sort::kValid : Stored::Sort::kInvalid, identifier};
}

bool synchronize(const URL& file) {
  const auto handle = platform::FileHandle::fileHandleForWritingToURL(file);
  if (!handle) return false;
  try {
    (*handle)->synchronizeFile();
  } catch (const platform::Exception&) {
    return false;
  }
  (*handle)->closeFile();
  return true;
}

bool place(const URL& file, const URL& draft, Stored::Sort before) {
  FileManager& manager = FileManager::defaultManager();
  if (before == Stored::Sort::kInvalid) return manager.replaceItemAtURLWithItemAtURL(file, draft).has_value();
  const auto linked = manager.linkItemAtURLToURL(draft, file);
  return linked || linked.error().code() == platform::kFileWriteFileExists;
}

// Puts the identifier into the file unless another process was faster; yields the one that counts, or nothing when none can be
// kept.
std::optional<UUID> keep(const URL& file, const UUID& identifier, Stored::Sort before) {
  const std::optional<URL> draft = KSVUtils::createTempfileWithContents(platform::Data(identifier.UUIDString() + "\n"));
  if (!draft) return std::nullopt;
  const bool isPlaced = synchronize(*draft) && place(file, *draft, before);
  (void)FileManager::defaultManager().removeItemAtURL(draft);  // a replacement has taken it already
  return isPlaced ? read(file).identifier : std::nullopt;
}

}  // namespace

platform::UUID KSVIdentityStorage::identifier() {
  const std::optional<URL> directory = KSVUtils::applicationSupportDirectory();
  if (!directory) return UUID::randomUUID();
  const URL file = directory->URLByAppendingPathComponent(kFileName);
  const Stored stored = read(file);
  if (stored.identifier) return *stored.identifier;
  const UUID fresh = UUID::randomUUID();
  // A file that cannot be read may hold the identifier all the same: it is left alone.
  if (stored.sort == Stored::Sort::kUnreadable) return fresh;
  return keep(file, fresh, stored.sort).value_or(fresh);
}

// Reading and replacing the command's files of lists.
#include "cli/ListFile.h"

#include "companions/KSVUtils.h"
#include "platform/Data.h"
#include "platform/FileManager.h"
#include "platform/JSONSerialization.h"

namespace cli {

std::expected<std::string, std::string> pathOfListFile(const char* name) {
  const auto folder = KSVUtils::applicationSupportDirectory();
  if (!folder) return std::unexpected("the application's folder can be neither found nor made");
  return folder->URLByAppendingPathComponent(name).path();
}

std::expected<platform::Array, std::string> readListFile(const std::string& path, const char* list) {
  const auto text = platform::Data::dataWithContentsOfURL(platform::URL::fileURLWithPath(path));
  if (!text && text.error().code() == platform::kFileReadNoSuchFile) return platform::Array();
  if (!text) return std::unexpected(path + ": " + text.error().localizedDescription());
  const auto value = platform::JSONSerialization::JSONObjectWithData(*text);
  const auto elements = value && value->isObject() ? value->objectForKey(list) : std::nullopt;
  if (!elements || !elements->isArray()) return std::unexpected(path + ": it is no JSON object with a list of " + list);
  return elements->array();
}

std::expected<void, std::string> writeListFile(const std::string& path, const char* list, const platform::Array& elements) {
  const auto text = platform::JSONSerialization::dataWithJSONObject(platform::Dictionary{{list, elements}});
  if (!text) return std::unexpected(path + ": " + text.error().localizedDescription());
  const auto temporary = KSVUtils::createTempfileWithContents(*text);
  if (!temporary) return std::unexpected(path + ": a temporary file cannot be written");
  auto& files = platform::FileManager::defaultManager();
  const auto replaced = files.replaceItemAtURLWithItemAtURL(platform::URL::fileURLWithPath(path), temporary);
  if (replaced) return {};
  (void)files.removeItemAtURL(temporary);
  return std::unexpected(path + ": " + replaced.error().localizedDescription());
}

}  // namespace cli

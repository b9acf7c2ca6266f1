// Reading of the queue file, line by line.
#include "cli/QueueInspection.h"

#include "companions/KSVUtils.h"
#include "platform/Data.h"
#include "platform/JSONSerialization.h"

namespace cli {
namespace {

std::optional<std::string> localTimeOf(const platform::Value& record) {
  if (!record.isObject()) return std::nullopt;
  const auto localTime = record.objectForKey("localTime");
  return localTime ? std::optional(localTime->description()) : std::nullopt;
}

void takeLine(std::string_view line, QueueContent& content) {
  const auto record = platform::JSONSerialization::JSONObjectWithData(platform::Data(line));
  if (!record) {
    ++content.badLines;
    return;
  }
  const std::optional<std::string> localTime = localTimeOf(*record);
  if (content.records == 0) content.oldest = localTime;
  content.newest = localTime;
  ++content.records;
}

}  // namespace

std::expected<QueueContent, platform::Error> inspectQueue() {
  const auto directory = KSVUtils::applicationSupportDirectory();
  if (!directory)
    return std::unexpected(platform::Error(platform::kCocoaErrorDomain, platform::kFileWriteUnknown,
                                           "The application's folder can be neither found nor made."));
  const platform::URL file = directory->URLByAppendingPathComponent("event-queue.json");
  QueueContent content;
  content.path = file.path();

  const auto data = platform::Data::dataWithContentsOfURL(file);
  if (!data) {
    if (data.error().code() == platform::kFileReadNoSuchFile) return content;
    return std::unexpected(data.error());
  }
  content.bytes = data->length();
  std::string_view rest = data->bytes();
  for (auto end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
    takeLine(rest.substr(0, end), content);
    rest.remove_prefix(end + 1);
  }
  content.hasUnendedTail = !rest.empty();
  return content;
}

}  // namespace cli

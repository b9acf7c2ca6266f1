// Times as text, random text, directories and temporary files, over the platform's services.
#include "companions/KSVUtils.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <span>
#include <utility>

#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/SecureRandom.h"

namespace {

using platform::FileAttributes;
using platform::FileManager;
using platform::URL;

constexpr std::int64_t kMillisecondsADay = 86'400'000;

// The span of four-digit years, in milliseconds since 1970: 0000-01-01T00:00:00.000Z to 9999-12-31T23:59:59.999Z.
constexpr std::int64_t kFirstMillisecond = -62'167'219'200'000;
constexpr std::int64_t kLastMillisecond = 253'402'300'799'999;

double secondsOf(std::int64_t milliseconds) { return static_cast<double>(milliseconds) / 1000.0; }

// The latest millisecond that is not after the date, held inside the four-digit years. Most milliseconds have no exact double, so
// the comparison is made between doubles: the date of a whole millisecond keeps that millisecond.
std::int64_t millisecondsRoundedDown(platform::Date date) {
  const double seconds = date.timeIntervalSince1970();
  if (!(seconds > secondsOf(kFirstMillisecond))) return kFirstMillisecond;  // also for what is no number
  if (seconds >= secondsOf(kLastMillisecond)) return kLastMillisecond;
  std::int64_t milliseconds = std::llround(seconds * 1000.0);
  while (secondsOf(milliseconds) > seconds) --milliseconds;
  return milliseconds;
}

struct CivilDate {
  std::int64_t year;
  std::int64_t month;
  std::int64_t day;
};

// The proleptic Gregorian date of a day counted from 1970-01-01, by years that begin in March, so that the leap day comes last.
CivilDate civilDateOfDay(std::int64_t day) {
  const std::int64_t shifted = day + 719'468;  // days since 0000-03-01
  const std::int64_t era = (shifted >= 0 ? shifted : shifted - 146'096) / 146'097;
  const std::int64_t dayOfEra = shifted - era * 146'097;
  const std::int64_t yearOfEra = (dayOfEra - dayOfEra / 1'460 + dayOfEra / 36'524 - dayOfEra / 146'096) / 365;
  const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::int64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
  const std::int64_t month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
  return {yearOfEra + era * 400 + (month <= 2 ? 1 : 0), month, dayOfYear - (153 * monthFromMarch + 2) / 5 + 1};
}

// Writes `number` in `digits` decimal digits, followed by `mark`.
void appendDigits(std::string& text, std::int64_t number, std::size_t digits, char mark) {
  const std::size_t start = text.size();
  text.append(digits, '0');
  for (std::size_t place = start + digits; place-- > start; number /= 10) text[place] = static_cast<char>('0' + number % 10);
  text.push_back(mark);
}

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
// Bytes from here on are thrown away: below lies a whole number of alphabets, so that every character is equally likely.
constexpr unsigned kFirstRejectedByte = 256 / kAlphabet.size() * kAlphabet.size();

std::string randomText(std::size_t wanted) {
  std::string text;
  text.reserve(wanted);
  std::array<std::byte, 64> buffer;
  while (text.size() < wanted) {
    const std::span<std::byte> bytes = std::span(buffer).first(std::min(wanted - text.size(), buffer.size()));
    platform::SecureRandom::source().fill(bytes);
    for (const std::byte byte : bytes)
      if (const auto number = std::to_integer<unsigned>(byte); number < kFirstRejectedByte)
        text.push_back(kAlphabet[number % kAlphabet.size()]);
  }
  return text;
}

// A name in the temporary directory that nobody can guess.
std::optional<URL> unguessableTempfileUrl() {
  const auto directory = FileManager::defaultManager().temporaryDirectory();
  if (!directory) return std::nullopt;
  const std::string name = KSVUtils::randomStringWithLength(32);
  if (name.empty()) return std::nullopt;  // a name that can be guessed is worse than none
  return directory->URLByAppendingPathComponent("kestrova-" + name);
}

// Nobody else can have made the names, so a second one is needed only when the random source repeats itself.
constexpr int kMaxNames = 8;

bool isFileOrLinkOlderThan(platform::Date cutOff, const URL& url) {
  const auto attributes = FileManager::defaultManager().attributesOfItemAtPath(url.path());
  if (!attributes) return false;
  const bool isFileOrLink =
      attributes->type == FileAttributes::Type::kRegular || attributes->type == FileAttributes::Type::kSymbolicLink;
  return isFileOrLink && attributes->attributeModificationDate < cutOff;
}

template <class T>
std::optional<T> valueOrAbsent(std::expected<T, platform::Error> result) {
  return result ? std::optional<T>(*std::move(result)) : std::nullopt;
}

}  // namespace

std::string KSVUtils::getIso8601(platform::Date date) {
  const std::int64_t sinceYear0 = millisecondsRoundedDown(date) - kFirstMillisecond;
  const std::int64_t time = sinceYear0 % kMillisecondsADay;
  const CivilDate civil = civilDateOfDay((sinceYear0 - time + kFirstMillisecond) / kMillisecondsADay);
  std::string text;
  text.reserve(24);
  appendDigits(text, civil.year, 4, '-');
  appendDigits(text, civil.month, 2, '-');
  appendDigits(text, civil.day, 2, 'T');
  appendDigits(text, time / 3'600'000, 2, ':');
  appendDigits(text, time / 60'000 % 60, 2, ':');
  appendDigits(text, time / 1'000 % 60, 2, '.');
  appendDigits(text, time % 1'000, 3, 'Z');
  return text;
}

std::optional<URL> KSVUtils::applicationSupportDirectory() {
  return valueOrAbsent(FileManager::defaultManager().applicationSupportDirectory());
}

std::string KSVUtils::randomStringWithLength(std::int32_t length) {
  if (length < 1) return {};
  try {
    return randomText(static_cast<std::size_t>(length));
  } catch (const platform::Exception&) {
    return {};
  }
}

std::optional<URL> KSVUtils::createTempfileWithContents(const std::optional<platform::Data>& data) {
  const platform::Data content = data.value_or(platform::Data());
  for (int name = 0; name < kMaxNames; ++name) {
    std::optional<URL> url = unguessableTempfileUrl();
    if (!url) return std::nullopt;
    const auto written = content.writeToURLWithoutOverwriting(url);
    if (written) return url;
    if (written.error().code() == platform::kFileWriteFileExists) continue;
    (void)FileManager::defaultManager().removeItemAtURL(url);  // what a full disk left of it
    return std::nullopt;
  }
  return std::nullopt;
}

std::optional<URL> KSVUtils::getNewTempfileUrl() {
  for (int name = 0; name < kMaxNames; ++name) {
    std::optional<URL> url = unguessableTempfileUrl();
    if (!url || !FileManager::defaultManager().fileExistsAtPath(url->path())) return url;
  }
  return std::nullopt;
}

std::vector<URL> KSVUtils::deleteFilesOlderThanInDirectory(platform::Date cutOff, const std::optional<URL>& directory) {
  std::vector<URL> removed;
  if (!directory) return removed;
  const auto names = FileManager::defaultManager().contentsOfDirectoryAtPath(directory->path());
  if (!names) return removed;
  for (const std::string& name : *names) {
    URL url = directory->URLByAppendingPathComponent(name);
    if (isFileOrLinkOlderThan(cutOff, url) && FileManager::defaultManager().removeItemAtURL(url)) removed.push_back(std::move(url));
  }
  return removed;
}

std::optional<URL> KSVUtils::createDirectoryInApplicationSupport(std::string_view name) {
  const std::optional<URL> parent = applicationSupportDirectory();
  if (!parent) return std::nullopt;
  URL directory = parent->URLByAppendingPathComponent(name);
  if (!FileManager::defaultManager().createDirectoryAtURL(directory)) return std::nullopt;
  return directory;
}

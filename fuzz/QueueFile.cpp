// The queue file: loading and truncating whatever bytes it holds, against a plain retelling of the file's rules.
//
// Input: the operation ('l' one load, 'a' loads until nothing comes, 't' truncate, 's' append and truncate), how often the rest is
// repeated (most of the byte's values say seldom), the limit of the queue's size in 16 bits, and the file's bytes.
#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/Check.h"
#include "common/Input.h"
#include "common/SecondJSON.h"
#include "support/KSVDataInspector.h"
#include "support/TestProcess.h"

namespace {

using platform::Array;
using platform::Value;

/// A load takes chunks of 4096 bytes until more than 204,800 have come.
constexpr std::size_t kHead = 51 * std::size_t{4096};
constexpr std::size_t kLargestFile = 260'000;

struct Load {
  Array records;
  std::string fileAfter;
};

Load expectedLoad(std::string_view file) {
  Load load;
  std::string_view head = file.substr(0, kHead);
  while (head.find('\n') != std::string_view::npos) {
    const std::string_view line = head.substr(0, head.find('\n'));
    if (const auto record = fuzz::readBySecondParser(line)) load.records.addObject(*record);
    head.remove_prefix(line.size() + 1);
  }
  // What follows the head is written over the incomplete record from its first byte on.
  load.fileAfter = file.substr(std::min(kHead, file.size()));
  if (head.size() > load.fileAfter.size()) load.fileAfter += head.substr(load.fileAfter.size());
  return load;
}

std::string expectedTail(const std::string& file, std::int32_t limit) {
  const auto kept = static_cast<std::uint64_t>(std::int64_t{static_cast<std::int32_t>(0.9 * limit)});
  const std::uint64_t start = file.size() - kept;
  if (start == 0) return file;
  // Without a line feed the cut falls behind the first byte; that takes a file that nothing here writes.
  const auto newline = start < file.size() ? file.find('\n', start) : std::string::npos;
  return file.substr(std::min(file.size(), newline == std::string::npos ? 1 : newline + 1));
}

class QueueUnderTest {
 public:
  /// Each line of a file can leave a line in the debug trace, which is slow for long files.
  QueueUnderTest(const std::string& content, bool hasTrace) : process_({.faults = false, .debug = hasTrace}) {
    process_.setQueueFile(content);
  }

  void truncate(std::int32_t limit) {
    const std::string before = file();
    inspect_.maxQueueSizeOnDiskInBytes() = limit;
    inspect_.truncateQueueOnDisk();
    fuzz::check(file() == expectedTail(before, limit), "truncation kept another tail");
    expectTidy();
  }

  /// How many records came.
  std::size_t load() {
    const std::string before = file();
    const auto records = inspect_.getSavedJsonData();
    fuzz::check(records.has_value(), "a load failed without a fault");
    const Load expected = before.empty() ? Load() : expectedLoad(before);
    fuzz::check(fuzz::isIdentical(Value(*records), Value(expected.records)), "other records were loaded");
    fuzz::check(file() == expected.fileAfter, "a load left another file");
    expectTidy();
    return records->count();
  }

  /// Every load takes a head off the file, so that a bounded number of them empties it or comes to stand on one record.
  void loadAll() {
    for (std::size_t loads = 0; !file().empty(); ++loads) {
      const std::string before = file();
      load();
      if (file() == before) return;  // an incomplete record waits for its end
      fuzz::check(loads <= before.size() / kHead + 4, "loads do not come to rest");
    }
  }

  void append(std::int32_t limit) {
    const std::string before = file();
    const Array batch{Value(platform::Dictionary{{"event", "opened"}})};
    const std::string appended = before + "{\"event\":\"opened\"}\n";
    inspect_.maxQueueSizeOnDiskInBytes() = limit;
    inspect_.saveQueueToFile(batch);
    const bool isTooLong = before.size() > static_cast<std::size_t>(limit);
    fuzz::check(file() == (isTooLong ? expectedTail(appended, limit) : appended), "an append left another file");
    // Of a limit of nothing there is no tail to look for; no client has one.
    fuzz::check(!isTooLong || limit < 2 || file().size() < static_cast<std::size_t>(limit), "truncation left too much");
    expectTidy();
  }

 private:
  std::string file() { return process_.queueFile().value_or("the file is gone"); }
  void expectTidy() { fuzz::check(process_.temporaryFiles().empty(), "a temporary file was left"); }

  test::TestProcess process_;
  KSVDataInspector inspect_{process_.makeClient()};
};

std::string repeated(std::string_view bytes, std::size_t times) {
  std::string text;
  for (std::size_t at = 0; at <= times && text.size() + bytes.size() <= kLargestFile; ++at) text += bytes;
  return text;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::uint8_t operation = input.byte();
  const std::uint8_t repeat = input.byte();
  const std::uint8_t times = repeat < 0xF0 ? repeat & 0x0F : repeat;  // long files are slow
  const std::uint8_t high = input.byte();
  const std::int32_t limit = std::int32_t{high} * 256 + input.byte();
  const std::string file = repeated(input.rest(), times);
  QueueUnderTest queue(file, times == 0);
  switch (operation) {
    case 'a':
      queue.loadAll();
      break;
    case 't':
      queue.truncate(limit);
      break;
    case 's':
      queue.append(limit);
      queue.loadAll();
      break;
    default:
      queue.load();
      break;
  }
  return 0;
}

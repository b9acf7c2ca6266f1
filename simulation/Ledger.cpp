// The oracles over records, memory and queue file.
#include "simulation/Ledger.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "support/TestProcess.h"

namespace simulation {
namespace {

constexpr std::uint64_t kBudget = 208'896;  // bytes of the file's head that one load reads

std::string textOf(const Ids& ids) {
  std::string text;
  for (const std::uint64_t id : ids) text += (text.empty() ? "" : " ") + std::to_string(id);
  return text;
}

// A record's id is looked for in its text: what is whole begins and ends with braces and was written by the client.
std::optional<std::uint64_t> idOf(std::string_view line) {
  constexpr std::string_view kBeginning = "{\"event\":";
  constexpr std::string_view kName = "\"eventData\":{\"n\":";
  if (!line.starts_with(kBeginning) || !line.ends_with("\"}")) return std::nullopt;
  if (line.find(kBeginning, 1) != std::string_view::npos) return std::nullopt;  // two that have run together
  const std::size_t at = line.find(kName);
  if (at == std::string_view::npos) return std::nullopt;
  std::uint64_t id = 0;
  const char* const begin = line.data() + at + kName.size();
  const auto [stop, error] = std::from_chars(begin, line.data() + line.size(), id);
  return error == std::errc() ? std::optional(id) : std::nullopt;
}

bool isSubsequence(const Ids& part, const Ids& whole) {
  auto at = whole.begin();
  for (const std::uint64_t id : part) {
    at = std::find(at, whole.end(), id);
    if (at == whole.end()) return false;
    ++at;
  }
  return true;
}

bool contains(const Ids& ids, std::uint64_t id) { return std::ranges::find(ids, id) != ids.end(); }

}  // namespace

QueueContent QueueContent::of(std::string bytes) {
  QueueContent content;
  content.bytes = std::move(bytes);
  const std::string_view text = content.bytes;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t newline = text.find('\n', at);
    Line line;
    line.begin = at;
    line.isTerminated = newline != std::string_view::npos;
    line.end = line.isTerminated ? newline + 1 : text.size();
    line.id = idOf(text.substr(at, line.end - at - (line.isTerminated ? 1 : 0)));
    if (line.id && line.isTerminated) content.ids.push_back(*line.id);
    at = line.end;
    content.lines.push_back(line);
  }
  return content;
}

std::uint64_t Ledger::beginCall(std::size_t host) {
  const std::uint64_t id = ++lastId_;
  hosts_[id] = host;
  calling_.insert(id);
  pending_.insert(id);
  return id;
}

std::uint64_t Ledger::rememberEvent() { return ++lastId_; }

void Ledger::beginWith(std::string queueFile) {
  const QueueContent content = QueueContent::of(std::move(queueFile));
  fileSet_ = std::set<std::uint64_t>(content.ids.begin(), content.ids.end());
  file_ = content.bytes;
  lasting_ = {file_};
}

void Ledger::blockBegins(const std::string& lane, std::optional<std::uint64_t> request) {
  Block& block = blocks_[lane] = Block();
  block.request = request;
  block.memoryAtStart = memory_;
}

void Ledger::message(const std::string& lane, std::string_view text) {
  if (const auto block = blocks_.find(lane); block != blocks_.end()) block->second.messages.emplace_back(text);
}

bool Ledger::isLoad(const std::string& lane) const { return lane == test::TestProcess::clientQueue(); }

bool Ledger::hasMessage(const Block& block, std::string_view beginning) const { return countMessages(block, beginning) > 0; }
std::size_t Ledger::countMessages(const Block& block, std::string_view beginning) const {
  return static_cast<std::size_t>(
      std::ranges::count_if(block.messages, [&](const std::string& message) { return message.starts_with(beginning); }));
}

void Ledger::queueIsRead(const std::string& lane, const std::optional<std::string>& bytes) {
  const auto block = blocks_.find(lane);
  if (block == blocks_.end()) return;
  block->second.base = bytes ? std::optional(QueueContent::of(*bytes)) : std::nullopt;
  block->second.hasBase = true;
  block->second.baseVersion = version_;
}

void Ledger::queueIsReplaced(const std::string& lane, std::optional<std::string> bytes) {
  const auto found = blocks_.find(lane);
  if (found == blocks_.end()) throw Violation("queue file", "it is changed by " + lane + ", outside of any block");
  Block& block = found->second;
  if (block.hasBase && block.baseVersion != version_) {
    block.isOverlapped = true;
    story_.path("two rewrites of the queue overlapped");
    // What only one of the two had read may now be both in the file and elsewhere, or come back.
    if (block.base) mayRepeat_.insert(block.base->ids.begin(), block.base->ids.end());
    mayRepeat_.insert(fileSet_.begin(), fileSet_.end());
  }
  if (bytes) checkReplacement(lane, block, *bytes);
  possible_.push_back(bytes);
  if (bytes)
    lasting_.clear();  // the name and the bytes are on the disk when a replacement has come back; a removal may come undone
  lasting_.push_back(bytes);
  block.baseVersion = ++version_;
}

void Ledger::checkReplacement(const std::string& lane, Block& block, const std::string& bytes) {
  if (isLoad(lane)) return checkLoaded(block, bytes);
  if (hasMessage(block, "Truncating file on disk")) return checkTruncated(block, bytes);
  checkAppended(block, QueueContent::of(bytes));
}

// The old content, then the batch in its order, each record on its line; what could not be written has its message.
void Ledger::checkAppended(const Block& block, const QueueContent& content) {
  const std::string before = block.base ? block.base->bytes : "";
  if (!content.bytes.starts_with(before)) throw Violation("queue file", "an append changed what was there before");
  if (!block.request) throw Violation("queue file", "something was appended outside of a request's outcome");
  const QueueContent added = QueueContent::of(content.bytes.substr(before.size()));
  if (std::ranges::any_of(added.lines, [](const auto& line) { return !line.id || !line.isTerminated; }))
    throw Violation("queue file", "an append left a line that is no whole record");
  const Ids& batch = flights_.at(*block.request).ids;
  const std::size_t dropped = countMessages(block, "Programming error occured while serializing event as json") +
                              countMessages(block, "Internal error occured while serializing event as json");
  if (!isSubsequence(added.ids, batch))
    throw Violation("order", "a batch was written as " + textOf(added.ids) + ", it is " + textOf(batch));
  if (added.ids.size() + dropped != batch.size())
    throw Violation("record lost",
                    "of the batch " + textOf(batch) + " only " + textOf(added.ids) + " was written, without a message");
}

// Exactly the rest of the file, over the carried bytes; after a failure only the messages tell what is left.
void Ledger::checkLoaded(const Block& block, const std::string& bytes) {
  if (!block.base) throw Violation("queue file", "it was rewritten by what had not read it");
  const bool isPlain = std::ranges::none_of(block.messages, [](const std::string& message) {
    return message.starts_with("Failed to create temp file") || message.starts_with("Failed to get file handle") ||
           message.starts_with("Reading event queue or writing") || message.starts_with("Error: Invalid range when extracting");
  });
  if (!isPlain) return;
  const std::string& before = block.base->bytes;
  const std::string head = before.substr(0, kBudget);
  const std::string rest = before.size() > kBudget ? before.substr(kBudget) : "";
  const std::size_t newline = head.rfind('\n');
  const std::string carried = newline == std::string::npos ? head : head.substr(newline + 1);
  const std::string expected = rest + (carried.size() > rest.size() ? carried.substr(rest.size()) : "");
  if (bytes != expected)
    throw Violation("queue file", "a load left " + std::to_string(bytes.size()) + " bytes, not the " +
                                      std::to_string(expected.size()) + " that it had not taken");
}

// What follows the first line feed at or after the point where 90 % of the limit remain.
void Ledger::checkTruncated(const Block& block, const std::string& bytes) {
  if (!block.base) throw Violation("queue file", "it was truncated by what had not read it");
  const std::string& before = block.base->bytes;
  const auto kept = static_cast<std::uint64_t>(0.9 * queueLimit);
  std::string expected = before.empty() ? "" : before.substr(1);
  if (before.size() > kept) {
    const std::size_t newline = before.find('\n', before.size() - kept);
    if (newline != std::string::npos) expected = before.substr(newline + 1);
  }
  if (bytes != expected)
    throw Violation("queue file", "a truncation kept " + std::to_string(bytes.size()) + " bytes that are not the newest");
}

void Ledger::posted(const std::string& lane, std::uint64_t request, Ids ids) {
  Flight flight;
  flight.ids = std::move(ids);
  const auto found = blocks_.find(lane);
  if (found == blocks_.end()) throw Violation("post", "events were posted outside of any block");
  Block& block = found->second;
  if (block.request) {
    const Flight& before = flights_.at(*block.request);
    flight.attempt = before.attempt + 1;
    if (flight.ids != before.ids) throw Violation("order", "a batch changed between its two posts");
    if (!before.isChallenge) throw Violation("post", "a batch was posted again though the server had not asked for the time");
  } else if (isLoad(lane)) {
    const std::size_t fromMemory = block.memoryAtStart.size();
    if (flight.ids.size() < fromMemory || !std::equal(block.memoryAtStart.begin(), block.memoryAtStart.end(),
                                                      flight.ids.end() - static_cast<std::ptrdiff_t>(fromMemory)))
      throw Violation("order", "a batch does not end with what was in memory: " + textOf(flight.ids));
    Ids fromFile(flight.ids.begin(), flight.ids.end() - static_cast<std::ptrdiff_t>(fromMemory));
    // Bytes that could not be cut off are read again: a record may be in one batch twice.
    if (hasMessage(block, "Error: Invalid range when extracting unparsed bytes")) {
      mayRepeat_.insert(fromFile.begin(), fromFile.end());
      std::set<std::uint64_t> seen;
      std::erase_if(fromFile, [&seen](std::uint64_t id) { return !seen.insert(id).second; });
    }
    if (!isSubsequence(fromFile, block.base ? block.base->ids : Ids()))
      throw Violation("order", "a batch does not begin with the head of the queue file: " + textOf(flight.ids));
  } else {
    throw Violation("post", "events were posted by " + lane);
  }
  // A post counts for its batch, whoever made it: one block makes one.
  int posts = flight.attempt;
  for (const auto& [number, other] : flights_)
    if (number != block.request && other.ids == flight.ids &&
        !std::ranges::all_of(flight.ids, [&](auto id) { return mayRepeat_.contains(id); }))
      ++posts;
  if (posts > 2) throw Violation("posts", "a batch was posted " + std::to_string(posts) + " times");
  flights_[request] = std::move(flight);
  requestsHaveChanged_ = true;
}

void Ledger::accepted(std::uint64_t request) {
  Flight& flight = flights_.at(request);
  flight.isAccepted = true;
  for (const std::uint64_t id : flight.ids) {
    if (!accepted_.insert(id).second) {
      if (!mayRepeat_.contains(id))
        throw Violation("sent twice", "the server got record " + std::to_string(id) + " a second time for no reason");
      story_.path("a record was delivered twice", std::to_string(id));
    }
    lost_.erase(id);
  }
}

void Ledger::told(std::uint64_t request, bool saysTaken, bool isChallenge) {
  Flight& flight = flights_.at(request);
  flight.isTold = true;
  flight.saidTaken = saysTaken;
  flight.isChallenge = isChallenge;
  if (flight.isAccepted && !saysTaken) mayRepeat_.insert(flight.ids.begin(), flight.ids.end());
}

void Ledger::observe(const Seen& seen) {
  checkFile(seen);
  Block* const block = seen.lane.empty() || !blocks_.contains(seen.lane) ? nullptr : &blocks_.at(seen.lane);
  checkMemoryOrder(seen.memory);
  checkPlaces(seen, block);
  if (block && seen.hasBlockEnded) settleBlock(seen.lane);
}

void Ledger::checkFile(const Seen& seen) {
  if (seen.queueFile == file_ && possible_.empty()) return;
  possible_.insert(possible_.begin(), file_);
  if (std::ranges::find(possible_, seen.queueFile) == possible_.end())
    throw Violation("queue file", "it holds neither what it held before nor what was to replace it");
  possible_.clear();
}

// What is in memory grows at its end only, in the order of each thread's calls.
void Ledger::checkMemoryOrder(const Ids& memory) {
  if (memory == memory_) return;
  std::map<std::size_t, std::uint64_t> last;
  for (const std::uint64_t id : memory) {
    std::uint64_t& before = last[hosts_.at(id)];
    if (id <= before) throw Violation("order", "memory holds " + textOf(memory));
    before = id;
  }
}

void Ledger::checkPlaces(const Seen& seen, Block* block) {
  if (seen.queueFile == file_ && seen.memory == memory_ && !requestsHaveChanged_) return;
  requestsHaveChanged_ = false;
  std::set<std::uint64_t> file = fileSet_;
  if (seen.queueFile != file_) {
    const QueueContent content = QueueContent::of(seen.queueFile.value_or(""));
    file = std::set<std::uint64_t>(content.ids.begin(), content.ids.end());
  }
  const std::set<std::uint64_t> memory(seen.memory.begin(), seen.memory.end());

  std::set<std::uint64_t> gone;
  std::ranges::set_difference(fileSet_, file, std::inserter(gone, gone.end()));
  std::ranges::set_difference(memorySet_, memory, std::inserter(gone, gone.end()));
  if (!gone.empty() && !block) throw Violation("record lost", "records left their place while no block ran");

  for (const std::uint64_t id : memory) {
    pending_.erase(id);
    if (!memorySet_.contains(id) && accepted_.contains(id)) throw Violation("places", "a delivered record came into memory");
  }
  memory_ = seen.memory;
  memorySet_ = memory;
  fileSet_ = std::move(file);
  file_ = seen.queueFile;
  if (block) block->held.insert(gone.begin(), gone.end());

  // Two places at once need a reason.
  const auto mayBeTwice = [&](std::uint64_t id) {
    if (mayRepeat_.contains(id)) return true;
    const bool isNamed = block && (block->isOverlapped || hasMessage(*block, "Failed to remove queue, return events parsed") ||
                                   hasMessage(*block, "Replacing event queue with temp queue failed") ||
                                   hasMessage(*block, "Error: Invalid range when extracting unparsed bytes"));
    if (isNamed) mayRepeat_.insert(id);
    return isNamed;
  };
  std::map<std::uint64_t, int> places;
  for (const std::uint64_t id : memorySet_) ++places[id];
  for (const std::uint64_t id : fileSet_) ++places[id];
  std::set<std::uint64_t> busy;  // requests whose outcome is being dealt with
  for (const auto& [lane, each] : blocks_)
    if (each.request) busy.insert(*each.request);
  for (const auto& [number, flight] : flights_)
    if (!busy.contains(number))
      for (const std::uint64_t id : flight.ids) ++places[id];
  for (const auto& [id, count] : places) {
    if (count > 1 && !mayBeTwice(id)) throw Violation("places", "record " + std::to_string(id) + " is in two places for no reason");
    if (!lost_.contains(id)) continue;
    if (!mayBeTwice(id)) throw Violation("places", "record " + std::to_string(id) + " is back, it was lost: " + lost_.at(id));
    lost_.erase(id);
  }
  // What is held is what was recorded and not answered: nothing of a batch stays once its outcome was dealt with.
  std::size_t held = memorySet_.size();
  for (const auto& [number, flight] : flights_)
    if (!busy.contains(number)) held += flight.ids.size();
  std::size_t unanswered = 0;
  for (const auto& [id, count] : places)
    if (!answered_.contains(id)) ++unanswered;
  if (held > unanswered + 2 * mayRepeat_.size()) throw Violation("memory", "more is held than was recorded and not answered");
}

std::size_t Ledger::placesOf(std::uint64_t id) const {
  std::size_t places = (memorySet_.contains(id) ? 1U : 0U) + (fileSet_.contains(id) ? 1U : 0U) + (pending_.contains(id) ? 1U : 0U);
  for (const auto& [number, flight] : flights_) places += contains(flight.ids, id) ? 1U : 0U;
  for (const auto& [lane, block] : blocks_) places += block.held.contains(id) ? 1U : 0U;
  return places;
}

void Ledger::settleBlock(const std::string& lane) {
  Block block = std::move(blocks_.at(lane));
  blocks_.erase(lane);
  bool saidTaken = false;
  if (block.request) {
    const Flight flight = flights_.at(*block.request);
    flights_.erase(*block.request);
    block.held.insert(flight.ids.begin(), flight.ids.end());
    saidTaken = flight.saidTaken;
    block.isChallenged = flight.isChallenge;
    if (saidTaken) {
      answered_.insert(flight.ids.begin(), flight.ids.end());
      for (const std::uint64_t id : flight.ids)
        if (!accepted_.contains(id)) throw Violation("server", "the simulated server said that it had taken what it had not");
      for (const std::uint64_t id : flight.ids)
        if (!fileSet_.contains(id)) block.held.erase(id);
    }
  }
  for (const std::uint64_t id : block.held) {
    if (placesOf(id) > 0) continue;
    const std::string path = explanation(lane, block, id);
    if (path.empty() && !accepted_.contains(id)) {
      std::string said;
      for (const std::string& message : block.messages) said += "\n    " + message.substr(0, 200);
      throw Violation("record lost", "record " + std::to_string(id) + " is gone after a block of " + lane + " that said:" + said);
    }
    if (!accepted_.contains(id)) lose(id, path);
  }
}

// The named path by which a block lost a record; empty when there is none.
std::string Ledger::explanation(const std::string& lane, Block& block, std::uint64_t id) {
  constexpr std::string_view kWhole[] = {
      "Couldn't build request for /events, aborting",        "Tried to submit events twice with error, giving up",
      "Copying existing event queue to temp borked",         "Borked while getting filehandle to tempfile",
      "Failed while seeking in tempfile, discarding queue.", "Failed to write data to temporary event queue",
      "Replacing event queue with new queue BORKED",         "Failed to create temp file also after deleting the queue",
      "Reading event queue or writing to temp file failed",  "Failed to get file handle for temp file for event queue",
      "Replacing event queue with temp queue failed",        "Truncating file on disk",
  };
  for (const std::string_view message : kWhole)
    if (hasMessage(block, message)) return std::string(message);
  if (block.isOverlapped) return "two rewrites of the queue overlapped";
  const bool wasInBatch = block.request.has_value();
  if (block.isChallenged && block.messages.empty()) return "a challenge without a usable time";
  // Behind bytes that no line feed ends, the first record of an append is no line of its own.
  if (wasInBatch && block.base && !block.base->bytes.empty() && !block.base->bytes.ends_with('\n'))
    return "appended behind an unterminated rest";
  if (!wasInBatch && isLoad(lane) && block.base) {
    for (const auto& line : block.base->lines)
      if (line.id == id && line.begin < kBudget && line.end > kBudget) return "the record at the end of a load's budget";
  }
  constexpr std::string_view kSingle[] = {
      "Failed to parse JSON in file",
      "Error: Invalid range when reading bytes from JSON data",
      "Error: Failed to parse json and add to return value",
      "Programming error occured while serializing event as json",
      "Internal error occured while serializing event as json",
  };
  std::size_t said = 0;
  for (const std::string_view message : kSingle) said += countMessages(block, message);
  if (block.perRecordLosses < said) {
    ++block.perRecordLosses;
    return "a record that could not be read or written, with its message";
  }
  return "";
}

void Ledger::lose(std::uint64_t id, const std::string& path) {
  lost_[id] = path;
  story_.path("lost: " + path, std::to_string(id));
}

void Ledger::processDied(std::string_view how) {
  std::set<std::uint64_t> gone = pending_;
  gone.insert(memorySet_.begin(), memorySet_.end());
  for (const auto& [number, flight] : flights_) gone.insert(flight.ids.begin(), flight.ids.end());
  for (const auto& [lane, block] : blocks_) gone.insert(block.held.begin(), block.held.end());
  pending_.clear();
  calling_.clear();
  memory_.clear();
  memorySet_.clear();
  // What was about to be written back may be in the file by now, and with the server.
  for (const auto& [number, flight] : flights_) mayRepeat_.insert(flight.ids.begin(), flight.ids.end());
  flights_.clear();
  blocks_.clear();
  for (const std::uint64_t id : gone)
    if (!fileSet_.contains(id) && !accepted_.contains(id)) lose(id, "in memory or in flight at a death");
  story_.add("  = the process died: " + std::string(how));
}

void Ledger::powerWasCut(const std::optional<std::string>& queueFile) {
  if (lasting_.empty()) lasting_.push_back(std::nullopt);
  if (std::ranges::find(lasting_, queueFile) == lasting_.end())
    throw Violation("queue file", "after a power cut it holds neither what it held before nor what had replaced it");
  if (queueFile != file_) {
    story_.path("a power cut undid a removal of the queue");
    const QueueContent content = QueueContent::of(queueFile.value_or(""));
    mayRepeat_.insert(content.ids.begin(), content.ids.end());
    for (const std::uint64_t id : content.ids) lost_.erase(id);
    fileSet_ = std::set<std::uint64_t>(content.ids.begin(), content.ids.end());
    file_ = queueFile;
    ++version_;
  }
  lasting_ = {queueFile};
}

bool Ledger::isSettled() const { return pending_.empty() && memory_.empty() && flights_.empty() && fileSet_.empty(); }

void Ledger::expectRest(bool clientLaneIsIdle) {
  if (!clientLaneIsIdle) throw Violation("rest", "the client's queue did not come to rest");
  if (!pending_.empty())
    throw Violation("rest", std::to_string(pending_.size()) + " events were recorded and never reached memory");
  if (!isSettled())
    throw Violation("rest", "events are left: " + std::to_string(memory_.size()) + " in memory, " +
                                std::to_string(flights_.size()) + " requests, " + std::to_string(fileSet_.size()) + " in the file");
  for (std::uint64_t id = 1; id <= lastId_; ++id)
    if (!accepted_.contains(id) && !lost_.contains(id))
      throw Violation("rest", "record " + std::to_string(id) + " was neither delivered nor lost by a named path");
}

}  // namespace simulation

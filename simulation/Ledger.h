// Where every event record is, at every moment, and whether it may be there: the oracles over the client's promises.
//
// The ledger looks at the client's memory, its queue file and its requests after each step and compares what it sees with what was
// there before. Exactly one block runs in a step, so each change is that block's. What has left every place must be explained, when
// its block ends, by a path that the delivery contract names: a message of that block, an overlap of two rewrites, a death.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "simulation/Story.h"

namespace simulation {

using Ids = std::vector<std::uint64_t>;

/// An oracle was broken.
class Violation : public std::runtime_error {
 public:
  Violation(const std::string& itsOracle, const std::string& what)
      : std::runtime_error(itsOracle + ": " + what), oracle(itsOracle) {}
  const std::string oracle;
};

/// The ids of a text of records, one a line.
struct QueueContent {
  struct Line {
    std::uint64_t begin = 0;  // offset of the first byte
    std::uint64_t end = 0;    // offset behind the line feed, or of the text's end
    std::optional<std::uint64_t> id;
    bool isTerminated = false;
  };
  std::string bytes;
  std::vector<Line> lines;
  Ids ids;  // of the whole records, in order

  static QueueContent of(std::string bytes);
};

class Ledger {
 public:
  explicit Ledger(Story& story) : story_(story) {}

  // What the host does.
  /// A new event's id; the call begins. Ids of one host thread grow.
  std::uint64_t beginCall(std::size_t host);
  void endCall(std::uint64_t id) { calling_.erase(id); }
  /// An event of an earlier time, which is to be in the queue file that the world begins with.
  std::uint64_t rememberEvent();
  void beginWith(std::string queueFile);

  // What a block does, told while it runs.
  void blockBegins(const std::string& lane, std::optional<std::uint64_t> request);
  void message(const std::string& lane, std::string_view text);
  /// The queue file is about to be copied or opened.
  void queueIsRead(const std::string& lane, const std::optional<std::string>& bytes);
  /// The queue file is about to get this content, or to be removed.
  void queueIsReplaced(const std::string& lane, std::optional<std::string> bytes);

  // The state after a step in which the lane's block ran; memory and requests are those of the process that lives.
  struct Flight {
    Ids ids;
    int attempt = 1;
    bool isAccepted = false;
    bool isTold = false;     // an outcome is on its way to the client
    bool saidTaken = false;  // the outcome says that the server has them
    bool isChallenge = false;
  };
  struct Seen {
    std::string lane;  // empty when no block of the client ran
    bool hasBlockEnded = false;
    std::optional<std::string> queueFile;
    Ids memory;
  };
  /// A post of events is on its way since this step.
  void posted(const std::string& lane, std::uint64_t request, Ids ids);
  void observe(const Seen& seen);

  // The server's side.
  void accepted(std::uint64_t request);
  void told(std::uint64_t request, bool saysTaken, bool isChallenge);

  // Ends.
  void processDied(std::string_view how);
  /// After the death: only what the disk kept is left.
  void powerWasCut(const std::optional<std::string>& queueFile);
  /// Every fault has stopped, and the client is at rest.
  void expectRest(bool clientLaneIsIdle);
  /// Whether anything still waits for its turn.
  bool isSettled() const;

  std::size_t recorded() const { return lastId_; }
  std::size_t acceptedCount() const { return accepted_.size(); }

 private:
  struct Block {
    std::vector<std::string> messages;
    std::set<std::uint64_t> held;      // left a place through this block, not seen elsewhere yet
    std::optional<QueueContent> base;  // of the queue file as this block read it last
    bool hasBase = false;
    std::uint64_t baseVersion = 0;
    bool isOverlapped = false;  // a rewrite of this block was made from what another one had replaced since
    std::optional<std::uint64_t> request;
    bool isChallenged = false;  // the outcome that it deals with is a challenge
    Ids memoryAtStart;
    std::uint64_t perRecordLosses = 0;  // explained so far by one message each
  };

  bool hasMessage(const Block& block, std::string_view beginning) const;
  std::size_t countMessages(const Block& block, std::string_view beginning) const;
  void checkReplacement(const std::string& lane, Block& block, const std::string& bytes);
  void checkAppended(const Block& block, const QueueContent& content);
  void checkLoaded(const Block& block, const std::string& bytes);
  void checkTruncated(const Block& block, const std::string& bytes);
  void checkFile(const Seen& seen);
  void checkMemoryOrder(const Ids& memory);
  void checkPlaces(const Seen& seen, Block* block);
  void settleBlock(const std::string& lane);
  std::string explanation(const std::string& lane, Block& block, std::uint64_t id);
  bool isLoad(const std::string& lane) const;
  std::size_t placesOf(std::uint64_t id) const;
  void lose(std::uint64_t id, const std::string& path);

 public:
  std::int32_t queueLimit = 1'048'576;

 private:
  Story& story_;
  std::uint64_t lastId_ = 0;
  std::set<std::uint64_t> calling_;
  std::set<std::uint64_t> pending_;  // called, not yet seen in memory
  std::map<std::uint64_t, std::size_t> hosts_;
  Ids memory_;
  std::set<std::uint64_t> memorySet_;
  std::map<std::uint64_t, Flight> flights_;
  std::map<std::string, Block> blocks_;

  std::optional<std::string> file_;
  std::set<std::uint64_t> fileSet_;
  std::uint64_t version_ = 0;
  bool requestsHaveChanged_ = false;                  // since the places were looked at
  std::vector<std::optional<std::string>> possible_;  // contents that the file may have after this step
  std::vector<std::optional<std::string>> lasting_;   // contents of which a power cut may leave one

  std::set<std::uint64_t> accepted_;
  std::set<std::uint64_t> answered_;   // the client knows that the server has them
  std::set<std::uint64_t> mayRepeat_;  // came to be in two places, or with the server and here, by a named path
  std::map<std::uint64_t, std::string> lost_;
};

}  // namespace simulation

// The demo: the whole road of an event, against a development server of its own, with real processes on both sides.
//
// Every chapter runs the kestrova command as a person would, and then compares what the server's journal says it received with what
// was reported. The demo fails when the two do not agree.
#include <fmt/format.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "cli/ChildProcess.h"
#include "cli/Commands.h"
#include "cli/EventInput.h"
#include "cli/Report.h"
#include "platform/Exception.h"
#include "platform/JSONSerialization.h"
#include "platform/Process.h"

namespace cli {
namespace {

namespace fs = std::filesystem;
using platform::Dictionary;
using platform::Value;

constexpr const char* kApplication = "com.example.gifs";
constexpr const char* kInput = "gif-app-events.jsonl";

/// The demo cannot go on, or what it showed is not right.
struct DemoFailure {
  std::string reason;
};

void require(bool condition, const std::string& reason) {
  if (!condition) throw DemoFailure{reason};
}

std::string readFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  require(file.good(), "cannot read " + path.string());
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeFile(const fs::path& path, std::string_view text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  require(file.good(), "cannot write " + path.string());
}

Dictionary parsed(std::string_view text) {
  const auto value = platform::JSONSerialization::JSONObjectWithData(platform::Data(text));
  require(value.has_value() && value->isObject(), "not a JSON object: " + std::string(text.substr(0, 200)));
  return value->object();
}

std::uint64_t number(const Dictionary& object, std::string_view key) {
  const auto value = object.objectForKey(key);
  require(value.has_value(), "the report has no " + std::string(key));
  return static_cast<std::uint64_t>(value->integerValue());
}

/// How often each event occurs, by its name and data as text.
using Events = std::map<std::string, std::uint64_t>;

std::string eventText(const Value& name, Dictionary data) {
  const auto text = platform::JSONSerialization::dataWithJSONObject(Dictionary{{"event", name}, {"data", std::move(data)}});
  require(text.has_value(), "an event cannot be written");
  return std::string(text->bytes());
}

std::uint64_t total(const Events& events) {
  std::uint64_t sum = 0;
  for (const auto& [text, count] : events) sum += count;
  return sum;
}

/// True when no event occurs more often in `part` than in `whole`.
bool isWithin(const Events& part, const Events& whole) {
  return std::ranges::all_of(part, [&](const auto& entry) {
    const auto found = whole.find(entry.first);
    return found != whole.end() && found->second >= entry.second;
  });
}

Events eventsOfInput(std::string_view text) {
  Events events;
  for (auto end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
    const auto event = parseEventLine(text.substr(0, end));
    require(event.has_value(), "the input holds a bad line");
    ++events[eventText(event->name, event->data.value_or(Dictionary()))];
    text.remove_prefix(end + 1);
  }
  return events;
}

/// A temporary folder that goes with the demo.
class Folder {
 public:
  Folder() {
    std::string name = (fs::temp_directory_path() / "kestrova-demo-XXXXXX").string();
    require(mkdtemp(name.data()) != nullptr, "cannot make a folder below " + fs::temp_directory_path().string());
    path_ = name;
  }
  ~Folder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  fs::path operator/(std::string_view name) const { return path_ / name; }

 private:
  fs::path path_;
};

/// The development server, started and stopped as the story needs it; its port and its journal stay.
class Server {
 public:
  Server(fs::path program, const Folder& folder) : program_(std::move(program)), folder_(folder) {}

  void start(const std::vector<std::string>& behaviour = {}) {
    const fs::path ready = folder_ / "server-ready.json";
    fs::remove(ready);
    std::vector<std::string> arguments{"--port",       std::to_string(port_),
                                       "--state",      (folder_ / "server").string(),
                                       "--apps",       (folder_ / "apps.json").string(),
                                       "--journal",    journal().string(),
                                       "--ready-file", ready.string()};
    arguments.insert(arguments.end(), behaviour.begin(), behaviour.end());
    process_ = std::make_unique<ChildProcess>(program_.string(), arguments, Environment{}, (folder_ / "server-log").string());

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!fs::exists(ready)) {
      require(!process_->hasEnded(), "the development server ended at its start; it said: " + readFile(folder_ / "server-log"));
      require(std::chrono::steady_clock::now() < deadline, "the development server is not ready after 20 seconds");
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const Dictionary answer = parsed(readFile(ready));
    port_ = number(answer, "port");
    authority_ = std::string(answer.objectForKey("caFile")->string().view());
  }

  void stop() {
    process_->terminate();
    const int status = process_->wait();
    process_.reset();
    require(status == 0, fmt::format("the development server ended with status {}", status));
  }

  std::string host() const { return fmt::format("localhost:{}", port_); }
  const std::string& authority() const { return authority_; }

  /// The events that the server took since this was asked last.
  Events takeReceived() {
    const std::string text = fs::exists(journal()) ? readFile(journal()) : "";
    Events events;
    std::string_view rest = std::string_view(text).substr(read_);
    for (auto end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
      addReceived(parsed(rest.substr(0, end)), events);
      rest.remove_prefix(end + 1);
    }
    read_ = text.size() - rest.size();
    return events;
  }

 private:
  static void addReceived(const Dictionary& request, Events& events) {
    const auto records = request.objectForKey("records");
    if (request.objectForKey("taken") != Value(true) || !records || !records->isArray()) return;
    for (const Value& record : records->array()) {
      Dictionary data = record.objectForKey("eventData")->object();
      data.removeObjectForKey("sessionId");
      ++events[eventText(*record.objectForKey("event"), std::move(data))];
    }
  }

  fs::path journal() const { return folder_ / "journal.jsonl"; }

  fs::path program_;
  const Folder& folder_;
  std::unique_ptr<ChildProcess> process_;
  std::uint64_t port_ = 0;
  std::string authority_;
  std::size_t read_ = 0;  // bytes of the journal that were taken
};

struct Row {
  std::string chapter;
  std::uint64_t reported = 0;
  std::uint64_t received = 0;
  std::uint64_t kept = 0;
  std::uint64_t dropped = 0;
};

class Demo {
 public:
  Demo() : bin_(fs::read_symlink("/proc/self/exe").parent_path()), server_(bin_ / "kestrova-devserver", folder_) {
    writeFile(folder_ / "secret", "a-secret-of-the-demo-only");
    writeFile(folder_ / "apps.json", fmt::format("{{\"{}\": \"a-secret-of-the-demo-only\"}}\n", kApplication));
    input_ = findInput();
    events_ = eventsOfInput(readFile(input_));
  }

  void run() {
    server_.start();
    printLine(fmt::format("A development server is up at https://{}; the input is {} with {}.", server_.host(), kInput,
                          counted(total(events_), "event")));
    deliver();
    keepAndDrain();
    healTheClock();
    obeyDirectives();
    outgrowTheLimit();
    server_.stop();
    printTable();
  }

 private:
  /// Next to the programs of an installation or above those of a build.
  fs::path findInput() const {
    for (const fs::path& folder : {bin_ / "../../examples", bin_ / "../../../examples", bin_ / "../share/kestrova/examples"}) {
      if (fs::exists(folder / kInput)) return fs::canonical(folder / kInput);
    }
    throw DemoFailure{fmt::format("{} is neither in examples/ nor in share/kestrova/examples/", kInput)};
  }

  struct Outcome {
    int status = 0;
    Dictionary report;
  };

  Outcome kestrova(const std::vector<std::string>& command) {
    std::vector<std::string> arguments{"--api-host",    server_.host(),
                                       "--bundle-id",   kApplication,
                                       "--home",        (folder_ / "device").string(),
                                       "--secret-file", (folder_ / "secret").string(),
                                       "--json"};
    arguments.insert(arguments.end(), command.begin(), command.end());
    std::string shown = "kestrova";
    for (const std::string& word : command)
      shown += " " + (word.find_first_of(" {") == std::string::npos ? word : "'" + word + "'");
    printLine("  $ " + shown);
    const fs::path output = folder_ / "command-output";
    ChildProcess process((bin_ / "kestrova").string(), arguments, {{"SSL_CERT_FILE", server_.authority()}}, output.string());
    const int status = process.wait();
    return {status, parsed(readFile(output))};
  }

  /// Runs a command and accounts for it in the table; the exit status must be the expected one.
  Outcome chapter(const std::string& name, const std::vector<std::string>& command, int expectedStatus, Events& received) {
    const Outcome outcome = kestrova(command);
    require(outcome.status == expectedStatus, fmt::format("{}: exit status {} instead of {}; the report is {}", name,
                                                          outcome.status, expectedStatus, outcome.report.description()));
    received = server_.takeReceived();
    Row row{name, number(outcome.report, "recorded"), total(received), number(outcome.report, "kept"),
            number(outcome.report, "lost")};
    require(number(outcome.report, "delivered") == row.received, name + ": the server did not receive what the client delivered");
    printLine(fmt::format("    {} reported, {} received, {} kept, {} dropped on purpose", row.reported, row.received, row.kept,
                          row.dropped));
    rows_.push_back(std::move(row));
    return outcome;
  }

  void deliver() {
    printLine("\nThe server is up: everything arrives.");
    Events received;
    chapter("server up", {"events", input_.string()}, kDelivered, received);
    require(received == events_, "what arrived is not what was reported");
  }

  void keepAndDrain() {
    printLine("\nThe server is away: everything is kept, and drained when it is back.");
    server_.stop();
    Events received;
    chapter("server away", {"events", input_.string()}, kKept, received);
    require(rows_.back().kept == total(events_), "not everything was kept");
    server_.start();
    chapter("server back", {"flush"}, kDelivered, received);
    require(received == events_, "what was drained is not what was kept");
  }

  void healTheClock() {
    printLine("\nThe server's clock is an hour ahead: one challenge, one correction, delivery.");
    server_.stop();
    server_.start({"--clock-offset", "3600"});
    Events received;
    chapter("clock an hour off", {"event", "gif-viewed", "--data", R"({"gif":"g00001"})"}, kDelivered, received);
    require(total(received) == 1, "the event did not arrive once");
    const Dictionary status = kestrova({"status"}).report;
    const std::int64_t correction = status.objectForKey("clockCorrection")->integerValue();
    printLine(fmt::format("    clock correction {} s", correction));
    require(correction >= 3590 && correction <= 3610, "the clock correction is not an hour");
  }

  void obeyDirectives() {
    printLine("\nThe server answers with directives: they reach the delegate.");
    const std::string directives =
        R"({"referralCode":"demouser","urlPath":"/gifs","notifications":[{"text":"hello"}],"features":3,"reasons":{"0":"maintenance"}})";
    server_.stop();
    server_.start({"--directives", directives});
    Events received;
    const Outcome outcome = chapter("directives", {"event", "session-started"}, kDelivered, received);
    const Dictionary expected = parsed(directives);
    const Dictionary told = outcome.report.objectForKey("directives")->object();
    for (const auto& [said, arrived] :
         {std::pair("referralCode", "userId"), std::pair("urlPath", "appIdentifier"), std::pair("notifications", "notifications"),
          std::pair("features", "features"), std::pair("reasons", "reasons")}) {
      require(told.objectForKey(arrived) == expected.objectForKey(said), fmt::format("the directive {} did not arrive", said));
      printLine(fmt::format("    {} arrived as {}", said, arrived));
    }
  }

  /// Events of about a kilobyte, each different, more than the queue file's limit of 1 MiB holds.
  std::string largeInput() const {
    constexpr int kCount = 1400;
    std::string text;
    for (int index = 0; index < kCount; ++index) {
      text += fmt::format("{{\"event\": \"gif-created\", \"data\": {{\"frame\": {}, \"thumbnail\": \"{:x<900}\"}}}}\n", index, "");
    }
    return text;
  }

  void outgrowTheLimit() {
    printLine("\nThe server is away for long: the queue grows past its limit and loses its oldest records, on purpose.");
    server_.stop();
    const fs::path large = folder_ / "large.jsonl";
    writeFile(large, largeInput());
    const Events reported = eventsOfInput(readFile(large));
    Events received;
    const Outcome grown = chapter("queue past its limit", {"events", large.string()}, kLost, received);
    bool truncated = false;
    const Dictionary reasons = grown.report.objectForKey("reasons")->object();
    for (const auto& [reason, count] : reasons) {
      truncated = truncated || reason.view().find("over its limit") != std::string_view::npos;
    }
    require(truncated, "the queue was not truncated");

    server_.start();
    chapter("drained", {"flush"}, kLost, received);
    const Row& away = rows_[rows_.size() - 2];
    const Row& drained = rows_.back();
    require(drained.kept == 0, "something stayed in the queue");
    require(isWithin(received, reported), "something arrived that was not reported, or twice");
    require(away.dropped + drained.dropped + drained.received == total(reported), "the accounts do not add up");
  }

  void printTable() const {
    printLine(fmt::format("\n{:<24}{:>10}{:>10}{:>10}{:>22}", "", "reported", "received", "kept", "dropped on purpose"));
    Row sum{"in all", 0, 0, rows_.back().kept, 0};
    for (const Row& row : rows_) {
      printLine(fmt::format("{:<24}{:>10}{:>10}{:>10}{:>22}", row.chapter, row.reported, row.received, row.kept, row.dropped));
      sum.reported += row.reported;
      sum.received += row.received;
      sum.dropped += row.dropped;
    }
    printLine(fmt::format("{:<24}{:>10}{:>10}{:>10}{:>22}", sum.chapter, sum.reported, sum.received, sum.kept, sum.dropped));
    require(sum.reported == sum.received + sum.kept + sum.dropped, "the table does not add up");
    printLine("\nThe server's records agree with the input.");
  }

  Folder folder_;
  fs::path bin_;
  Server server_;
  fs::path input_;
  Events events_;
  std::vector<Row> rows_;
};

}  // namespace

int runDemo() {
  // Only values and JSON are used in this process; the events are reported by its children.
  platform::Process::install(platform::makeSystemProcess({}));
  try {
    Demo demo;
    demo.run();
    return kDelivered;
  } catch (const DemoFailure& failure) {
    printError("the demo failed: " + failure.reason);
  } catch (const std::system_error& error) {
    printError(std::string("the demo failed: ") + error.what());
  }
  return kFailed;
}

}  // namespace cli

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
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "cli/ChildProcess.h"
#include "cli/Commands.h"
#include "cli/DemoUpload.h"
#include "cli/EventInput.h"
#include "cli/Interruption.h"
#include "cli/Report.h"
#include "cli/StopSignals.h"
#include "platform/Exception.h"
#include "platform/JSONSerialization.h"
#include "platform/Process.h"
#include "platform/URLSession.h"

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

std::string text(const Dictionary& object, std::string_view key) {
  const auto value = object.objectForKey(key);
  require(value && value->isString(), "there is no text " + std::string(key) + " in " + object.description());
  return std::string(value->string().view());
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
  Server(fs::path program, const Folder& folder, const Interruption& interruption)
      : program_(std::move(program)), folder_(folder), interruption_(interruption) {}
  /// It has temporary files of its own, which go when it ends by itself.
  ~Server() {
    if (!process_) return;
    process_->terminate();
    process_->wait();
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

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
      interruption_.heed();
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
  fs::path journal() const { return folder_ / "journal.jsonl"; }

  /// The newest entry of its journal.
  Dictionary lastRequest() const {
    std::string entries = readFile(journal());
    if (entries.ends_with('\n')) entries.pop_back();
    return parsed(std::string_view(entries).substr(entries.rfind('\n') + 1));
  }

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

  fs::path program_;
  const Folder& folder_;
  const Interruption& interruption_;
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
  explicit Demo(const Interruption& interruption)
      : interruption_(interruption),
        bin_(fs::read_symlink("/proc/self/exe").parent_path()),
        server_(bin_ / "kestrova-devserver", folder_, interruption) {
    writeFile(folder_ / "secret", "a-secret-of-the-demo-only");
    writeFile(folder_ / "apps.json", fmt::format("{{\"{}\": \"a-secret-of-the-demo-only\"}}\n", kApplication));
    // The commands of the demo have nothing to do with the user's own uploads.
    require(setenv("KESTROVA_TRANSFER_DIR", (folder_ / "transfers").c_str(), 1) == 0 &&
                setenv("KESTROVA_TRANSFERD", (bin_ / "kestrova-transferd").c_str(), 1) == 0,
            "the environment is full");
    input_ = findInput();
    events_ = eventsOfInput(readFile(input_));
  }

  ~Demo() {
    if (uploads_) endUploads(*uploads_);
  }
  Demo(const Demo&) = delete;
  Demo& operator=(const Demo&) = delete;

  void run() {
    server_.start();
    printLine(fmt::format("A development server is up at https://{}; the input is {} with {}.", server_.host(), kInput,
                          counted(total(events_), "event")));
    deliver();
    keepAndDrain();
    healTheClock();
    obeyDirectives();
    share();
    patchAndMatch();
    upload();
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

  std::vector<std::string> commandOptions() const {
    return {"--api-host",    server_.host(),
            "--bundle-id",   kApplication,
            "--home",        (folder_ / "device").string(),
            "--secret-file", (folder_ / "secret").string(),
            "--json"};
  }

  Outcome kestrova(const std::vector<std::string>& command, const Environment& environment = {}) {
    std::vector<std::string> arguments = commandOptions();
    arguments.insert(arguments.end(), command.begin(), command.end());
    std::string shown = "kestrova";
    for (const std::string& word : command)
      shown += " " + (word.find_first_of(" {") == std::string::npos ? word : "'" + word + "'");
    printLine("  $ " + shown);
    const fs::path output = folder_ / "command-output";
    Environment all{{"SSL_CERT_FILE", server_.authority()}};
    all.insert(all.end(), environment.begin(), environment.end());
    ChildProcess process((bin_ / "kestrova").string(), arguments, all, output.string());
    const int status = interruption_.waitFor(process);
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

  /// A command without events, whose exit status must say that all went well.
  Dictionary succeed(const std::vector<std::string>& command, const Environment& environment = {}) {
    const Outcome outcome = kestrova(command, environment);
    require(outcome.status == kDelivered,
            fmt::format("{}: exit status {}; the report is {}", command[0], outcome.status, outcome.report.description()));
    return outcome.report;
  }

  /// Looks at a page as a browser would that trusts the server; it must be answered with status 200.
  void visit(const std::string& link) {
    const auto url = platform::URL::URLWithString(link);
    require(url.has_value(), "not an address: " + link);
    setenv("SSL_CERT_FILE", server_.authority().c_str(), 1);
    std::promise<std::pair<std::int64_t, std::string>> answer;
    const std::unique_ptr<platform::Process> browser = platform::makeSystemProcess({});  // it reads the environment anew
    const auto task = browser->urlSession->dataTaskWithRequestCompletionHandler(
        platform::URLRequest(url),
        [&answer](const std::optional<platform::Data>& data, const platform::HTTPURLResponseRef& response,
                  const std::optional<platform::Error>& error) {
          const std::string said = error ? error->localizedDescription() : std::string(data.value_or(platform::Data()).bytes());
          answer.set_value({platform::statusCode(response), said});
        });
    task->resume();
    auto [status, page] = answer.get_future().get();  // the session has a time limit of its own
    while (page.ends_with('\n')) page.pop_back();
    printLine("    the page says: " + page);
    require(status == 200, fmt::format("the page was answered with {}: {}", status, page));
  }

  void share() {
    printLine("\nA share is submitted and clicked, and a refresh shows it.");
    server_.stop();
    server_.start();
    const Dictionary submitted =
        succeed({"share", "submit", "--data", R"({"gif":"g00001"})", "--url", "https://share.example.com/g00001"});
    const std::string code = text(submitted, "referralCode");
    const Dictionary entry = server_.lastRequest();
    require(text(entry, "path") == "/shares" && text(entry, "id") == code, "the server has not given the code that was reported");
    const auto posted = entry.objectForKey("data");
    require(posted && posted->objectForKey("data") == Value(Dictionary{{"gif", "g00001"}}),
            "the server does not hold the data that was submitted");
    require(stateOf(code) == 0, "a new share is not in the state of one that was sent");
    visit("https://" + server_.host() + "/s/" + code);
    require(stateOf(code) == 1, "the share was clicked, but the refresh does not show it");
    printLine("    the share was sent, and is clicked");
  }

  /// The state that a refresh brings.
  std::int64_t stateOf(const std::string& code) {
    const Dictionary report = succeed({"share", "refresh", code});
    const auto shares = report.objectForKey("shares");
    require(shares && shares->isArray() && shares->count() == 1, "the refresh did not bring the one share");
    return shares->array()[0].objectForKey("state").value_or(Value(-1)).integerValue();
  }

  void patchAndMatch() {
    printLine("\nWhat became known late is added to the session's start, and the match page takes the link that is opened.");
    Events received;
    chapter("session start", {"event", "session-started"}, kDelivered, received);
    require(total(received) == 1, "the event did not arrive once");
    succeed({"patch", R"({"link":"https://share.example.com/g00001"})"});
    const auto patched = server_.lastRequest().objectForKey("patched");
    const auto data = patched && patched->isObject() ? patched->objectForKey("eventData") : std::nullopt;
    require(data && data->objectForKey("link") == Value("https://share.example.com/g00001"),
            "the session's start on the server was not patched");

    // It stands where the desktop's opener does, and only writes the link down: there may be no browser here.
    const fs::path link = folder_ / "match-link";
    const fs::path programs = folder_ / "programs";
    fs::create_directory(programs);
    writeFile(programs / "xdg-open", fmt::format("#!/bin/sh\nprintf %s \"$1\" > '{}'\n", link.string()));
    fs::permissions(programs / "xdg-open", fs::perms::owner_all);
    const char* path = std::getenv("PATH");
    succeed({"cookie-match"}, {{"PATH", programs.string() + ":" + (path ? path : "/usr/bin:/bin")}});
    visit(readFile(link));
    const Dictionary match = server_.lastRequest();
    require(text(match, "path") == "/cookie-match" && match.objectForKey("taken") == Value(true), "the server saw no match");
    require(text(match, "app") == kApplication, "the match names another application");
  }

  void upload() {
    printLine("\nA GIF goes up in the background: the application is killed half way, and hears of the end.");
    server_.stop();
    server_.start({"--gifs", (folder_ / "gifs").string(), "--read-rate", UploadDemo::kReadRate});
    UploadDemo& demo = uploads_.emplace();
    demo.programs = bin_;
    demo.folder = folder_ / "";
    demo.gifs = folder_ / "gifs";
    demo.journal = server_.journal();
    demo.application = folder_ / "device" / kApplication;
    demo.options = commandOptions();
    demo.environment = {{"SSL_CERT_FILE", server_.authority()}};
    demo.interruption = &interruption_;
    if (const auto failure = showUpload(demo)) throw DemoFailure{*failure};
    server_.takeReceived();  // a GIF is no event
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

  const Interruption& interruption_;
  Folder folder_;
  fs::path bin_;
  Server server_;
  fs::path input_;
  Events events_;
  std::vector<Row> rows_;
  std::optional<UploadDemo> uploads_;  // from the moment on in which there may be a transfer service
};

}  // namespace

int runDemo() {
  StopSignals signals;
  // The thread of the signals outlives this call.
  const auto interruption = std::make_shared<Interruption>();
  signals.onStop([interruption] { interruption->request(); });
  // Whoever follows the story in a pipe sees it as it goes on.
  (void)std::setvbuf(stdout, nullptr, _IOLBF, 0);
  // This process uses values and JSON, and looks at pages; the events are reported by its children.
  platform::Process::install(platform::makeSystemProcess({}));
  try {
    Demo demo(*interruption);
    demo.run();
    return kDelivered;
  } catch (const Interrupted&) {
    printError("the demo was stopped; nothing of it is left");
  } catch (const DemoFailure& failure) {
    // What was stopped together with the demo has failed for no other reason.
    printError(interruption->isRequested() ? "the demo was stopped; nothing of it is left" : "the demo failed: " + failure.reason);
  } catch (const std::system_error& error) {
    printError(std::string("the demo failed: ") + error.what());
  }
  return kFailed;
}

}  // namespace cli

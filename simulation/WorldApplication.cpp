// The application's side of a world: its lives, its blocks, its calls and what goes wrong in them.
#include <algorithm>
#include <exception>
#include <set>
#include <utility>

#include "client/KSVData.h"
#include "companions/KSVShare.h"
#include "platform/Exception.h"
#include "simulation/World.h"
#include "support/KSVDataInspector.h"
#include "support/TestProcess.h"

namespace simulation {

using platform::Value;
using test::TestProcess;
using Fate = test::FaultPlan::Fate;

namespace {

std::optional<std::uint64_t> idOfRecord(const Value& record) {
  const auto data = record.objectForKey("eventData");
  const auto number = data ? data->objectForKey("n") : std::nullopt;
  return number ? std::optional(static_cast<std::uint64_t>(number->integerValue())) : std::nullopt;
}

bool mayYieldAt(std::string_view operation) {
  // Some are asked for while a lock is held, which another block might want: those never let another block run.
  return !operation.starts_with("DispatchQueues.") && operation != "DispatchQueue.label";
}

}  // namespace

// Lives.

void World::startApplication(std::optional<std::string> session) {
  ++lives_;
  defaultsBefore_ = device_.defaults->values;
  story_.add("the application starts" + (session ? ", launched for " + *session : ""));
  Application::Hooks hooks;
  hooks.decide = [this](const test::Operation& called, const std::string& argument) { return decide(called, argument); };
  hooks.log = [this](std::string_view text) { story_.add("  system log: " + std::string(text)); };
  hooks.trace = [this](std::string_view text) {
    story_.add("  trace: " + std::string(text));
    ledger_.message(lane_, text);
  };
  hooks.point = [this](std::string_view what) { pausePoint(what); };
  hooks.spoolFails = [this](std::string_view operation) {
    pausePoint(operation);
    return happens(Kind::kSpoolFails, operation);
  };
  hooks.spoolWritten = [this](const transfer::SpoolEntry& entry) {
    device_.uploads[entry.session] = {};
    story_.add("  upload " + entry.session + " is durable");
    try {
      server_.checkUploadSignature(entry);
    } catch (const Violation& violation) {
      violation_.emplace(violation);
    }
  };
  hooks.mistakeHappens = [this] { return Crew::isMember() && random_.chance(0.05); };
  hooks.gap = [] {
    if (Crew::isMember()) Crew::pause();
  };
  application_ = std::make_unique<Application>(device_, lives_, session, mutation_, std::move(hooks));
  launched_ = std::move(session);

  const std::int32_t limit = swarm_.queueLimit;
  ledger_.queueLimit = limit;
  application_->hosts[0]->async([app = application_.get(), limit] { app->start(limit); });
  if (application_->launchedFor) wake(*application_->launchedFor);
}

void World::wake(const std::string& session) {
  application_->hosts[0]->async([this, app = application_.get(), session] {
    if (!app->facade) return;
    app->client()->handleEventsForBackgroundURLSessionCompletionHandler(session, [] {});
    platform::BackgroundURLSessions::backgroundSessions().notifyWhenEventsAreDelivered(session, [this, app] {
      story_.add("  the events of the launch are handed over");
      app->isToExit = app->launchedFor.has_value();
    });
  });
}

void World::killApplication(std::string_view how) {
  story_.add("the application dies: " + std::string(how));
  application_->isDead = true;
}

/// Whatever block had paused ends where it stands; what it calls from now on does nothing.
void World::buryApplication() {
  while (!application_->running.empty()) {
    const auto [lane, member] = *application_->running.begin();
    lane_ = lane;
    const platform::Process::Scope scope(application_->process);
    while (!crew_.resume(member)) {
    }
    application_->running.erase(lane);
  }
  lane_.clear();
  if (const auto& connection = application_->link->connection) {
    connection->isOpenHere = false;
    connection->toApplication.clear();
  }
  application_.reset();
  if (happens(Kind::kDefaultsLost)) device_.defaults->values = defaultsBefore_;
  if (launched_) launchToEnd_ = std::exchange(launched_, std::nullopt);
  ledger_.processDied("its memory is gone");
}

void World::cutPower() {
  story_.fault(nameOf(Kind::kPowerCut));
  if (service_) {
    service_->isDead = true;
    buryService();
  }
  if (application_) {
    application_->isDead = true;
    buryApplication();
  }
  launchToEnd_.reset();
  std::set<std::string> uploadFiles;
  for (const auto& [session, upload] : device_.uploads)
    if (upload.ends == 0 && device_.files->bytesAtPath(Device::uploadFile(session))) uploadFiles.insert(session);
  device_.files->powerCut([this](std::size_t bound) { return random_.below(bound); });
  // The link is made, and its name is not brought to the disk: the upload itself lasts, and then fails for want of its file.
  for (const std::string& session : uploadFiles)
    if (!device_.files->bytesAtPath(Device::uploadFile(session)))
      story_.path("a power cut took the file of a durable upload", session);
  filesWereTouched_ = true;
  queueFile_ = device_.files->bytesAtPath(Device::kQueueFile);
  ledger_.powerWasCut(queueFile_);
}

// Blocks.

void World::collectLanes(Choices& choices) {
  std::vector<std::string> lanes = application_->queues->pendingLabels();
  for (const auto& [lane, member] : application_->running) lanes.push_back(lane);
  std::ranges::sort(lanes);
  const auto repeated = std::ranges::unique(lanes);
  lanes.erase(repeated.begin(), repeated.end());
  for (const std::string& lane : lanes) choices.push_back({4, [this, lane] { runLane(lane); }});
}

void World::runLane(const std::string& lane) {
  Application& app = *application_;
  lane_ = lane;
  auto running = app.running.find(lane);
  if (running == app.running.end()) {
    story_.add("block of " + lane);
    if (lane == test::ScriptedURLSession::kQueueLabel) {
      const auto request = app.completions.front();
      app.completions.erase(app.completions.begin());
      ledger_.blockBegins(lane, request);
    } else if (lane == TestProcess::clientQueue()) {
      ledger_.blockBegins(lane, std::nullopt);
    }
    const auto queues = app.queues;
    running = app.running.emplace(lane, crew_.assign([queues, lane] { queues->runNext(lane); })).first;
  } else {
    story_.add("on with " + lane);
  }
  bool hasEnded = false;
  {
    const platform::Process::Scope scope(app.process);
    hasEnded = crew_.resume(running->second);
  }
  if (hasEnded) app.running.erase(lane);
  if (violation_) throw Violation(*violation_);
  noteRequests(lane);
  look(lane, hasEnded && !app.isDead);
  noteUncaught(lane);
  lane_.clear();
  if (app.isDead) buryApplication();
}

void World::noteUncaught(const std::string& lane) {
  Application& app = *application_;
  const auto exceptions = app.uncaught->exceptions();
  for (; app.uncaughtSeen < exceptions.size(); ++app.uncaughtSeen) {
    try {
      std::rethrow_exception(exceptions[app.uncaughtSeen]);
    } catch (const ProcessDeath&) {
      continue;  // an end that the world made
    } catch (...) {
      const std::string reason = platform::UncaughtException::description(exceptions[app.uncaughtSeen]);
      story_.add("  system log: " + reason);
      if (!app.mayCrashIn.contains(lane)) throw Violation("crash", "in a block of " + lane + ": " + reason);
      story_.path("a fault that nothing catches ended the application");
      app.isDead = true;
    }
  }
}

void World::noteRequests(const std::string& lane) {
  Application& app = *application_;
  std::vector<platform::URLRequest> sent;
  for (const auto& task : app.session->pending()) {
    if (!app.tasksSeen.insert(task->taskIdentifier()).second) continue;
    const platform::URLRequest& request = task->request();
    sent.push_back(request);
    story_.add("  sent: " + request.HTTPMethod() + " " + request.URL()->path() + " as " + std::to_string(task->taskIdentifier()));
    if (request.URL()->path() == "/events") {
      const auto body = app.process.json->read(*request.HTTPBody());
      if (!body) throw Violation("post", "the body is no JSON");
      Ids ids;
      const auto records = body->objectForKey("data");
      for (const Value& each : records->array())
        if (const auto id = idOfRecord(each)) ids.push_back(*id);
      ledger_.posted(lane, app.number * 1'000'000 + task->taskIdentifier(), std::move(ids));
    }
  }
  for (const platform::URLRequest& request : sent) server_.checkSignature(request);
}

std::optional<std::string> World::queueFile() {
  if (filesWereTouched_) queueFile_ = device_.files->bytesAtPath(Device::kQueueFile);
  filesWereTouched_ = false;
  return queueFile_;
}

Ids World::memoryIds() {
  Ids ids;
  const auto client = application_ ? application_->client() : nullptr;
  if (!client) return ids;
  for (const Value& record : KSVDataInspector(client).diskCacheQueue())
    if (const auto id = idOfRecord(record)) ids.push_back(*id);
  return ids;
}

// The network.

void World::collectRequests(Choices& choices) {
  for (const auto& task : application_->session->pending()) {
    choices.push_back({1, [this, task] {
                         const bool isEvents = task->request().URL()->path() == "/events";
                         const std::uint64_t number = application_->number * 1'000'000 + task->taskIdentifier();
                         Server::Outcome outcome = server_.handle(number, task->request(), isEvents);
                         story_.add("request " + std::to_string(task->taskIdentifier()) + " ends: " + outcome.text);
                         if (isEvents) ledger_.told(number, outcome.saysTaken, outcome.isChallenge);
                         if (outcome.text.find("[") != std::string::npos || outcome.text.find(":7") != std::string::npos)
                           application_->mayCrashIn.insert(std::string(test::ScriptedURLSession::kQueueLabel));
                         application_->completions.push_back(isEvents ? std::optional(number) : std::nullopt);
                         task->end(std::move(outcome.body), std::move(outcome.response), std::move(outcome.error));
                       }});
  }
}

// The host.

void World::hostDoes(std::size_t host) {
  if (application_->queues->pending("host " + std::to_string(host + 1)) > 2) return;
  const double drawn = random_.unit();
  if (drawn < swarm_.uploadShare) return application_->hosts[host]->async([this] { upload(); });
  if (drawn < swarm_.uploadShare + 0.03) return application_->hosts[host]->async([this] { share(); });
  if (drawn < swarm_.uploadShare + 0.13) {
    return application_->hosts[host]->async([app = application_.get()] {
      if (app->facade) app->facade->flush();
    });
  }
  if (drawn < swarm_.uploadShare + 0.15) {
    return application_->hosts[host]->async([app = application_.get()] {
      if (app->facade) app->facade->markNewSession();
    });
  }
  application_->hosts[host]->async([this, host] { record(host); });
}

void World::record(std::size_t host) {
  const auto facade = application_->facade;
  if (!facade) return;
  if (happens(Kind::kAbsentName)) {
    application_->mayCrashIn.insert(TestProcess::clientQueue());
    return facade->event(std::nullopt);
  }
  const std::uint64_t id = ledger_.beginCall(host);
  platform::Dictionary data{{"n", Value(static_cast<std::int64_t>(id))}};
  const std::size_t length = random_.chance(swarm_.likelihood(Kind::kBigEvents)) ? random_.below(40'000) : random_.below(60);
  if (length > 0) data.setObjectForKey(Value(std::string(length, 'x')), "pad");
  if (happens(Kind::kUnwritableEvent)) data.setObjectForKey(Value("\xff"), "pad");
  const std::string name = random_.chance(0.08) ? "session-started" : "event";
  story_.add("  event " + std::to_string(id) + " is called: " + name);
  facade->event(name, std::move(data));
  ledger_.endCall(id);
}

void World::upload() {
  const auto client = application_->client();
  if (!client) return;
  auto shared = std::make_shared<KSVShare>();
  auto code = std::make_shared<KSVReferralCode>();
  code->shareId = "share" + std::to_string(random_.below(1000));
  shared->referralCode = code;
  story_.add("  an upload is called");
  client->uploadGIFForShare(platform::URL::fileURLWithPath(Device::kGif), shared);
}

void World::share() {
  const auto client = application_->client();
  if (!client) return;
  auto code = std::make_shared<KSVReferralCode>();
  code->userId = "u1";
  code->shareId = "s1";
  auto shared = std::make_shared<KSVShare>();
  shared->referralCode = code;
  switch (random_.below(4)) {
    case 0:
      return client->updateSharesFromServerWithCallback(KSVShares{shared}, [](const KSVShares&) {});
    case 1:
      return client->patchPreviousSessionStarted(platform::Dictionary{{"late", Value("news")}});
    case 2:
      return client->tryCookieMatchWithCompletion([](bool) {});
    default:
      return client->submitShare(shared);
  }
}

// Calls.

void World::expectAlive() const {
  if (application_->isDead && std::uncaught_exceptions() == 0) throw ProcessDeath();
}

void World::pausePoint(std::string_view what) {
  if (!Crew::isMember()) return;
  expectAlive();
  ++calls_;
  ++operations_[std::string(what)];
  story_.add("  call: " + std::string(what));
  if (random_.chance(swarm_.switchLikelihood)) {
    ++switches_;
    Crew::pause();
  }
  expectAlive();
  if (happens(Kind::kDeathBeforeCall, what)) {
    application_->isDead = true;
    throw ProcessDeath();
  }
}

std::optional<Fate> World::drawnFault(const test::Operation& called) {
  Fate fate;
  const std::string_view name = called.name;
  const bool isFile = name.starts_with("FileManager.") || name.starts_with("FileHandle.");
  if (isFile && called.writesShort && happens(Kind::kShortWrite, name)) {
    fate.shortBytes = random_.below(200);
    return fate;
  }
  if (name.starts_with("FileManager.") && called.fails && happens(Kind::kFileFails, name)) {
    fate.error = random_.chance(0.5) ? test::outOfSpaceError() : test::someError();
    return fate;
  }
  if (name.starts_with("FileHandle.") && called.raises && happens(Kind::kFileRaises, name)) {
    // A seek that raises while the queue is cut back is caught by nobody.
    if (name.starts_with("FileHandle.seek")) application_->mayCrashIn.insert(lane_);
    throw test::someException();
  }
  if (name.starts_with("JSON.") && happens(Kind::kJSONFails, name)) {
    if (called.raises && random_.chance(0.5)) throw test::someException();
    fate.error = test::someError();
    return fate;
  }
  if (name == "Data.subdata" && happens(Kind::kDataRaises, name))
    throw platform::Exception(platform::kRangeException, "raised on purpose");
  if ((name.starts_with("Digest.h") || name == "BackgroundURLSession.uploadTask") && happens(Kind::kServiceCallRaises, name)) {
    if (name.starts_with("Digest.")) server_.digestFailed();
    application_->mayCrashIn.insert(lane_);
    throw test::someException();
  }
  return std::nullopt;
}

Fate World::decide(const test::Operation& called, const std::string& argument) {
  if (!Crew::isMember()) return {};
  if (application_->isDead) {
    if (std::uncaught_exceptions() == 0) throw ProcessDeath();
    return {.error = std::nullopt, .shortBytes = std::nullopt, .empty = true, .after = {}};
  }
  ++calls_;
  ++operations_[std::string(called.name)];
  story_.add("  call: " + std::string(called.name) + (argument.empty() ? "" : " " + argument));
  if (mayYieldAt(called.name) && random_.chance(swarm_.switchLikelihood)) {
    ++switches_;
    Crew::pause();
    expectAlive();
  }
  if (happens(Kind::kDeathBeforeCall, called.name)) {
    application_->isDead = true;
    throw ProcessDeath();
  }
  if (auto fault = drawnFault(called)) {
    if (called.name.starts_with("File")) filesWereTouched_ = true;
    return *std::move(fault);
  }
  try {
    noteFileCall(called, argument);
    if (called.name == "URLSessionDelegate.taskDidComplete") noteDelegateCall();
  } catch (const Violation& violation) {
    violation_.emplace(violation);
    application_->isDead = true;
    throw ProcessDeath();
  }
  Fate fate;
  if (happens(Kind::kDeathAfterCall, called.name)) {
    fate.after.push_back([this] {
      application_->isDead = true;
      throw ProcessDeath();
    });
  }
  return fate;
}

void World::noteFileCall(const test::Operation& called, const std::string& argument) {
  if (!called.name.starts_with("File")) return;
  filesWereTouched_ = true;
  constexpr std::string_view kQueue = "event-queue.json";
  if (!argument.starts_with(kQueue)) return;
  if (called.name == "FileManager.copyItem" || called.name == "FileManager.openForUpdating") {
    ledger_.queueIsRead(lane_, device_.files->bytesAtPath(Device::kQueueFile));
  } else if (called.name == "FileManager.fileExists" && lane_ == test::ScriptedURLSession::kQueueLabel) {
    ledger_.queueIsRead(lane_, device_.files->bytesAtPath(Device::kQueueFile));
  } else if (called.name == "FileManager.replaceItem") {
    constexpr std::string_view kWith = " with ";
    const std::string path = std::string(Device::kFolder) + "/tmp/" + argument.substr(kQueue.size() + kWith.size());
    if (auto bytes = device_.files->bytesAtPath(path)) ledger_.queueIsReplaced(lane_, std::move(bytes));
  } else if (called.name == "FileManager.removeItem" && device_.files->bytesAtPath(Device::kQueueFile)) {
    ledger_.queueIsReplaced(lane_, std::nullopt);
  }
}

/// Once for each upload, unless the application died between the beginning of the operation and its record.
void World::noteDelegateCall() {
  constexpr std::string_view kLane = "NSURLSession ";
  const auto upload = device_.uploads.find(lane_.substr(std::min(lane_.size(), kLane.size())));
  if (upload == device_.uploads.end()) return;  // it ended before it was durable
  if (upload->second.isRecorded) throw Violation("upload end", "the end of " + upload->first + " was handed over after its record");
  if (upload->second.begunIn == lives_)
    throw Violation("upload end", "the end of " + upload->first + " was handed over twice in one life");
  upload->second.begunIn = lives_;
}

}  // namespace simulation

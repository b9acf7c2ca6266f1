// The course of a world: choosing what happens next, looking after each step, and coming to rest.
#include "simulation/World.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "platform/linux/RapidJSONSerialization.h"
#include "support/TestProcess.h"

namespace simulation {
namespace {

constexpr std::uint64_t kStepsToRest = 30'000;
constexpr int kRoundsToRest = 120;

}  // namespace

World::World(std::uint64_t seed, bool isTold, Mutation mutation, Crew& crew)
    : mutation_(mutation),
      random_(seed),
      story_(isTold),
      swarm_(random_),
      ledger_(story_),
      server_(random_, story_, swarm_, ledger_),
      crew_(crew),
      wireScope_(wire_) {
  wire_.json = platform::makeRapidJSONSerialization();
  device_.files->setBytesAtPath(Device::kGif, "GIF89a of a cat");
  if (random_.chance(0.3)) leaveOldQueue();
  device_.files->synchronizeAll();
}

/// A queue file of earlier lives, some of it longer than one load takes, with lines that are no records.
void World::leaveOldQueue() {
  constexpr std::array<std::size_t, 3> kSizes{3000, 300'000, 1'200'000};
  const std::size_t size = kSizes[random_.below(kSizes.size())];
  const std::size_t longest = size / 50;
  std::string text;
  while (text.size() < size) {
    if (random_.chance(0.03)) text += "{\"event\":\"torn\n\n";
    text += R"({"event":"old","eventData":{"n":)" + std::to_string(ledger_.rememberEvent()) + R"(,"pad":")" +
            std::string(random_.below(longest), 'o') + R"("},"localTime":"2026-11-01T00:00:00.000Z"})" + "\n";
  }
  if (random_.chance(0.3)) text += "{\"event\":\"half";
  device_.files->setBytesAtPath(Device::kQueueFile, text);
  ledger_.beginWith(text);
  story_.add("the queue file of earlier lives has " + std::to_string(text.size()) + " bytes");
}

World::~World() {
  if (service_) {
    service_->isDead = true;
    buryService();
  }
  if (application_) {
    application_->isDead = true;
    buryApplication();
  }
}

bool World::happens(Kind kind, std::string_view what) {
  if (!random_.chance(swarm_.likelihood(kind))) return false;
  story_.fault(nameOf(kind), what);
  return true;
}

Result World::run() {
  Result result;
  try {
    live();
    comeToRest();
  } catch (const Violation& violation) {
    story_.add(std::string("VIOLATION ") + violation.what());
    result.oracle = violation.oracle;
    result.violation = violation.what();
  }
  result.hash = story_.hash();
  result.steps = steps_;
  result.calls = calls_;
  result.switches = switches_;
  result.records = ledger_.recorded();
  result.delivered = ledger_.acceptedCount();
  result.uploads = device_.uploads.size();
  result.lives = lives_;
  result.faults = story_.faults();
  result.paths = story_.paths();
  result.operations = operations_;
  result.tail.assign(story_.tail().begin(), story_.tail().end());
  return result;
}

void World::live() {
  startApplication(std::nullopt);
  for (std::uint64_t n = 0; n < swarm_.steps; ++n) {
    Choices choices;
    collectWork(choices);
    collectHost(choices);
    collectAccidents(choices);
    choices.push_back({0.3, [this] { letTimePass(random_.between(0, 20)); }});
    step(choices);
  }
}

void World::step(const Choices& choices) {
  story_.setStep(++steps_);
  double sum = 0;
  for (const Choice& choice : choices) sum += choice.weight;
  double drawn = random_.unit() * sum;
  for (const Choice& choice : choices) {
    drawn -= choice.weight;
    if (drawn < 0) return choice.act();
  }
  choices.back().act();
}

void World::look(const std::string& lane, bool hasEnded) {
  const bool isClients = lane == test::TestProcess::clientQueue() || lane == test::ScriptedURLSession::kQueueLabel;
  ledger_.observe({.lane = isClients ? lane : "", .hasBlockEnded = hasEnded, .queueFile = queueFile(), .memory = memoryIds()});
}

void World::collectWork(Choices& choices) {
  if (application_) {
    collectLanes(choices);
    collectRequests(choices);
    Application& app = *application_;
    if (app.browserSeen < app.browser->opened().size()) {
      choices.push_back({0.3, [this] {
                           story_.add("the browser answers");
                           const platform::Process::Scope scope(application_->process);
                           application_->browser->answer(application_->browserSeen++, random_.chance(0.5));
                         }});
    }
    if (app.isToExit && app.running.empty() && app.queues->pending() == 0) {
      choices.push_back({1, [this] {
                           killApplication("it was launched for events and has done its part");
                           buryApplication();
                         }});
    }
  }
  collectService(choices);
  collectLink(choices);
}

void World::collectHost(Choices& choices) {
  if (!application_) {
    choices.push_back({0.5, [this] { startApplication(std::nullopt); }});
    return;
  }
  for (std::size_t host = 0; host < Application::kHosts; ++host)
    choices.push_back({swarm_.hostActivity, [this, host] { hostDoes(host); }});
}

// One draw a step for each, so that its likelihood does not depend on what else could happen.
void World::collectAccidents(Choices& choices) {
  constexpr double kCertain = 1e9;
  const auto strikes = [this](Kind kind) { return random_.chance(swarm_.likelihood(kind)); };
  if (application_ && strikes(Kind::kKill)) {
    choices.push_back({kCertain, [this] {
                         story_.fault(nameOf(Kind::kKill));
                         killApplication("it is killed");
                         buryApplication();
                       }});
  }
  if (service_ && strikes(Kind::kServiceKill)) {
    choices.push_back({kCertain, [this] {
                         story_.fault(nameOf(Kind::kServiceKill));
                         killService("it is killed");
                       }});
  }
  if (application_ && application_->link->connection && strikes(Kind::kLinkBreaks))
    choices.push_back({kCertain, [this] { breakLink(); }});
  if (strikes(Kind::kPowerCut)) choices.push_back({kCertain, [this] { cutPower(); }});
  if (strikes(Kind::kClockJump)) {
    choices.push_back({kCertain, [this] {
                         constexpr std::array<double, 4> kFar{90, 7200, 9.0 * 86400, 3.2e8};
                         const double far = kFar[random_.below(kFar.size())] * (random_.chance(0.5) ? 1 : -1);
                         story_.fault(nameOf(Kind::kClockJump), std::to_string(static_cast<std::int64_t>(far)) + " s");
                         device_.clock->advance(far);
                       }});
  }
}

void World::letTimePass(double seconds) {
  story_.add("time goes by: " + std::to_string(static_cast<std::int64_t>(seconds * 1000)) + " ms");
  device_.clock->advance(seconds);
  server_.advance(seconds);
  if (application_) application_->queues->advanceTime(seconds);
}

// Rest.

/// False when nothing can happen any more; with `mayWait` time goes by until something can.
bool World::takeStep(bool mayWait) {
  Choices choices;
  collectWork(choices);
  if (choices.empty() && mayWait) {
    if (application_ && application_->queues->delayed() > 0) {
      choices.push_back({1, [this] { letTimePass(60); }});
    } else if (const auto deadline = service_ ? service_->service->nextDeadline() : std::nullopt) {
      const double wait = std::clamp(deadline->timeIntervalSinceDate(device_.clock->now()), 0.001, 30.0);
      choices.push_back({1, [this, wait] { letTimePass(wait); }});
    }
  }
  if (choices.empty()) return false;
  step(choices);
  return true;
}

void World::settle() {
  for (std::uint64_t n = 0; takeStep(false); ++n)
    if (n >= kStepsToRest) throw Violation("rest", "the world does not come to rest within " + std::to_string(n) + " steps");
}

bool World::isUploadRest() {
  return device_.spool.asides().empty() && device_.spool.names().empty() && device_.store->contents.sessions.empty() &&
         device_.store->contents.events.empty();
}

void World::comeToRest() {
  story_.add("THE FAULTS STOP");
  swarm_.quiet();
  for (int round = 0;; ++round) {
    if (round >= kRoundsToRest) break;
    if (!application_) startApplication(std::nullopt);
    settle();
    if (!application_) continue;
    if (ledger_.isSettled()) break;
    application_->hosts[0]->async([app = application_.get()] {
      if (app->facade) app->facade->flush();
    });
    settle();
  }
  ledger_.expectRest(application_ && application_->queues->pending(test::TestProcess::clientQueue()) == 0);

  // The uploads: applications come and go until every end is handed over.
  for (int round = 0; !isUploadRest() && round < kRoundsToRest; ++round) {
    if (application_) {
      settle();
      if (application_) {
        killApplication("its user quits it");
        buryApplication();
      }
    }
    if (!service_) startService();
    for (std::uint64_t n = 0; !application_ && takeStep(true) && !isUploadRest(); ++n)
      if (n >= kStepsToRest) throw Violation("rest", "the transfer service does not come to rest");
    for (std::uint64_t n = 0; application_ && takeStep(true); ++n)
      if (n >= kStepsToRest) throw Violation("rest", "the application does not come to rest after its launch");
  }
  if (!isUploadRest()) throw Violation("rest", "uploads are left with the transfer service");
  expectUploadsEndedOnce();
}

void World::expectUploadsEndedOnce() {
  for (const auto& [session, upload] : device_.uploads) {
    if (upload.ends != 1) throw Violation("upload end", session + " ended " + std::to_string(upload.ends) + " times");
    if (upload.begunIn == 0) throw Violation("upload end", "nobody was told of the end of " + session);
    if (!upload.isRecorded) throw Violation("upload end", "it was never recorded that the end of " + session + " was handed over");
  }
}

}  // namespace simulation

// The transfer service's side of a world: its lives, its inputs, the link to the application, and the tries of uploads.
#include <algorithm>
#include <exception>
#include <utility>

#include "simulation/World.h"

namespace simulation {

namespace {

class ServiceLog final : public platform::SystemLog {
 public:
  explicit ServiceLog(Story& story) : story_(story) {}
  void log(std::string_view message) override { story_.add("  service's system log: " + std::string(message)); }

 private:
  Story& story_;
};

std::string nameOfMessage(const std::string& text) { return text.substr(0, std::min<std::size_t>(text.find('\n'), 160)); }

}  // namespace

void World::startService() {
  story_.add("the transfer service starts");
  ProbedStore::Points points;
  points.before = [this](std::string_view operation) {
    return servicePoint("Store." + std::string(operation)) || happens(Kind::kStoreFails, operation);
  };
  points.after = [this](std::string_view operation) { (void)servicePoint("after Store." + std::string(operation)); };
  points.ended = [this](const std::string& session) {
    story_.add("  the end of " + session + " is stored");
    if (++device_.uploads[session].ends > 1) {
      violation_.emplace("upload end", "the end of " + session + " was recorded twice");
      service_->isDead = true;
      throw ProcessDeath();
    }
  };
  points.recorded = [this](const std::string& session) { device_.uploads[session].isRecorded = true; };
  points.forgetsEnd = [this] { return mutation_ == Mutation::kForgottenEnd && random_.chance(0.2); };
  service_ = std::make_unique<ServiceLife>(
      device_, ++serviceLives_, std::move(points), std::make_shared<ServiceLog>(story_),
      [this](transfer::ConnectionId connection, const transfer::Message& message) { serviceSends(connection, message); });
  device_.spool.fail = [this](std::string_view operation, const std::string&) -> std::optional<platform::Error> {
    (void)servicePoint("Spool." + std::string(operation));
    if (!happens(Kind::kSpoolFails, operation)) return std::nullopt;
    return platform::Error(platform::kCocoaErrorDomain, platform::kFileReadUnknown, "The spool cannot be read.");
  };
  service_->lastTick = server_.time();
  serviceInput("start", [this] {
    if (service_->service->start()) return;
    story_.add("  the service cannot read its store and ends");
    service_->isDead = true;
  });
}

void World::serviceInput(std::string name, std::function<void()> act) {
  service_->inputs.emplace_back(std::move(name), std::move(act));
}

/// A call of the service's surroundings: another block may run, or the service dies.
bool World::servicePoint(std::string_view operation) {
  if (!Crew::isMember()) return false;
  if (service_->isDead) throw ProcessDeath();
  ++calls_;
  ++operations_[std::string(operation)];
  story_.add("  service call: " + std::string(operation));
  if (random_.chance(swarm_.switchLikelihood)) {
    ++switches_;
    Crew::pause();
  }
  if (service_->isDead) throw ProcessDeath();
  if (happens(Kind::kServiceDeathAtCall, operation)) {
    service_->isDead = true;
    throw ProcessDeath();
  }
  return false;
}

void World::runService() {
  ServiceLife& life = *service_;
  lane_ = "transfer service";
  if (!life.running) {
    auto [name, act] = std::move(life.inputs.front());
    life.inputs.pop_front();
    story_.add("service: " + name);
    life.launcher.failure = happens(Kind::kLaunchFails) ? std::optional(test::MemoryTransferStore::fullDisk()) : std::nullopt;
    life.running = crew_.assign([this, what = std::move(act)] {
      try {
        what();
      } catch (const ProcessDeath&) {
        return;
      } catch (const std::exception& exception) {
        violation_.emplace("service", exception.what());
      }
    });
  }
  bool hasEnded = false;
  {
    const platform::Process::Scope scope(life.process);
    hasEnded = crew_.resume(life.running);
  }
  lane_.clear();
  if (hasEnded) life.running = nullptr;
  if (violation_) throw Violation(*violation_);
  if (life.isDead) return buryService();
  noteLaunches();
}

void World::noteLaunches() {
  ServiceLife& life = *service_;
  for (; life.launchesSeen < life.launcher.launches.size(); ++life.launchesSeen) {
    const std::string session = life.launcher.launches[life.launchesSeen].session;
    if (life.launcher.failure) continue;
    const transfer::ApplicationId id = life.launcher.launches[life.launchesSeen].application;
    if (!application_) {
      startApplication(session);
      continue;
    }
    // The program finds that it runs already: it passes the session on and ends.
    story_.add("the application is woken for " + session);
    wake(session);
    serviceInput("the launched program has ended", [this, id, session] { service_->service->launchEnded(id, session); });
  }
}

void World::killService(std::string_view how) {
  story_.add("the transfer service dies: " + std::string(how));
  service_->isDead = true;
  buryService();
}

void World::buryService() {
  story_.add("the transfer service is gone");
  if (service_->running) {
    const platform::Process::Scope scope(service_->process);
    while (!crew_.resume(service_->running)) {
    }
  }
  device_.spool.fail = nullptr;
  service_.reset();
  for (const auto& connection : connections_) {
    connection->isOpenThere = false;
    connection->toService.clear();
  }
  connections_.clear();
  launchToEnd_.reset();
}

void World::serviceSends(transfer::ConnectionId connection, const transfer::Message& message) {
  for (const auto& each : connections_)
    if (each->id == connection && each->isOpenHere) each->toApplication.push_back(message);
}

void World::collectService(Choices& choices) {
  if (!service_) return;
  ServiceLife& life = *service_;
  if (life.running || !life.inputs.empty()) {
    choices.push_back({4, [this] { runService(); }});
    return;
  }
  if (launchToEnd_ && !device_.store->contents.applications.empty()) {
    choices.push_back({2, [this] {
                         const transfer::ApplicationId id = device_.store->contents.applications.front().id;
                         const std::string session = *std::exchange(launchToEnd_, std::nullopt);
                         serviceInput("the launched program has ended",
                                      [this, id, session] { service_->service->launchEnded(id, session); });
                       }});
  }
  const auto deadline = life.service->nextDeadline();
  // The daemon looks that often whatever else happens, as the clock may have been set.
  constexpr double kLongestWait = 30;
  const bool isDue = (deadline && *deadline <= device_.clock->now()) || server_.time() - life.lastTick >= kLongestWait;
  if (isDue || !swarm_.isQuiet())
    choices.push_back({isDue ? 2.0 : 0.1, [this] {
                         service_->lastTick = server_.time();
                         serviceInput("tick", [this] { service_->service->tick(); });
                       }});
  for (std::size_t n = 0; n < std::min<std::size_t>(1, life.uploads.running().size()); ++n)
    choices.push_back({1, [this] { endTry(); }});
  if (life.service->mayEnd()) {
    choices.push_back({1, [this] {
                         story_.add("the transfer service has nothing to do and ends");
                         buryService();
                       }});
  }
}

void World::endTry() {
  const auto running = service_->uploads.running();
  const auto chosen = running[random_.below(running.size())];
  transfer::UploadOutcome outcome;
  if (device_.files->bytesAtPath(chosen.entry.file)) {
    outcome = server_.upload(chosen.entry);
  } else {
    story_.path("the file of an upload is not there");
    outcome.error = platform::Error(platform::kCocoaErrorDomain, platform::kFileReadNoSuchFile, "The file is not there.");
  }
  story_.add("a try of " + chosen.entry.session +
             " ends: " + (outcome.error ? outcome.error->localizedDescription() : std::to_string(outcome.statusCode)));
  serviceInput("a try has ended", [this, task = chosen.task, outcome] {
    if (service_->uploads.remove(task)) service_->service->uploadEnded(task, outcome);
  });
}

// The link.

void World::collectLink(Choices& choices) {
  if (service_) {
    for (const auto& connection : connections_) {
      if (!connection->toService.empty() || !connection->isOpenHere) {
        choices.push_back({3, [this] { deliverToService(); }});
        break;
      }
    }
  }
  if (!application_ || !application_->link->listener()) return;
  Link& link = *application_->link;
  if (!link.connection) {
    if (link.isWanted) choices.push_back({2, [this] { connect(); }});
    return;
  }
  if (!link.connection->toApplication.empty() || !link.connection->isOpenThere)
    choices.push_back({3, [this] { deliverToApplication(); }});
  else if (link.connection->isGreeted && link.connection->toService.empty() &&
           link.listener()->linkNeed() == platform::TransferLinkListener::Need::kNone)
    choices.push_back({1, [this] { closeHere(); }});
}

void World::connect() {
  if (!service_) return startService();
  auto connection = std::make_shared<Connection>();
  connection->id = ++lastConnection_;
  story_.add("connection " + std::to_string(connection->id) + " is made");
  connections_.push_back(connection);
  application_->link->connection = connection;
  application_->link->isWanted = false;
  serviceInput("connection opened", [this, id = connection->id] { service_->service->connectionOpened(id); });
  connection->toService.push_back(transfer::Hello{.application = applicationIdentity(), .launchCommand = {"/usr/bin/app"}});
}

void World::deliverToService() {
  const auto chosen =
      std::ranges::find_if(connections_, [](const auto& each) { return !each->toService.empty() || !each->isOpenHere; });
  const std::shared_ptr<Connection> connection = *chosen;
  if (connection->toService.empty()) {
    connections_.erase(chosen);
    connection->isOpenThere = false;
    serviceInput("connection closed", [this, id = connection->id] { service_->service->connectionClosed(id); });
    return;
  }
  const std::string text = encode(connection->toService.front());
  connection->toService.pop_front();
  const auto message = transfer::decode(text);
  if (!message) throw Violation("protocol", "the application says what is no message: " + message.error());
  serviceInput("message " + nameOfMessage(text),
               [this, id = connection->id, said = *message] { service_->service->messageArrived(id, said); });
}

void World::deliverToApplication() {
  Link& link = *application_->link;
  const auto listener = link.listener();
  Connection& connection = *link.connection;
  const platform::Process::Scope scope(application_->process);
  if (connection.toApplication.empty()) {
    closeHere();
    return;
  }
  const std::string text = encode(connection.toApplication.front());
  connection.toApplication.pop_front();
  story_.add("to the application: " + nameOfMessage(text));
  const auto message = transfer::decode(text);
  if (!message) throw Violation("protocol", "the service says what is no message: " + message.error());
  if (std::holds_alternative<transfer::Refused>(*message)) return closeHere();
  if (connection.isGreeted) return listener->linkReceived(*message);
  connection.isGreeted = true;
  listener->linkConnected();
}

void World::closeHere() {
  Link& link = *application_->link;
  const auto connection = std::exchange(link.connection, nullptr);
  connection->isOpenHere = false;
  story_.add("connection " + std::to_string(connection->id) + " is closed");
  const auto listener = link.listener();
  if (!listener) return;
  const platform::Process::Scope scope(application_->process);
  if (connection->isGreeted) listener->linkDisconnected();
  if (listener->linkNeed() == platform::TransferLinkListener::Need::kConnect) link.isWanted = true;
}

void World::breakLink() {
  story_.fault(nameOf(Kind::kLinkBreaks));
  Connection& connection = *application_->link->connection;
  const std::size_t arrives = random_.below(connection.toService.size() + 1);
  while (connection.toService.size() > arrives) connection.toService.pop_back();
  connection.toApplication.clear();
  closeHere();
}

}  // namespace simulation

// A whole world under one seed: an application with the client in it, its device, the network, the server and the transfer service.
//
// One step is one choice of the scheduler: a block goes on until it pauses at a call or ends, a message or an answer arrives, the
// host calls something, time goes by, or something goes wrong. After each step the oracles look. When the steps are over the faults
// stop, and the world must come to rest.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Process.h"
#include "simulation/Application.h"
#include "simulation/Crew.h"
#include "simulation/Device.h"
#include "simulation/Ledger.h"
#include "simulation/Mutation.h"
#include "simulation/Random.h"
#include "simulation/Server.h"
#include "simulation/Service.h"
#include "simulation/Story.h"
#include "simulation/Swarm.h"

namespace simulation {

struct Result {
  std::optional<std::string> oracle;  // the one that was broken
  std::string violation;
  std::uint64_t hash = 0;
  std::uint64_t steps = 0;
  std::uint64_t calls = 0;
  std::uint64_t switches = 0;  // in the middle of a block
  std::uint64_t records = 0;
  std::uint64_t delivered = 0;
  std::uint64_t uploads = 0;
  std::uint64_t lives = 0;
  std::map<std::string, std::uint64_t> faults;
  std::map<std::string, std::uint64_t> paths;
  std::map<std::string, std::uint64_t> operations;
  std::vector<std::string> tail;
};

class World {
 public:
  /// The crew may serve one world after another.
  World(std::uint64_t seed, bool isTold, Mutation mutation, Crew& crew);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  Result run();

 private:
  struct Choice {
    double weight;
    std::function<void()> act;
  };
  using Choices = std::vector<Choice>;

  bool happens(Kind kind, std::string_view what = {});

  // The course (World.cpp).
  void leaveOldQueue();
  void live();
  void step(const Choices& choices);
  bool takeStep(bool mayWait);
  void look(const std::string& lane, bool hasEnded);
  void collectWork(Choices& choices);
  void collectHost(Choices& choices);
  void collectAccidents(Choices& choices);
  void comeToRest();
  void settle();
  bool isUploadRest();
  void letTimePass(double seconds);
  void expectUploadsEndedOnce();

  // The application (WorldApplication.cpp).
  void startApplication(std::optional<std::string> session);
  void killApplication(std::string_view how);
  void buryApplication();
  void cutPower();
  void runLane(const std::string& lane);
  void noteEnd(const std::string& lane);
  void noteUncaught(const std::string& lane);
  void noteRequests(const std::string& lane);
  void collectLanes(Choices& choices);
  void collectRequests(Choices& choices);
  void hostDoes(std::size_t host);
  void record(std::size_t host);
  void upload();
  void share();
  void wake(const std::string& session);
  test::FaultPlan::Fate decide(const test::Operation& called, const std::string& argument);
  void pausePoint(std::string_view what);
  void expectAlive() const;
  void noteFileCall(const test::Operation& called, const std::string& argument);
  std::optional<test::FaultPlan::Fate> drawnFault(const test::Operation& called);
  void noteDelegateCall();
  std::optional<std::string> queueFile();
  Ids memoryIds();

  // The transfer service (WorldService.cpp).
  void startService();
  void killService(std::string_view how);
  void buryService();
  void runService();
  void serviceInput(std::string name, std::function<void()> act);
  bool servicePoint(std::string_view operation);
  void serviceSends(transfer::ConnectionId connection, const transfer::Message& message);
  void noteLaunches();
  void collectService(Choices& choices);
  void collectLink(Choices& choices);
  void connect();
  void deliverToService();
  void deliverToApplication();
  void breakLink();
  void closeHere();
  void endTry();

  const Mutation mutation_;
  Random random_;
  Story story_;
  Swarm swarm_;
  Ledger ledger_;
  Server server_;
  Device device_;
  Crew& crew_;

  platform::Process wire_;  // in force while no process runs: reads and writes what goes between them
  platform::Process::Scope wireScope_;

  std::unique_ptr<Application> application_;
  std::unique_ptr<ServiceLife> service_;
  std::vector<std::shared_ptr<Connection>> connections_;        // of the service that lives
  std::map<platform::String, platform::Value> defaultsBefore_;  // the user defaults when the present life began
  std::uint64_t lives_ = 0;
  std::uint64_t serviceLives_ = 0;
  transfer::ConnectionId lastConnection_ = 0;
  std::optional<std::string> launchToEnd_;  // the session of a launch whose process has ended
  std::optional<std::string> launched_;     // the session that the present application was launched for by the service

  std::string lane_;  // that runs
  bool isServiceRunning_ = false;
  bool filesWereTouched_ = true;
  std::optional<std::string> queueFile_;
  std::optional<Violation> violation_;
  std::uint64_t steps_ = 0;
  std::uint64_t calls_ = 0;
  std::uint64_t switches_ = 0;
  std::map<std::string, std::uint64_t> operations_;
};

}  // namespace simulation

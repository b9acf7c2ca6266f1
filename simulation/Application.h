// One life of the host application: a whole process record over doubles, with the real client in it, started as a host starts it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "companions/Kestrova.h"
#include "platform/Process.h"
#include "simulation/Crew.h"
#include "simulation/Device.h"
#include "simulation/Link.h"
#include "simulation/Mutation.h"
#include "support/FaultPlan.h"
#include "support/RecordingBrowserOpener.h"
#include "support/RecordingUncaughtException.h"
#include "support/ScriptedURLSession.h"
#include "support/SteppedQueues.h"

namespace simulation {

struct Application {
  static constexpr std::size_t kHosts = 2;  // threads of the host that call the SDK

  /// What the world does for an application.
  struct Hooks {
    test::FaultPlan::Decider decide;
    std::function<void(std::string_view)> log;    // the system log
    std::function<void(std::string_view)> trace;  // the debug trace
    std::function<void(std::string_view)> point;  // where the link is asked for
    std::function<bool(std::string_view)> spoolFails;
    std::function<void(const transfer::SpoolEntry&)> spoolWritten;
    std::function<bool()> mistakeHappens;
    std::function<void()> gap;
  };

  Application(Device& device, std::uint64_t number, std::optional<std::string> session, Mutation mutation, Hooks hooks);
  ~Application();
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  /// On a host thread: as a program's main does it.
  void start(std::int32_t queueLimit);
  std::shared_ptr<KSVData> client() const { return facade ? facade->data() : nullptr; }

  const std::uint64_t number;
  const std::optional<std::string> launchedFor;
  std::shared_ptr<test::RecordingUncaughtException> uncaught = std::make_shared<test::RecordingUncaughtException>();
  std::shared_ptr<test::SteppedQueues> queues;
  std::shared_ptr<test::ScriptedURLSession> session;
  std::shared_ptr<test::RecordingBrowserOpener> browser = std::make_shared<test::RecordingBrowserOpener>();
  std::shared_ptr<Link> link;
  platform::Process process;
  std::vector<std::shared_ptr<platform::DispatchQueue>> hosts;
  std::shared_ptr<Kestrova> facade;

  std::map<std::string, Crew::Member*> running;  // by lane
  bool isDead = false;
  std::set<std::string> mayCrashIn;  // lanes in which something happened that ends a process by an exception that nothing catches
  bool isToExit = false;
  std::size_t uncaughtSeen = 0;
  std::size_t browserSeen = 0;
  std::set<std::uint64_t> tasksSeen;                      // requests, by their numbers
  std::vector<std::optional<std::uint64_t>> completions;  // events requests, or none, whose outcomes wait for their block
};

}  // namespace simulation

// Putting an application together.
#include "simulation/Application.h"

#include <utility>

#include "companions/KSVDebugger.h"
#include "platform/linux/OpenSSLDigest.h"
#include "platform/linux/RapidJSONSerialization.h"
#include "support/FaultyServices.h"
#include "support/FixedBundle.h"
#include "support/FixedSecureRandom.h"
#include "support/KSVDataInspector.h"
#include "support/MemoryApplication.h"

namespace simulation {
namespace {

class StoryLog final : public platform::SystemLog {
 public:
  explicit StoryLog(std::function<void(std::string_view)> log) : log_(std::move(log)) {}
  void log(std::string_view message) override { log_(message); }

 private:
  const std::function<void(std::string_view)> log_;
};

}  // namespace

Application::Application(Device& device, std::uint64_t itsNumber, std::optional<std::string> itsSession, Mutation mutation,
                         Hooks hooks)
    : number(itsNumber),
      launchedFor(std::move(itsSession)),
      queues(std::make_shared<test::SteppedQueues>(uncaught)),
      session(std::make_shared<test::ScriptedURLSession>(*queues)),
      link(std::make_shared<Link>(hooks.point)) {
  process.systemLog = std::make_shared<StoryLog>(hooks.log);
  process.uncaughtException = uncaught;
  process.clock = device.clock;
  process.secureRandom = std::make_shared<test::FixedSecureRandom>(number);
  process.digest = std::make_shared<platform::OpenSSLDigest>();
  process.json = platform::makeRapidJSONSerialization();
  process.bundle = std::make_shared<test::FixedBundle>();
  process.fileManager = device.files;
  process.userDefaults = std::make_shared<test::MemoryUserDefaults>(device.defaults);
  process.queues = queues;
  process.application = std::make_shared<test::MemoryApplication>();
  process.urlSession = session;
  process.browserOpener = browser;

  platform::TransferSessions::Surroundings surroundings;
  surroundings.link = link;
  surroundings.spool = std::make_shared<Spool>(device, hooks.spoolFails, hooks.spoolWritten);
  surroundings.clock = device.clock;
  surroundings.queues = queues;
  platform::TransferSessions::Settings settings;
  settings.identifierOfLaunch = launchedFor;
  process.backgroundSessions = std::make_shared<platform::TransferSessions>(std::move(surroundings), std::move(settings));

  mutate(process, mutation, hooks.mistakeHappens, hooks.gap);
  const auto plan = std::make_shared<test::FaultPlan>();
  plan->decideBy(hooks.decide);
  test::makeFaulty(process, plan);
  for (std::size_t host = 0; host < kHosts; ++host) hosts.push_back(queues->makeSerialQueue("host " + std::to_string(host + 1)));

  const platform::Process::Scope scope(process);
  KSVDebugger::sharedDebugger()->setListener(hooks.trace);
}

Application::~Application() {
  const platform::Process::Scope scope(process);
  facade.reset();
  queues->dropAll();
}

void Application::start(std::int32_t queueLimit) {
  Kestrova::Configuration configuration;
  configuration.secret = test::TestProcess::kSecret;
  configuration.apiHost = test::TestProcess::kApiHost;
  configuration.debug = true;
  auto started = Kestrova::start(std::move(configuration));
  KSVDataInspector(started->data()).maxQueueSizeOnDiskInBytes() = queueLimit;
  facade = std::move(started);
}

}  // namespace simulation

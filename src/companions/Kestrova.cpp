// The facade: starting the SDK once in a process, and standing between the client and the host's delegate.
#include "companions/Kestrova.h"

#include <mutex>
#include <utility>

#include "client/KSVData.h"
#include "platform/Exception.h"
#include "platform/URL.h"

namespace {

using platform::ExternalConstants;
using platform::Process;

// The one facade of a process record.
struct Started {
  std::mutex starting;  // held through a start, never by a reader
  platform::Slot<std::shared_ptr<Kestrova>> facade;
};

bool isGiven(const std::optional<std::string>& text) { return text && !text->empty(); }

// The host name counts wherever it was given.
std::optional<std::string> givenHost(const Kestrova::Configuration& configuration) {
  if (isGiven(configuration.apiHost)) return configuration.apiHost;
  if (isGiven(configuration.constants.apiHost)) return configuration.constants.apiHost;
  const Process* process = Process::currentOrNull();
  return process && isGiven(process->constants.apiHost) ? process->constants.apiHost : std::nullopt;
}

// Without one there is nothing to talk to, and with an address in its place every request would fail, in silence and for good.
std::string requiredHost(const Kestrova::Configuration& configuration) {
  std::optional<std::string> host = givenHost(configuration);
  if (!host) throw platform::Exception(platform::kInvalidArgumentException, "Kestrova is started without an API host");
  if (!Kestrova::isAPIHost(*host))
    throw platform::Exception(platform::kInvalidArgumentException, "Kestrova is started with the API host \"" + *host +
                                                                       "\", which is no host name with an optional port");
  return *std::move(host);
}

Process& installedProcess(const Kestrova::Configuration& configuration) {
  if (!Process::currentOrNull()) Process::install(platform::makeSystemProcess(configuration.system));
  return Process::current();
}

// The first that was given, else what the record held before, else the default.
void fill(std::optional<std::string>& constant, std::initializer_list<std::optional<std::string>> given,
          const std::optional<std::string>& byDefault) {
  for (const std::optional<std::string>& text : given)
    if (isGiven(text)) {
      constant = text;
      return;
    }
  if (!isGiven(constant)) constant = byDefault;
}

void fillConstants(ExternalConstants& constants, const Kestrova::Configuration& configuration, std::string host) {
  const ExternalConstants& built = configuration.constants;
  const ExternalConstants defaults = Kestrova::defaultConstants();
  constants.apiHost = std::move(host);
  fill(constants.apiVersionString, {configuration.apiVersion, built.apiVersionString}, defaults.apiVersionString);
  fill(constants.sessionStartedKey, {built.sessionStartedKey}, defaults.sessionStartedKey);
  fill(constants.didCookieMatchKey, {built.didCookieMatchKey}, defaults.didCookieMatchKey);
  fill(constants.hawkLocalTimeSkew, {built.hawkLocalTimeSkew}, defaults.hawkLocalTimeSkew);
}

}  // namespace

std::shared_ptr<Kestrova> Kestrova::start(Configuration configuration) {
  if (std::shared_ptr<Kestrova> facade = shared()) return facade;
  std::string host = requiredHost(configuration);
  Process& process = installedProcess(configuration);
  const std::shared_ptr<Started> started = process.sharedInstance<Started>();
  std::lock_guard lock(started->starting);
  if (std::shared_ptr<Kestrova> facade = started->facade.load()) return facade;

  if (configuration.mainExecutor) process.queues->setMainExecutor(std::move(configuration.mainExecutor));
  if (configuration.browserOpener) process.browserOpener = std::move(configuration.browserOpener);
  fillConstants(process.constants, configuration, std::move(host));
  if (configuration.debug) process.debug.store(true, std::memory_order_relaxed);
  auto facade = std::make_shared<Kestrova>();
  facade->data_ = KSVData::initWithSecret(std::move(configuration.secret));
  if (facade->data_) facade->data_->setDelegate(facade);
  started->facade.store(facade);
  if (process.backgroundSessions) process.backgroundSessions->goOnWithInterruptedTransfers();
  return facade;
}

bool Kestrova::isAPIHost(std::string_view text) {
  // Those in brackets are an IPv6 literal's.
  constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._:[]";
  if (text.ends_with(':') || text.find_first_not_of(kLetters) != std::string_view::npos) return false;
  const auto url = platform::URL::URLWithString("https://" + std::string(text));
  return url && url->host() && !url->host()->empty() && url->port() != 0;
}

ExternalConstants Kestrova::defaultConstants() {
  return {.sessionStartedKey = "session-started",
          .didCookieMatchKey = "did-cookie-match",
          .hawkLocalTimeSkew = "KSVHawkLocalTimeSkew",
          .apiVersionString = "1",
          .apiHost = std::nullopt};
}

std::shared_ptr<Kestrova> Kestrova::shared() {
  Process* process = Process::currentOrNull();
  return process ? process->sharedInstance<Started>()->facade.load() : nullptr;
}

std::optional<std::string> Kestrova::sessionOfLaunch() {
  const Process* process = Process::currentOrNull();
  return process && process->backgroundSessions ? process->backgroundSessions->identifierOfLaunch() : std::nullopt;
}

bool Kestrova::debug() {
  const Process* process = Process::currentOrNull();
  return process && process->debug.load(std::memory_order_relaxed);
}

void Kestrova::setDebug(bool debug) { Process::current().debug.store(debug, std::memory_order_relaxed); }

void Kestrova::event(std::optional<std::string> name) {
  if (data_) data_->createEvent(std::move(name));
}

void Kestrova::event(std::optional<std::string> name, std::optional<platform::Dictionary> data) {
  if (data_) data_->createEventWithData(std::move(name), std::move(data));
}

void Kestrova::markNewSession() {
  if (data_) data_->markNewSession();
}

void Kestrova::flush() {
  if (data_) data_->sendEventQueueToServer();
}

void Kestrova::setUserId(const platform::Value& userId) {
  userId_.store(userId);
  if (const std::shared_ptr<KSVDelegate> delegate = delegate_.load().lock()) delegate->setUserId(userId);
}

void Kestrova::setAppIdentifier(const platform::Value& appIdentifier) {
  appIdentifier_.store(appIdentifier);
  if (const std::shared_ptr<KSVDelegate> delegate = delegate_.load().lock()) delegate->setAppIdentifier(appIdentifier);
}

void Kestrova::handleEventsFromServer(const platform::Value& notifications) {
  if (const std::shared_ptr<KSVDelegate> delegate = delegate_.load().lock()) delegate->handleEventsFromServer(notifications);
}

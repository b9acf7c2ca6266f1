// The one record behind every accessor of the platform: the services, shared instances, debug flag and constants of a process.
//
// FileManager::defaultManager(), DispatchQueue::mainQueue() and the like are one line over the current record. A host has one
// record for good. A test installs its own by scope and so can fail any call, stop the clock or step every queue by hand; a
// simulation makes one for each simulated process and switches them. This is the only hidden global of the system.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Application.h"
#include "platform/BackgroundURLSession.h"
#include "platform/BrowserOpener.h"
#include "platform/Bundle.h"
#include "platform/Data.h"
#include "platform/Date.h"
#include "platform/Digest.h"
#include "platform/DispatchQueue.h"
#include "platform/Export.h"
#include "platform/FileManager.h"
#include "platform/JSONSerialization.h"
#include "platform/SecureRandom.h"
#include "platform/SystemLog.h"
#include "platform/TraceSink.h"
#include "platform/URLSession.h"
#include "platform/UncaughtException.h"
#include "platform/UserDefaults.h"

namespace platform {

/// Texts that the host supplies once, before the first use; see companions/KSVConstants.h for what they mean.
struct KESTROVA_EXPORT ExternalConstants {
  std::optional<std::string> sessionStartedKey;
  std::optional<std::string> didCookieMatchKey;
  std::optional<std::string> hawkLocalTimeSkew;
  std::optional<std::string> apiVersionString;
  std::optional<std::string> apiHost;
};

class KESTROVA_EXPORT Process {
 public:
  Process() = default;
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  /// Ends the services in the reverse order of their declaration and joins their threads. Not from one of them.
  ~Process();

  /// The record in force; raises NSInternalInconsistencyException when none is installed.
  static Process& current();
  /// The record in force, or null.
  static Process* currentOrNull() noexcept;
  /// Puts a record in force for good; the host's way. Returns false, and drops the record, when there is one already.
  static bool install(std::unique_ptr<Process> process);

  /// Puts a record in force for a scope and the one before back after it.
  class Scope {
   public:
    explicit Scope(Process& process);
    ~Scope();
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

   private:
    Process* before_;
  };

  // Services. Later ones may use earlier ones; all are set before the record is put in force.
  std::shared_ptr<SystemLog> systemLog;
  std::shared_ptr<UncaughtException> uncaughtException;
  std::shared_ptr<Clock> clock;
  std::shared_ptr<SecureRandom> secureRandom;
  std::shared_ptr<Digest> digest;
  std::shared_ptr<DataService> data = std::make_shared<DataService>();
  std::shared_ptr<JSONSerialization> json;
  std::shared_ptr<Bundle> bundle;
  std::shared_ptr<FileManager> fileManager;
  std::shared_ptr<UserDefaults> userDefaults;
  std::shared_ptr<DispatchQueues> queues;
  std::shared_ptr<Application> application;
  std::shared_ptr<URLSession> urlSession;
  std::shared_ptr<BackgroundURLSessions> backgroundSessions;
  std::shared_ptr<BrowserOpener> browserOpener;
  std::shared_ptr<TraceSink> traceSink;  // may be null: nobody can watch then

  std::atomic<bool> debug{false};
  ExternalConstants constants;

  /// The process-wide instance of a class, made at its first use and never released while the record lives. Any thread.
  template <class T>
  std::shared_ptr<T> sharedInstance() {
    static const char kKey = 0;  // one address for each class
    std::lock_guard lock(sharedMutex_);
    for (const auto& [key, instance] : shared_)
      if (key == &kKey) return std::static_pointer_cast<T>(instance);
    auto instance = std::make_shared<T>();
    shared_.emplace_back(&kKey, instance);
    return instance;
  }

 private:
  std::mutex sharedMutex_;
  std::vector<std::pair<const void*, std::shared_ptr<void>>> shared_;
};

/// What a host decides about the real services.
struct KESTROVA_EXPORT SystemOptions {
  /// The main bundle's identifier; names the application's folder.
  std::optional<std::string> bundleIdentifier;
  /// Absolute path of the folder below which the application's own folder lies, instead of the user's data folder.
  std::optional<std::string> homeDirectory;
  /// How long a request may go without progress, in seconds.
  double requestTimeout = 60;
  /// The longest answer body that is taken, in bytes after decoding; a longer one ends with -1103.
  std::uint64_t maxResponseBytes = 16 * 1024 * 1024;
  /// Absolute path of the folder shared with the transfer service, instead of the user's.
  std::optional<std::string> transferDirectory = std::nullopt;
  /// Path of the program that is started when no transfer service answers, instead of what the environment's KESTROVA_TRANSFERD
  /// names, the one beside this program, or the one that PATH leads to.
  std::optional<std::string> transferServicePath = std::nullopt;
  /// The command, an absolute path first, that the transfer service launches this application with when uploads have ended and the
  /// application is not running. Empty: it is not launched, and hears of their end when it runs again.
  std::vector<std::string> launchCommand = {};  // NOLINT(readability-redundant-member-init): hosts name some members only
};

/// The real services of this machine. Starts no thread and touches no file. Defined by the platform that is built for.
KESTROVA_EXPORT std::unique_ptr<Process> makeSystemProcess(const SystemOptions& options);

}  // namespace platform

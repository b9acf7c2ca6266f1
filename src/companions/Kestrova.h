// The facade that a host application starts the SDK with.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "companions/KSVDelegate.h"
#include "platform/DispatchQueue.h"
#include "platform/Export.h"
#include "platform/Process.h"
#include "platform/Slot.h"
#include "platform/Value.h"

class KSVData;

/// One for the process. Any thread.
class KESTROVA_EXPORT Kestrova final : public KSVDelegate, public std::enable_shared_from_this<Kestrova> {
 public:
  /// What the client is started with.
  struct Configuration {
    /// The application's API secret. Without one nothing can be signed, and the server refuses what is sent.
    std::optional<std::string> secret;
    /// API host name, with `:port` where it is not 443. Required here or in `constants`.
    std::optional<std::string> apiHost;
    /// The version of the API; 1 when it is given nowhere.
    std::optional<std::string> apiVersion;
    /// Constants that the build supplies, as kestrovaGeneratedConstants() gives them; apiHost and apiVersion go before them. What
    /// is missing in both, the host apart, has a default.
    platform::ExternalConstants constants;
    /// Where the real services keep their state, and how long they wait.
    platform::SystemOptions system;
    /// Whether messages are formatted and stored in the trace.
    bool debug = false;
    /// Runs the main queue's blocks instead of a thread of the SDK's own.
    platform::DispatchQueues::Executor mainExecutor;
    /// Opens the cookie match in place of the system's browser; kept for the life of the process.
    std::shared_ptr<platform::BrowserOpener> browserOpener;
  };

  /// Installs the real services where no record is installed yet, fills the constants, and makes the one KSVData. Later calls
  /// return the same facade and change nothing. Raises NSInvalidArgumentException, before anything is installed, for a
  /// configuration without API host, or with one that is none, and NSInternalInconsistencyException for a mainExecutor that comes
  /// after the main queue's first block. Reads one small file, waits for no network.
  static std::shared_ptr<Kestrova> start(Configuration configuration);
  /// Whether the text can stand for the API's host: a host name or an address, with `:port` where it is not 443, and nothing else.
  static bool isAPIHost(std::string_view text);
  /// The constants that are used where neither the host nor the build gives others; there is no API host among them.
  static platform::ExternalConstants defaultConstants();
  /// The started facade, or null.
  static std::shared_ptr<Kestrova> shared();

  /// The background session for whose events this process was launched, for the client's handleEventsForBackgroundURLSession...;
  /// absent when it was started otherwise, and before the start.
  static std::optional<std::string> sessionOfLaunch();

  /// The debug flag of the process: whether messages are formatted and stored in the trace. False before the start; setting it then
  /// raises NSInternalInconsistencyException.
  static bool debug();
  static void setDebug(bool debug);

  /// The client itself, for what the facade does not hand on.
  const std::shared_ptr<KSVData>& data() const { return data_; }

  // What a host calls most, handed to the client. Any thread; none waits for a disk or a network.

  /// Reports an event, by name and, where there is more to say, with data.
  void event(std::optional<std::string> name);
  void event(std::optional<std::string> name, std::optional<platform::Dictionary> data);
  /// Begins a new session.
  void markNewSession();
  /// Starts a send of what waits.
  void flush();

  /// Who is told of what the server answers, after the facade has taken note of it; held weakly.
  void setDelegate(std::weak_ptr<KSVDelegate> delegate) { delegate_.store(std::move(delegate)); }

  /// What the server has given so far, absent before.
  std::optional<platform::Value> userId() const { return userId_.load(); }
  std::optional<platform::Value> appIdentifier() const { return appIdentifier_.load(); }

  /// For the client, whose delegate the facade is.
  void setUserId(const platform::Value& userId) override;
  void setAppIdentifier(const platform::Value& appIdentifier) override;
  void handleEventsFromServer(const platform::Value& notifications) override;

 private:
  std::shared_ptr<KSVData> data_;
  platform::Slot<std::weak_ptr<KSVDelegate>> delegate_;
  platform::Slot<std::optional<platform::Value>> userId_;
  platform::Slot<std::optional<platform::Value>> appIdentifier_;
};

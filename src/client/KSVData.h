// The client: turns events into records, keeps what could not be delivered, and talks to the API.
//
// One long-lived object, made by the facade. It takes no lock. The in-memory list and the reading of the queue file belong to its
// serial queue; outcomes of requests, and with them the writing of the queue file, belong to the URL session's completion queue.
// Queued blocks and completion handlers keep the client alive until they have run; the delegate is held weakly.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "companions/KSVDelegate.h"
#include "companions/KSVShare.h"
#include "platform/BackgroundURLSession.h"
#include "platform/Data.h"
#include "platform/Date.h"
#include "platform/DispatchQueue.h"
#include "platform/Error.h"
#include "platform/Export.h"
#include "platform/FileHandle.h"
#include "platform/Slot.h"
#include "platform/Timer.h"
#include "platform/URL.h"
#include "platform/URLRequest.h"
#include "platform/URLResponse.h"
#include "platform/Value.h"

class KSVHawkAuth;

/// Shares, in an order that whoever gives them says.
using KSVShares = std::vector<std::shared_ptr<const KSVShare>>;
/// Given the shares that the server knows, fresh ones; see KSVData::updateSharesFromServerWithCallback.
using KSVShareUpdateCallback = std::function<void(const KSVShares& updatedShares)>;

class KESTROVA_EXPORT KSVData final : public platform::URLSessionDelegate, public std::enable_shared_from_this<KSVData> {
 public:
  /// What the platform has called when a background session has come to its end.
  using CompletionHandler = std::function<void()>;
  /// Told whether the browser took the address of a cookie match in time.
  using CookieMatchCompletion = std::function<void(bool didComplete)>;

  /// The only constructor. A missing secret is kept as missing: nothing can be signed then. Makes the serial queue, takes the
  /// application's and the device's identifiers, begins the first session, and queues the sweep of old upload files. Sends nothing.
  /// Null when there is no memory for the object. Any thread.
  static std::shared_ptr<KSVData> initWithSecret(std::optional<std::string> secret);

  /// Who is told of what the server answers; held weakly, never kept alive. Any thread.
  std::shared_ptr<KSVDelegate> delegate() const { return delegate_.load().lock(); }
  void setDelegate(const std::shared_ptr<KSVDelegate>& delegate) { delegate_.store(delegate); }

  /// The platform's handler for a background URL session, until the session's end calls it. Any thread.
  CompletionHandler backgroundCompletionHandler() const;
  void setBackgroundCompletionHandler(CompletionHandler handler);

  /// Begins a new session: later events carry its identifier. Any thread.
  void markNewSession();
  /// Records one event. Copies what it must, submits one block and returns. An entry "sessionId" of the data replaces the current
  /// session identifier, an entry "localTime" the time of recording. An absent event name ends the process. Any thread.
  void createEvent(std::optional<std::string> event);
  void createEventWithData(std::optional<std::string> event, std::optional<platform::Dictionary> data);

  /// Starts a send of what waits on disk (a bounded share) and in memory. Returns at once; any thread.
  void sendEventQueueToServer();

  /// Registers a share with the server: at most two posts, no result, no later try. An absent share raises
  /// NSInvalidArgumentException. The share must not change until the outcome is there. Returns at once; any thread.
  void submitShare(std::shared_ptr<const KSVShare> share);
  /// Asks the server for the current form of the shares whose referral code has a user identifier, and gives the callback fresh
  /// ones, in the server's order; none on any failure. The callback runs once, on the URL session's completion queue, and not at
  /// all when there is nothing to ask for. An absent callback ends the process when its turn comes. Returns at once; any thread.
  void updateSharesFromServerWithCallback(const std::optional<KSVShares>& sharesToBeUpdated, KSVShareUpdateCallback callback);

  /// Sends data that became known only after a session had started, for the server to add to the session-started event. Tried once.
  /// Returns at once; any thread.
  void patchPreviousSessionStarted(const std::optional<platform::Dictionary>& eventData);
  /// Has KSVCookieMatch match this device with the browser's cookie; the handler is called where and as often as that service does.
  /// An absent handler ends the process then. Returns at once; any thread.
  void tryCookieMatchWithCompletion(CookieMatchCompletion completionBlock);

  /// Uploads a GIF file for a share through a background session of its own, which goes on when this process is gone. The file is
  /// hard linked and the upload made durable before this returns: the host may delete its file then. The outcome goes to the debug
  /// trace. An absent share is sent as what the platform prints for it. Any thread; touches the disk.
  void uploadGIFForShare(const std::optional<platform::URL>& gifUrl, const std::shared_ptr<const KSVShare>& share);
  /// To be called by a program that was launched for the events of a background session: ties the session to this client again and
  /// keeps the handler, in the place of an earlier one, until a session ends. Any thread.
  void handleEventsForBackgroundURLSessionCompletionHandler(const std::string& identifier, CompletionHandler completionHandler);

  /// Events of background sessions, on their delegate queues; called by the platform.
  void URLSessionTaskDidCompleteWithError(const platform::BackgroundURLSessionRef& session, const platform::URLSessionTaskRef& task,
                                          const std::optional<platform::Error>& error) override;
  void URLSessionDidBecomeInvalidWithError(const platform::BackgroundURLSessionRef& session,
                                           const std::optional<platform::Error>& error) override;
  void URLSessionDidFinishEventsForBackgroundURLSession(const platform::BackgroundURLSessionRef& session) override;
  void URLSessionDownloadTaskDidFinishDownloadingToURL(const platform::BackgroundURLSessionRef& session,
                                                       const platform::URLSessionTaskRef& downloadTask,
                                                       const platform::URL& location) override;

 private:
  friend struct KSVDataInspector;

  using Events = platform::Array;  // event records, oldest first

  KSVData() = default;
  void startWithSecret(std::optional<std::string> secret);

  // Start-up: where uploads live, and the sweep of those that were left behind.
  std::optional<platform::URL> uploadDirectory();
  void deleteOldUploadFiles();

  // Sessions and event records (client/): what an event becomes, on the serial queue.
  platform::String getNewSessionId();
  platform::Dictionary addEventWrappingWithData(const std::optional<std::string>& event, platform::Dictionary eventData);
  void addEventToQueue(std::optional<platform::Dictionary> data);

  // The queue file (queue/): every change is one atomic replacement.
  std::optional<platform::URL> jsonFileURL();
  void saveQueueToFile(const Events& queue);
  bool replaceEventQueueFromTempfile(const std::optional<platform::URL>& tempfileUrl);
  bool deleteFileAndLogAndIgnoreErrors(const std::optional<platform::URL>& fileToDelete);
  std::optional<Events> getSavedJsonData();
  void rewriteQueueWithoutHead(const std::optional<platform::URL>& targetFile, platform::FileHandle& fileHandle,
                               const platform::Data& unparsedBytes, std::uint64_t eventsRead);
  bool copyRestOfQueue(platform::FileHandle& fileHandle, platform::FileHandle& tempfileHandle,
                       const std::optional<platform::URL>& tempfileUrl);
  void truncateQueueOnDisk();

  // Authenticated requests (api/): the one request format of every endpoint.
  std::string getApiVersion();
  platform::URLRequest buildRequestForApi(const std::string& path);
  platform::URLRequest buildAuthenticatedRequestForDataPathData(const std::string& method, const std::string& path,
                                                                const platform::Data& data);
  std::optional<platform::URLRequest> buildAuthenticatedRequestPathBody(const std::string& method, const std::string& path,
                                                                        const platform::Dictionary& body);
  std::optional<std::string> authHeaderForDataRequest(const std::optional<platform::String>& payload,
                                                      const platform::URLRequest& request);
  KSVHawkAuth getHawkAuth();

  // Clock skew (api/): the stored correction and the corrected clock.
  bool setLocalSkew(const std::optional<std::string>& wwwAuthenticateHeader);
  platform::Date now();
  std::int64_t getLocalTimeSkew();
  platform::Date getSkewedLocalTime();

  // Event submission (api/): one batch, at most two posts, and what becomes of it.
  void sendEvents(Events events);
  void sendEventsAttempt(Events events, std::int32_t attemptNumber);
  void handleEventsOutcome(Events events, std::int32_t attemptNumber, const std::optional<platform::Data>& data,
                           const platform::HTTPURLResponseRef& response, const std::optional<platform::Error>& error);

  // Server directives (api/): what the answer tells the delegate and the feature switchboard.
  void interpretResponseData(const platform::Value& responseData);
  void registerNotifications(const platform::Value& notifications) const;

  // Share submission (shares/): at most two posts.
  void submitShareAttemptNumber(std::shared_ptr<const KSVShare> share, std::int32_t attemptNumber);
  void handleShareOutcome(std::shared_ptr<const KSVShare> share, std::int32_t attemptNumber,
                          const std::optional<platform::Data>& data, const platform::HTTPURLResponseRef& response,
                          const std::optional<platform::Error>& error);
  void handleSubmitShareResponse(const std::optional<platform::Data>& response) const;

  // GIF upload (upload/): one session, one hard link and one signature for each.
  void uploadGIFForShareWithSessionConfiguration(const std::optional<platform::URL>& gifUrl,
                                                 const std::shared_ptr<const KSVShare>& share,
                                                 const platform::URLSessionConfiguration& sessionConfiguration);
  platform::URLRequest buildUploadRequestForShare(const std::shared_ptr<const KSVShare>& share);
  std::optional<platform::URL> createUploadHardLinkForSessionConfiguration(const platform::URL& sourceFile,
                                                                           const platform::URLSessionConfiguration& configuration);
  std::optional<platform::URL> uploadFileForSessionConfiguration(const platform::URLSessionConfiguration& configuration);

  // Background sessions (upload/): their end, the relaunch, the indicator.
  void endBackgroundSession(const platform::BackgroundURLSessionRef& session);
  static void resumeTaskInSession(const platform::BackgroundURLSessionRef& session);
  static void startNetworkActivitySpinner();
  static void removeNetworkActivitySpinner();

  // Limits. The integers never change after start-up.
  std::int32_t newEventsInMemory = 0;          // records in memory at which a send starts
  std::int32_t maxQueueSizeOnDiskInBytes = 0;  // soft limit of the queue file
  [[maybe_unused]] std::int32_t retryTimeout = 0;

  // Identity. Only the session changes after start-up.
  std::optional<std::string> appSecret;
  platform::Slot<std::optional<platform::String>> sessionId;
  std::optional<std::string> deviceId;

  [[maybe_unused]] std::shared_ptr<platform::Timer> retryTimer;
  [[maybe_unused]] std::shared_ptr<platform::Array> sendQueue;

  std::optional<std::string> appRDNS;  // the host application's reverse-DNS identifier

  platform::Array diskCacheQueue;  // records not yet handed to a send; in memory, touched on diskCacheAccessQueue only
  std::shared_ptr<platform::DispatchQueue> diskCacheAccessQueue;

  platform::Slot<std::weak_ptr<KSVDelegate>> delegate_;
  platform::Slot<std::shared_ptr<const CompletionHandler>> backgroundCompletionHandler_;
};

// Tests' way into the client: its private fields, and its private operations under their own names.
//
//     KSVDataInspector inspect(client);
//     inspect.saveQueueToFile(records);
//     EXPECT_EQ(inspect.newEventsInMemory(), 10);
//
// What belongs to the client's serial queue is to be touched only while no block of it runs.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "client/KSVData.h"
#include "companions/KSVHawkAuth.h"

struct KSVDataInspector {
  std::shared_ptr<KSVData> client;

  explicit KSVDataInspector(std::shared_ptr<KSVData> inspected) : client(std::move(inspected)) {}

  // Fields. References, so that a test can set them.
  std::int32_t& newEventsInMemory() { return client->newEventsInMemory; }
  std::int32_t& maxQueueSizeOnDiskInBytes() { return client->maxQueueSizeOnDiskInBytes; }
  std::int32_t& retryTimeout() { return client->retryTimeout; }
  std::optional<std::string>& appSecret() { return client->appSecret; }
  std::optional<std::string>& deviceId() { return client->deviceId; }
  std::optional<std::string>& appRDNS() { return client->appRDNS; }
  platform::Array& diskCacheQueue() { return client->diskCacheQueue; }
  std::shared_ptr<platform::DispatchQueue>& diskCacheAccessQueue() { return client->diskCacheAccessQueue; }
  std::optional<platform::String> sessionId() { return client->sessionId.load(); }
  void setSessionId(std::optional<platform::String> sessionId) { client->sessionId.store(std::move(sessionId)); }
  bool hasRetryTimer() { return client->retryTimer != nullptr; }
  bool hasSendQueue() { return client->sendQueue != nullptr; }

  // Start-up.
  std::optional<platform::URL> uploadDirectory() { return client->uploadDirectory(); }
  void deleteOldUploadFiles() { client->deleteOldUploadFiles(); }

  // Sessions and event records.
  platform::String getNewSessionId() { return client->getNewSessionId(); }
  platform::Dictionary addEventWrappingWithData(const std::optional<std::string>& event, platform::Dictionary eventData) {
    return client->addEventWrappingWithData(event, std::move(eventData));
  }
  void addEventToQueue(std::optional<platform::Dictionary> data) { client->addEventToQueue(std::move(data)); }

  // The queue file.
  std::optional<platform::URL> jsonFileURL() { return client->jsonFileURL(); }
  void saveQueueToFile(const platform::Array& queue) { client->saveQueueToFile(queue); }
  bool replaceEventQueueFromTempfile(const std::optional<platform::URL>& tempfileUrl) {
    return client->replaceEventQueueFromTempfile(tempfileUrl);
  }
  bool deleteFileAndLogAndIgnoreErrors(const std::optional<platform::URL>& fileToDelete) {
    return client->deleteFileAndLogAndIgnoreErrors(fileToDelete);
  }
  std::optional<platform::Array> getSavedJsonData() { return client->getSavedJsonData(); }
  void truncateQueueOnDisk() { client->truncateQueueOnDisk(); }

  // Authenticated requests.
  std::string getApiVersion() { return client->getApiVersion(); }
  platform::URLRequest buildRequestForApi(const std::string& path) { return client->buildRequestForApi(path); }
  platform::URLRequest buildAuthenticatedRequestForDataPathData(const std::string& method, const std::string& path,
                                                                const platform::Data& data) {
    return client->buildAuthenticatedRequestForDataPathData(method, path, data);
  }
  std::optional<platform::URLRequest> buildAuthenticatedRequestPathBody(const std::string& method, const std::string& path,
                                                                        const platform::Dictionary& body) {
    return client->buildAuthenticatedRequestPathBody(method, path, body);
  }
  std::optional<std::string> authHeaderForDataRequest(const std::optional<platform::String>& payload,
                                                      const platform::URLRequest& request) {
    return client->authHeaderForDataRequest(payload, request);
  }
  KSVHawkAuth getHawkAuth() { return client->getHawkAuth(); }

  // Clock skew.
  bool setLocalSkew(const std::optional<std::string>& wwwAuthenticateHeader) { return client->setLocalSkew(wwwAuthenticateHeader); }
  platform::Date now() { return client->now(); }
  std::int64_t getLocalTimeSkew() { return client->getLocalTimeSkew(); }
  platform::Date getSkewedLocalTime() { return client->getSkewedLocalTime(); }

  // Event submission.
  void sendEvents(platform::Array events) { client->sendEvents(std::move(events)); }
  void sendEventsAttempt(platform::Array events, std::int32_t attemptNumber) {
    client->sendEventsAttempt(std::move(events), attemptNumber);
  }

  // Server directives.
  void interpretResponseData(const platform::Value& responseData) { client->interpretResponseData(responseData); }
  void registerNotifications(const platform::Value& notifications) { client->registerNotifications(notifications); }

  // Shares.
  void submitShareAttemptNumber(std::shared_ptr<const KSVShare> share, std::int32_t attemptNumber) {
    client->submitShareAttemptNumber(std::move(share), attemptNumber);
  }
  void handleSubmitShareResponse(const std::optional<platform::Data>& response) { client->handleSubmitShareResponse(response); }

  // Uploads.
  void uploadGIFForShareWithSessionConfiguration(const std::optional<platform::URL>& gifUrl,
                                                 const std::shared_ptr<const KSVShare>& share,
                                                 const platform::URLSessionConfiguration& configuration) {
    client->uploadGIFForShareWithSessionConfiguration(gifUrl, share, configuration);
  }
  std::optional<platform::URL> createUploadHardLinkForSessionConfiguration(const platform::URL& sourceFile,
                                                                           const platform::URLSessionConfiguration& configuration) {
    return client->createUploadHardLinkForSessionConfiguration(sourceFile, configuration);
  }
  std::optional<platform::URL> uploadFileForSessionConfiguration(const platform::URLSessionConfiguration& configuration) {
    return client->uploadFileForSessionConfiguration(configuration);
  }

  // Background sessions.
  void endBackgroundSession(const platform::BackgroundURLSessionRef& session) { client->endBackgroundSession(session); }
  void resumeTaskInSession(const platform::BackgroundURLSessionRef& session) { client->resumeTaskInSession(session); }
  void startNetworkActivitySpinner() { client->startNetworkActivitySpinner(); }
  void removeNetworkActivitySpinner() { client->removeNetworkActivitySpinner(); }
};

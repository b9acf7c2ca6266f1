// Start-up of the client: its defaults, its identity, its queue, and the sweep of old upload files.
#include <new>
#include <utility>

#include "client/KSVData.h"
#include "companions/KSVConstants.h"
#include "companions/KSVIdentityStorage.h"
#include "companions/KSVUtils.h"
#include "platform/Bundle.h"

std::shared_ptr<KSVData> KSVData::initWithSecret(std::optional<std::string> secret) {
  std::shared_ptr<KSVData> client(new (std::nothrow) KSVData);
  if (!client) return nullptr;
  client->startWithSecret(std::move(secret));
  return client;
}

void KSVData::startWithSecret(std::optional<std::string> secret) {
  appSecret = std::move(secret);
  newEventsInMemory = 10;
  maxQueueSizeOnDiskInBytes = 1048576;
  retryTimeout = 5;
  diskCacheQueue = platform::Array();
  diskCacheAccessQueue = platform::DispatchQueue::serialQueueWithLabel(std::string(kSDKReverseDNSPrefix) + ".DiskCacheQueueAccess");
  appRDNS = platform::Bundle::mainBundle().bundleIdentifier();
  if (!appRDNS) appRDNS = std::string(kSDKReverseDNSPrefix) + ".test";
  deviceId = KSVIdentityStorage().identifier().UUIDString();
  sessionId.store(getNewSessionId());
  deleteOldUploadFiles();
}

std::optional<platform::URL> KSVData::uploadDirectory() { return KSVUtils::createDirectoryInApplicationSupport("uploads"); }

void KSVData::deleteOldUploadFiles() {
  platform::DispatchQueue::globalBackgroundQueue()->async([self = shared_from_this()] {
    constexpr double kDay = 86400;  // seconds
    const platform::Date cutOff = platform::Date::date().dateByAddingTimeInterval(-8 * kDay);
    KSVUtils::deleteFilesOlderThanInDirectory(cutOff, self->uploadDirectory());
  });
}

// Uploading one GIF for one share, through a background session of its own.
//
// What is uploaded is a hard link in the client's own folder, named after the session, so that the host may delete its file, and so
// that the link is found again from the session alone after a relaunch. The signature is made once, here; the service may send the
// request much later.
#include <utility>

#include "client/KSVData.h"
#include "companions/KSVConstants.h"
#include "companions/KSVDebugger.h"
#include "platform/FileManager.h"
#include "platform/Format.h"
#include "platform/UUID.h"

using platform::URLSessionConfiguration;

void KSVData::uploadGIFForShare(const std::optional<platform::URL>& gifUrl, const std::shared_ptr<const KSVShare>& share) {
  std::string backgroundIdentifier = std::string(kSDKReverseDNSPrefix) + ".GifUpload-" + platform::UUID::randomUUID().UUIDString();
  uploadGIFForShareWithSessionConfiguration(
      gifUrl, share, URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(std::move(backgroundIdentifier)));
}

void KSVData::uploadGIFForShareWithSessionConfiguration(const std::optional<platform::URL>& gifUrl,
                                                        const std::shared_ptr<const KSVShare>& share,
                                                        const URLSessionConfiguration& sessionConfiguration) {
  if (!gifUrl) {
    debugTrace("Error: Couldn't upload gif, gif file url = nil");
    return;
  }
  const std::optional<platform::URL> gifInUploadDirectoryURL =
      createUploadHardLinkForSessionConfiguration(*gifUrl, sessionConfiguration);
  if (!gifInUploadDirectoryURL) return;
  startNetworkActivitySpinner();

  // Signed before the session is made: the time of the signature is that of the start.
  platform::URLRequest request = buildUploadRequestForShare(share);
  const auto session = platform::BackgroundURLSession::sessionWithConfigurationDelegateDelegateQueue(sessionConfiguration,
                                                                                                     shared_from_this(), nullptr);
  const auto task = session->uploadTaskWithRequestFromFile(std::move(request), *gifInUploadDirectoryURL);
  debugTrace("Starting GIF upload: %@", session->configuration().identifier());
  task->resume();
}

platform::URLRequest KSVData::buildUploadRequestForShare(const std::shared_ptr<const KSVShare>& share) {
  const std::optional<std::string> shareId = share && share->referralCode ? share->referralCode->shareId : std::nullopt;
  platform::URLRequest request = buildRequestForApi(platform::stringWithFormat("/gifs?shareId=%@", {shareId}));
  request.setHTTPMethod("POST");
  request.addValueForHTTPHeaderField("image/gif", "Content-Type");
  request.setValueForHTTPHeaderField(authHeaderForDataRequest(std::nullopt, request), "Authorization");
  return request;
}

std::optional<platform::URL> KSVData::createUploadHardLinkForSessionConfiguration(const platform::URL& sourceFile,
                                                                                  const URLSessionConfiguration& configuration) {
  std::optional<platform::URL> fileInUploadDirectoryURL = uploadFileForSessionConfiguration(configuration);
  const auto linked = platform::FileManager::defaultManager().linkItemAtURLToURL(sourceFile, fileInUploadDirectoryURL);
  if (linked) return fileInUploadDirectoryURL;
  debugTrace("Failed to create hardlink to file to upload: %@", linked.error().localizedDescription());
  return std::nullopt;
}

std::optional<platform::URL> KSVData::uploadFileForSessionConfiguration(const URLSessionConfiguration& configuration) {
  const std::optional<platform::URL> directory = uploadDirectory();
  if (!directory) return std::nullopt;
  return directory->URLByAppendingPathComponent(configuration.identifier());
}

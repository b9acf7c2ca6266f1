// An expected failure: domain, code and texts, as the error out-parameters of the originals carry them.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Export.h"

namespace platform {

inline constexpr const char* kCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr const char* kPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr const char* kURLErrorDomain = "NSURLErrorDomain";

/// Codes of kCocoaErrorDomain (platform rows F3, J4 and J7).
enum CocoaErrorCode : std::int64_t {
  kFileNoSuchFile = 4,
  kFileReadUnknown = 256,
  kFileReadNoPermission = 257,
  kFileReadNoSuchFile = 260,
  kFileWriteUnknown = 512,
  kFileWriteNoPermission = 513,
  kFileWriteFileExists = 516,
  kFileWriteOutOfSpace = 640,
  kFileWriteVolumeReadOnly = 642,
  kPropertyListReadCorrupt = 3840,
  kPropertyListWriteInvalid = 3852,
};

/// Codes of kURLErrorDomain (platform row U8).
enum URLErrorCode : std::int64_t {
  kURLErrorCancelled = -999,
  kURLErrorBadURL = -1000,
  kURLErrorTimedOut = -1001,
  kURLErrorUnsupportedURL = -1002,
  kURLErrorCannotFindHost = -1003,
  kURLErrorCannotConnectToHost = -1004,
  kURLErrorNetworkConnectionLost = -1005,
  kURLErrorHTTPTooManyRedirects = -1007,
  kURLErrorNotConnectedToInternet = -1009,
  kURLErrorAppTransportSecurityRequiresSecureConnection = -1022,
  kURLErrorDataLengthExceedsMaximum = -1103,
  kURLErrorSecureConnectionFailed = -1200,
  kURLErrorServerCertificateHasBadDate = -1201,
  kURLErrorServerCertificateUntrusted = -1202,
};

class KESTROVA_EXPORT Error {
 public:
  /// An empty description stands for "no text of its own" and is replaced by the generic text (platform row U9).
  Error(std::string domain, std::int64_t code, std::string localizedDescription = {}, std::string debugDescription = {},
        std::shared_ptr<const Error> underlyingError = nullptr);

  const std::string& domain() const { return domain_; }
  std::int64_t code() const { return code_; }
  const std::string& localizedDescription() const { return localizedDescription_; }
  /// Detail for engineers, such as the position of a JSON mistake; never shown to people.
  const std::string& debugDescription() const { return debugDescription_; }
  /// The cause, such as the system's own error number in kPOSIXErrorDomain; may be null.
  const std::shared_ptr<const Error>& underlyingError() const { return underlyingError_; }

 private:
  std::string domain_;
  std::int64_t code_;
  std::string localizedDescription_;
  std::string debugDescription_;
  std::shared_ptr<const Error> underlyingError_;
};

/// What an operation sent to an error that may be absent yields: its text, or absent.
inline std::optional<std::string> localizedDescription(const std::optional<Error>& error) {
  return error ? std::optional(error->localizedDescription()) : std::nullopt;
}

/// An error of kURLErrorDomain with the text that belongs to its code; `host` is quoted where the text names one.
Error urlError(std::int64_t code, std::string_view host = {});

}  // namespace platform

// Who this application is to the transfer service: its identifier, its folder, and a token that only its folder holds.
//
// The token is a file of 64 hexadecimal digits, `transfer-token`, mode 0600, made at the first use and never changed. It tells the
// service that two programs with one identifier are one application, and keeps others from taking its name. A token file that is
// another user's, or no plain file, is not taken; a mode that lets others read it is tightened.
#pragma once

#include <expected>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/Error.h"
#include "platform/Process.h"
#include "platform/SecureRandom.h"
#include "platform/linux/ApplicationFolder.h"
#include "transfer/protocol/Messages.h"

namespace platform {

class TransferIdentity {
 public:
  /// Touches no file.
  TransferIdentity(const SystemOptions& options, std::shared_ptr<SecureRandom> random);

  /// Reads the token, or makes it, the first time. Fails with an error of the file rules. Any thread.
  std::expected<transfer::ApplicationIdentity, Error> identity();
  /// The application's own folder; absent when there is no home.
  std::optional<std::string> folder() const { return folder_.path(); }

 private:
  std::expected<std::string, Error> readToken(const std::string& path) const;
  std::expected<void, Error> makeToken(const std::string& folder, const std::string& path) const;

  const std::string identifier_;
  const ApplicationFolder folder_;
  const std::shared_ptr<SecureRandom> random_;
  std::mutex mutex_;  // held while the token is read or made
  std::optional<transfer::ApplicationIdentity> identity_;
};

}  // namespace platform

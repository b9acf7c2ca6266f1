// How the service comes to be the only one of its user, and how another process finds out whether it answers.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <expected>
#include <optional>

#include "platform/Error.h"
#include "platform/linux/FileDescriptor.h"
#include "platform/linux/TransferDirectory.h"

namespace transfer {

/// How long one that starts waits for one that ends, and who asks for an answer.
inline constexpr std::chrono::seconds kStartLimit{30};

/// The process that answers on the folder's socket; absent when none does.
std::optional<pid_t> answeringService(const platform::TransferDirectory& directory);
/// As above, waiting for it up to the limit.
std::optional<pid_t> waitForService(const platform::TransferDirectory& directory);

/// The folder's lock, held as long as the descriptor is open; a closed descriptor when another service has it and answers. Waits
/// for one that neither answers nor ends, as it is starting or ending, and fails when it still does neither at the limit.
std::expected<platform::FileDescriptor, platform::Error> takeLock(const platform::TransferDirectory& directory);

}  // namespace transfer

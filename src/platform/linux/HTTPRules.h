// What URL loading decides without a wire: which requests are refused, and which answers are redirects to follow.
#pragma once

#include <expected>
#include <optional>

#include "platform/Error.h"
#include "platform/URLRequest.h"
#include "platform/URLResponse.h"

namespace platform {

/// Why a request cannot be sent at all: no URL or a scheme that is not served (-1002), plain HTTP (-1022), no host or a method that
/// is no token (-1000). Absent when it can.
std::optional<Error> refusalOfRequest(const URLRequest& request);

/// The request that an answer redirects to (platform rows U4 and U5); absent when the answer is to be handed over as it is, and an
/// error when the target may not be loaded.
std::optional<std::expected<URLRequest, Error>> redirection(const URLRequest& request, const HTTPURLResponse& response);

inline constexpr int kMaxRedirects = 20;

}  // namespace platform

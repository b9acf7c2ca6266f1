// Message digests by OpenSSL.
//
// The library is set up at the first digest, which takes about a millisecond, and never when the service is made: whoever hashes
// first should not be a thread that the host waits for. Algorithms are fetched once for the process and each thread keeps contexts
// of its own.
#pragma once

#include "platform/Digest.h"

namespace platform {

class OpenSSLDigest final : public Digest {
 public:
  Data hash(Algorithm algorithm, std::initializer_list<std::string_view> parts) override;
  Data hmac(Algorithm algorithm, std::string_view key, std::initializer_list<std::string_view> parts) override;
  bool constantTimeEqual(std::string_view a, std::string_view b) override;
};

/// Sets the library up so that it leaves the process's exit alone: without this it frees its tables in an exit handler, under the
/// hands of threads that still hash or encrypt. To be called before anything else uses the library. Any thread, any number of
/// times.
void initializeOpenSSL();

}  // namespace platform

// Message digests and their keyed form (FIPS 180-4, RFC 2104).
#pragma once

#include <initializer_list>
#include <string_view>

#include "platform/Data.h"
#include "platform/Export.h"

namespace platform {

class KESTROVA_EXPORT Digest {
 public:
  enum class Algorithm { kSHA256, kSHA384, kSHA512 };

  static Digest& digests();
  virtual ~Digest() = default;

  /// The digest of the parts joined. Any thread; raises NSInternalInconsistencyException if the library cannot do it.
  virtual Data hash(Algorithm algorithm, std::initializer_list<std::string_view> parts) = 0;
  /// HMAC of the parts joined, keyed with `key`. As hash.
  virtual Data hmac(Algorithm algorithm, std::string_view key, std::initializer_list<std::string_view> parts) = 0;
  /// Equality of two texts in a time that depends on their lengths alone.
  virtual bool constantTimeEqual(std::string_view a, std::string_view b) = 0;
};

}  // namespace platform

// Who signs, with what: the credentials of the Hawk HTTP authentication scheme.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

enum KSVCryptoAlgorithm : std::uint64_t {
  KSVCryptoAlgorithmSHA256 = 0,
  KSVCryptoAlgorithmSHA384 = 1,
  KSVCryptoAlgorithmSHA512 = 2,
};

/// Read-only after construction.
class KSVHawkCredentials {
 public:
  static std::shared_ptr<KSVHawkCredentials> initWithHawkIdWithKeyWithAlgorithm(std::optional<std::string> hawkId,
                                                                                std::optional<std::string> key,
                                                                                KSVCryptoAlgorithm algorithm) {
    return std::make_shared<KSVHawkCredentials>(std::move(hawkId), std::move(key), algorithm);
  }

  KSVHawkCredentials(std::optional<std::string> hawkId, std::optional<std::string> key, KSVCryptoAlgorithm algorithm)
      : hawkId_(std::move(hawkId)), key_(std::move(key)), algorithm_(algorithm) {}

  const std::optional<std::string>& hawkId() const { return hawkId_; }
  const std::optional<std::string>& key() const { return key_; }
  KSVCryptoAlgorithm algorithm() const { return algorithm_; }

 private:
  std::optional<std::string> hawkId_;
  std::optional<std::string> key_;
  KSVCryptoAlgorithm algorithm_;
};

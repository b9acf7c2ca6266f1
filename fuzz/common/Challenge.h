// Server times that a client believes: their MAC under the tests' secret, made without the client's code.
#pragma once

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>
#include <string>
#include <string_view>

#include "support/TestProcess.h"

namespace fuzz {

/// In base64, as a challenge's tsm has it.
inline std::string macOver(std::string_view time) {
  const std::string text = "hawk.1.ts\n" + std::string(time) + "\n";
  const std::string_view key = test::TestProcess::kSecret;
  std::array<unsigned char, EVP_MAX_MD_SIZE> mac{};
  unsigned length = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(text.data()), text.size(),
       mac.data(), &length);
  std::string base64(4 * ((std::size_t{length} + 2) / 3) + 1, '\0');
  base64.resize(static_cast<std::size_t>(
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(base64.data()), mac.data(), static_cast<int>(length))));
  return base64;
}

/// The header with the MAC over the time in the place of each '@'.
inline std::string withMac(std::string_view header, std::string_view time) {
  std::string text;
  for (const char c : header) text += c == '@' ? macOver(time) : std::string(1, c);
  return text;
}

}  // namespace fuzz

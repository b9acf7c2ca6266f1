// Why a signature was good or not, told step by step to a person: what came beside what the server has computed.
//
// It holds what a client can compare and nothing that lets anybody sign: no key, and no MAC, neither one that came nor one that was
// computed.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "devserver/HawkVerifier.h"
#include "platform/Value.h"

namespace devserver {

/// A request that has been judged.
struct Judged {
  std::string_view method;
  std::string_view target;
  std::string_view host;
  std::string_view contentType;
  std::optional<std::string_view> authorization;
  std::string_view verdict;         // "ok", or why it was refused
  bool isSigned = false;            // the MAC was computed, and is right
  std::optional<std::string> hash;  // of the body that came; absent when it was not read, or is not signed
  std::size_t bodyBytes = 0;
  bool isUpload = false;                 // signed by its header alone
  bool isRepeatable = false;             // an upload whose signature is good for days, until it was taken once
  std::chrono::milliseconds serverTime;  // when it was judged, by the clock that it was judged with
  std::string firstUse;                  // when the nonce was used up before; empty where that is not known
};

/// `[{"step", "state", "say", ...}]`, the steps in the order of their verification, or why there was none. The state is "right",
/// "wrong" or "unreached"; "came", "computed" and "text" are there where they help.
platform::Array checksOfHeader(const Judged& request, const std::vector<std::string>& applications);
/// The same for a signed link.
platform::Array checksOfLink(const Judged& request, const std::vector<std::string>& applications);

/// How far a signature's time is from the server's, in words: `0.4 s behind the server`.
std::string clockDistance(std::chrono::milliseconds ahead);

}  // namespace devserver

// The constants that come from outside the client: five texts that the host supplies, and the SDK's own name.
//
// The five are filled before the first client is made: by Kestrova::start, or by a source file that the CMake function
// kestrova_constants() generates. Reading one that was not filled raises NSInternalInconsistencyException and names it. Any thread.
#pragma once

#include <string>
#include <string_view>

/// Name of the event that tells of a started session; it is sent at once.
const std::string& kSessionStartedKey();
/// Name of the event that tells of a cookie match; it is sent at once.
const std::string& kDidCookieMatchKey();
/// User-defaults key of the clock correction, in whole seconds.
const std::string& kHawkLocalTimeSkew();
/// API version text in the vendor media type.
const std::string& kAPIVersionString();
/// API host name, with `:port` where it is not 443.
const std::string& kAPIHost();

/// The reverse-DNS identifier prefix of the SDK's maker.
inline constexpr std::string_view kSDKReverseDNSPrefix = "com.kestrova.sdk";

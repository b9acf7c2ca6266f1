// Reads the constants of the current process record.
#include "companions/KSVConstants.h"

#include <optional>

#include "platform/Exception.h"
#include "platform/Process.h"

namespace {

const std::string& filled(const std::optional<std::string>& constant, const char* name) {
  if (constant) return *constant;
  throw platform::Exception(platform::kInternalInconsistencyException, std::string(name) + " is used before it was set");
}

const platform::ExternalConstants& constants() { return platform::Process::current().constants; }

}  // namespace

const std::string& kSessionStartedKey() { return filled(constants().sessionStartedKey, "kSessionStartedKey"); }
const std::string& kDidCookieMatchKey() { return filled(constants().didCookieMatchKey, "kDidCookieMatchKey"); }
const std::string& kHawkLocalTimeSkew() { return filled(constants().hawkLocalTimeSkew, "kHawkLocalTimeSkew"); }
const std::string& kAPIVersionString() { return filled(constants().apiVersionString, "kAPIVersionString"); }
const std::string& kAPIHost() { return filled(constants().apiHost, "kAPIHost"); }

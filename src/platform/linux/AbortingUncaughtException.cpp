// The end of a process that an exception has escaped from, and the text that tells of it.
//
// The description stands here, beside the platform's other code, because the names of C++ types are readable only with the help of
// the compiler's runtime.
#include "platform/linux/AbortingUncaughtException.h"

#include <cxxabi.h>

#include <cstdlib>
#include <typeinfo>
#include <utility>

#include "platform/Exception.h"

namespace platform {
namespace {

std::string readableName(const std::type_info& type) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> name(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  return status == 0 ? name.get() : type.name();
}

std::string terminationText(std::string_view name, std::string_view reason) {
  std::string text = "*** Terminating app due to uncaught exception '";
  return text.append(name).append("', reason: '").append(reason).append("'");
}

}  // namespace

std::string UncaughtException::description(const std::exception_ptr& exception) {
  try {
    if (exception) std::rethrow_exception(exception);
  } catch (const Exception& raise) {
    return terminationText(raise.name(), raise.reason());
  } catch (const std::exception& other) {
    return terminationText(readableName(typeid(other)), other.what());
  } catch (...) {
    return terminationText("unknown", "unknown");  // of an exception that is no std::exception nothing can be told
  }
  return terminationText("unknown", "unknown");
}

AbortingUncaughtException::AbortingUncaughtException(std::shared_ptr<SystemLog> systemLog) : systemLog_(std::move(systemLog)) {}

void AbortingUncaughtException::uncaught(std::exception_ptr exception) {
  systemLog_->log(description(exception));
  std::abort();
}

}  // namespace platform

// A raise: what the platform throws where its documentation says that it raises.
//
// Raises and errors are two things. An expected failure is a platform::Error in a result; a raise is a broken rule or a failed
// file-handle operation, and travels as this type. Code that guards against raises catches `const platform::Exception&` and nothing
// wider, so that an exception of any other kind passes through.
#pragma once

#include <exception>
#include <string>
#include <utility>

#include "platform/Export.h"

namespace platform {

inline constexpr const char* kInvalidArgumentException = "NSInvalidArgumentException";
inline constexpr const char* kRangeException = "NSRangeException";
inline constexpr const char* kFileHandleOperationException = "NSFileHandleOperationException";
inline constexpr const char* kGenericException = "NSGenericException";
inline constexpr const char* kInternalInconsistencyException = "NSInternalInconsistencyException";

class KESTROVA_EXPORT Exception : public std::exception {
 public:
  Exception(std::string name, std::string reason)
      : name_(std::move(name)), reason_(std::move(reason)), what_(name_ + ": " + reason_) {}

  const std::string& name() const { return name_; }
  const std::string& reason() const { return reason_; }
  const char* what() const noexcept override { return what_.c_str(); }

 private:
  std::string name_;
  std::string reason_;
  std::string what_;
};

}  // namespace platform

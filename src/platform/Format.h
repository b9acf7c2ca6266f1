// The platform's string formatting: %@, %ld, %li, %lu, %d, %lld and %%.
//
// Arguments are taken by reference and turned into text only when the format asks for it, so that building the argument list costs
// nothing. The format string is trusted program text; a placeholder without an argument, or with one of another sort, raises
// NSInvalidArgumentException.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Export.h"
#include "platform/String.h"

namespace platform {

template <class T>
concept Describable = requires(const T& object) {
  { object.description() } -> std::convertible_to<std::string_view>;
};

class KESTROVA_EXPORT FormatArgument {
 public:
  template <std::signed_integral I>
  FormatArgument(I number) : sort_(Sort::kSigned), integer_(number) {}
  template <std::unsigned_integral U>
  FormatArgument(U number) : sort_(Sort::kUnsigned), integer_(static_cast<std::int64_t>(number)) {}
  FormatArgument(std::string_view text) : sort_(Sort::kText), text_(text) {}
  FormatArgument(const char* text) : sort_(Sort::kText), text_(text) {}
  FormatArgument(const std::string& text) : sort_(Sort::kText), text_(text) {}
  FormatArgument(const String& text) : sort_(Sort::kText), text_(text.view()) {}
  FormatArgument(std::nullopt_t) : sort_(Sort::kAbsent) {}

  template <Describable T>
  FormatArgument(const T& object)
      : sort_(Sort::kObject),
        object_(&object),
        describe_([](const void* it) { return std::string(static_cast<const T*>(it)->description()); }) {}
  template <class T>
  FormatArgument(const std::optional<T>& object)
      : FormatArgument(object ? FormatArgument(*object) : FormatArgument(std::nullopt)) {}
  template <class T>
  FormatArgument(const std::shared_ptr<T>& object)
      : FormatArgument(object ? FormatArgument(*object) : FormatArgument(std::nullopt)) {}

 private:
  friend std::string stringWithFormat(std::string_view format, std::initializer_list<FormatArgument> arguments);

  enum class Sort { kAbsent, kSigned, kUnsigned, kText, kObject };

  Sort sort_;
  std::int64_t integer_ = 0;
  std::string_view text_;
  const void* object_ = nullptr;
  std::string (*describe_)(const void*) = nullptr;
};

/// An absent object prints `(null)` (platform row V4). %d takes the low 32 bits, %ld, %li and %lld all 64, %lu unsigned.
KESTROVA_EXPORT std::string stringWithFormat(std::string_view format, std::initializer_list<FormatArgument> arguments);

}  // namespace platform

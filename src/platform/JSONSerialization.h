// JSON, written and read with no options (platform rows J1 to J10). Any thread.
#pragma once

#include <expected>

#include "platform/Data.h"
#include "platform/Error.h"
#include "platform/Export.h"
#include "platform/Value.h"

namespace platform {

class KESTROVA_EXPORT JSONSerialization {
 public:
  /// Compact UTF-8 text with the keys in the order of their bytes. Raises NSInvalidArgumentException for a top level that is no
  /// object or array, for dates and data, for NaN and the infinities; fails with an error for a string that is not well-formed
  /// UTF-8.
  static std::expected<Data, Error> dataWithJSONObject(const Value& object);
  /// The object or array that the text holds. Fails with code 3840 for anything else.
  static std::expected<Value, Error> JSONObjectWithData(const Data& data);
  /// Absent data (an exchange that brought none) fails like empty data.
  static std::expected<Value, Error> JSONObjectWithData(const std::optional<Data>& data) {
    return data ? JSONObjectWithData(*data) : JSONObjectWithData(Data());
  }

  virtual ~JSONSerialization() = default;
  virtual std::expected<Data, Error> write(const Value& object) = 0;
  virtual std::expected<Value, Error> read(const Data& data) = 0;
};

/// The deepest nesting of containers that is read (platform row J8).
inline constexpr int kMaxJSONDepth = 512;

}  // namespace platform

// The values that travel as JSON or property lists: null, boolean, numbers, strings, arrays, objects, dates and data.
//
// Values, arrays and dictionaries are handles: copies share, and a change to a shared one first makes it the changer's own. Reading
// the same value from many threads is safe. Absence is not a value; an optional says it. Neither copying, comparing nor destroying
// a value recurses, however deeply it is nested.
#pragma once

#include <atomic>
#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Data.h"
#include "platform/Date.h"
#include "platform/Export.h"
#include "platform/String.h"

namespace platform {

class Array;
class Dictionary;
struct Member;

namespace detail {
struct Node;
struct ArrayNode;
struct ObjectNode;
}  // namespace detail

class KESTROVA_EXPORT Value {
 public:
  enum class Kind : std::uint8_t { kNull, kBoolean, kSigned, kUnsigned, kDouble, kString, kArray, kObject, kDate, kData };

  Value() noexcept : kind_(Kind::kNull) { payload_.bits = 0; }  // JSON null
  Value(std::nullptr_t) noexcept : Value() {}
  template <std::same_as<bool> B>
  Value(B boolean) noexcept : kind_(Kind::kBoolean) {
    payload_.bits = 0;
    payload_.boolean = boolean;
  }
  template <std::signed_integral I>
  Value(I number) noexcept : kind_(Kind::kSigned) {
    payload_.integer = number;
  }
  /// Numbers that fit a signed 64-bit integer are kept as one, so that equal numbers are equal values.
  template <std::unsigned_integral U>
    requires(!std::same_as<U, bool>)
  Value(U number) noexcept : kind_(std::uint64_t{number} > INT64_MAX ? Kind::kUnsigned : Kind::kSigned) {
    payload_.bits = number;
  }
  template <std::floating_point F>
  Value(F number) noexcept : kind_(Kind::kDouble) {
    payload_.number = number;
  }
  Value(String text) noexcept;
  Value(std::string_view text) : Value(String(text)) {}
  Value(const std::string& text) : Value(String(text)) {}
  Value(const char* text) : Value(String(text)) {}
  Value(Array array) noexcept;
  Value(Dictionary object) noexcept;
  Value(Date date) noexcept;
  Value(const Data& data) noexcept;

  Value(const Value& other) noexcept : kind_(other.kind_), payload_(other.payload_) {
    if (isCounted()) retain();
  }
  Value(Value&& other) noexcept : kind_(std::exchange(other.kind_, Kind::kNull)), payload_(other.payload_) {}
  Value& operator=(Value other) noexcept {
    std::swap(kind_, other.kind_);
    std::swap(payload_, other.payload_);
    return *this;
  }
  ~Value() {
    if (isCounted()) release();
  }

  Kind kind() const noexcept { return kind_; }
  bool isNull() const noexcept { return kind_ == Kind::kNull; }
  bool isString() const noexcept { return kind_ == Kind::kString; }
  bool isObject() const noexcept { return kind_ == Kind::kObject; }
  bool isArray() const noexcept { return kind_ == Kind::kArray; }

  // Typed reading; each needs its own kind and raises NSInvalidArgumentException for another.
  bool boolean() const;
  std::int64_t signedInteger() const;
  std::uint64_t unsignedInteger() const;
  double number() const;
  const String& string() const;
  const Array& array() const;
  const Dictionary& object() const;
  Date date() const;
  Data data() const;

  // The dynamic operations that code without a type test relies on (platform row V7). JSON null counts as an absent receiver: it
  // holds no key, counts 0, enumerates nothing and reads 0.

  /// objectForKey: absent when the key is; raises NSInvalidArgumentException when this is no object.
  std::optional<Value> objectForKey(std::string_view key) const;
  /// Number of elements or entries; raises for a scalar.
  std::uint64_t count() const;
  /// What an enumeration yields: an array's elements, an object's keys; raises for a scalar.
  Array enumerated() const;
  /// 32-bit integer reading (platform row V3); null reads 0; raises for arrays, objects, dates and data.
  std::int32_t intValue() const;
  /// 64-bit integer reading (platform row V1); never raises.
  std::int64_t integerValue() const;
  /// The first `characters` Unicode code points; raises for what is no string and for one that is too short.
  String substringToIndex(std::size_t characters) const;

  /// The text that %@ prints (platform rows V4, V5, V8).
  std::string description() const;

  /// Numbers are equal when they mean the same number, whatever they are kept as; a boolean equals no number.
  friend KESTROVA_EXPORT bool operator==(const Value& a, const Value& b);

 private:
  friend class Array;
  friend class Dictionary;
  friend struct detail::Node;

  union Payload {
    std::uint64_t bits;
    std::int64_t integer;
    double number;
    bool boolean;
    String::Block* text;         // kString, kData; null when empty
    detail::ArrayNode* array;    // null when empty
    detail::ObjectNode* object;  // null when empty
  };

  bool isCounted() const noexcept {
    return kind_ == Kind::kString || kind_ == Kind::kArray || kind_ == Kind::kObject || kind_ == Kind::kData;
  }
  void retain() const noexcept;
  void release() noexcept;
  void expect(Kind kind, const char* operation) const;
  detail::Node* node() const noexcept;

  Kind kind_;
  Payload payload_;
};

class KESTROVA_EXPORT Array {
 public:
  Array() noexcept = default;
  Array(std::initializer_list<Value> values);
  explicit Array(std::vector<Value> values);
  /// Takes the values out of the span.
  static Array fromValues(std::span<Value> values);
  Array(const Array& other) noexcept;
  Array(Array&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
  Array& operator=(Array other) noexcept {
    std::swap(node_, other.node_);
    return *this;
  }
  ~Array();

  std::size_t count() const noexcept;
  bool empty() const noexcept { return count() == 0; }
  const Value* begin() const noexcept;
  const Value* end() const noexcept { return begin() + count(); }
  /// Raises NSRangeException beyond the end.
  const Value& objectAtIndex(std::size_t index) const;
  const Value& operator[](std::size_t index) const { return objectAtIndex(index); }

  void reserve(std::size_t capacity);
  void addObject(Value value);
  /// Raises NSInvalidArgumentException when absent.
  void addObject(std::optional<Value> value);
  void addObjectsFromArray(const Array& other);
  void removeAllObjects() noexcept { *this = Array(); }

  std::string description() const { return Value(*this).description(); }
  friend bool operator==(const Array& a, const Array& b) { return Value(a) == Value(b); }

 private:
  friend class Value;
  detail::ArrayNode& own(std::size_t capacity);
  detail::ArrayNode* node_ = nullptr;
};

/// An object: string keys, each once, kept sorted by their bytes.
class KESTROVA_EXPORT Dictionary {
 public:
  Dictionary() noexcept = default;
  /// Of equal keys the first wins.
  Dictionary(std::initializer_list<std::pair<std::string_view, Value>> entries);
  Dictionary(const Dictionary& other) noexcept;
  Dictionary(Dictionary&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
  Dictionary& operator=(Dictionary other) noexcept {
    std::swap(node_, other.node_);
    return *this;
  }
  ~Dictionary();

  /// For readers of serialised text: sorts the members; of equal keys the first wins.
  static Dictionary fromMembers(std::vector<Member> members);
  /// The same, taking the members out of the span.
  static Dictionary fromMembers(std::span<Member> members);

  std::size_t count() const noexcept;
  bool empty() const noexcept { return count() == 0; }
  const Member* begin() const noexcept;  // in the order of the keys' bytes
  const Member* end() const noexcept;

  /// The entry's value where it lies, or null when there is none; valid until the dictionary changes or dies.
  const Value* find(std::string_view key) const noexcept;
  std::optional<Value> objectForKey(std::string_view key) const;

  void reserve(std::size_t capacity);
  void setObjectForKey(Value value, String key);
  /// Raises NSInvalidArgumentException when the value is absent.
  void setObjectForKey(std::optional<Value> value, String key);
  void removeObjectForKey(std::string_view key);
  /// Entries of `other` replace equal ones here.
  void addEntriesFromDictionary(const Dictionary& other);

  std::string description() const { return Value(*this).description(); }
  friend bool operator==(const Dictionary& a, const Dictionary& b) { return Value(a) == Value(b); }

 private:
  friend class Value;
  detail::ObjectNode& own(std::size_t capacity);
  detail::ObjectNode* node_ = nullptr;
};

struct KESTROVA_EXPORT Member {
  String key;
  Value value;
};

}  // namespace platform

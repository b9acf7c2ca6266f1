// Values, arrays and dictionaries: counted nodes that are copied when a shared one is about to change.
//
// A node is one allocation: a header, then the elements. A handle without a node is an empty container. What walks a tree
// (comparing, destroying) keeps its own list instead of recursing; for destruction the dead nodes themselves are the list, so that
// it cannot fail.
#include "platform/Value.h"

#include <algorithm>
#include <cmath>
#include <compare>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>

#include "platform/Exception.h"
#include "platform/UTF8.h"

namespace platform {
namespace detail {

struct Node {
  explicit Node(Value::Kind ofKind, std::size_t room) noexcept : kind(ofKind), capacity(room) {}

  static Node* of(const Value& value) noexcept { return value.node(); }
  bool isShared() const noexcept { return references.load(std::memory_order_acquire) != 1; }
  void retain() noexcept { references.fetch_add(1, std::memory_order_relaxed); }
  bool dropLast() noexcept { return references.fetch_sub(1, std::memory_order_acq_rel) == 1; }

  std::atomic<std::uint32_t> references{1};
  Value::Kind kind;
  std::size_t count = 0;
  std::size_t capacity;
  Node* nextDead = nullptr;
};

template <class Element, Value::Kind kKind>
struct NodeOf : Node {
  explicit NodeOf(std::size_t room) noexcept : Node(kKind, room) {}

  Element* begin() noexcept { return reinterpret_cast<Element*>(this + 1); }
  Element* end() noexcept { return begin() + count; }
};

struct ArrayNode : NodeOf<Value, Value::Kind::kArray> {
  using NodeOf::NodeOf;
};
struct ObjectNode : NodeOf<Member, Value::Kind::kObject> {
  using NodeOf::NodeOf;
};

}  // namespace detail

namespace {

using detail::ArrayNode;
using detail::Node;
using detail::ObjectNode;

static_assert(alignof(Value) <= alignof(Node) && sizeof(Node) % alignof(Value) == 0, "the elements follow the header");
static_assert(alignof(Member) <= alignof(Node) && sizeof(Node) % alignof(Member) == 0, "the elements follow the header");

template <class N>
using ElementOf = std::remove_pointer_t<decltype(std::declval<N>().begin())>;

template <class N>
N* makeNode(std::size_t capacity) {
  using Element = ElementOf<N>;
  if (capacity > (std::numeric_limits<std::size_t>::max() - sizeof(N)) / sizeof(Element)) throw std::bad_alloc();
  void* memory = std::malloc(sizeof(N) + capacity * sizeof(Element));
  if (!memory) throw std::bad_alloc();
  return new (memory) N(capacity);
}

void freeNode(Node* node) noexcept { std::free(static_cast<void*>(node)); }

String* keyIn(Member& element) noexcept { return &element.key; }
String* keyIn(Value&) noexcept { return nullptr; }
Value& valueIn(Member& element) noexcept { return element.value; }
Value& valueIn(Value& element) noexcept { return element; }

/// Ends a dead node's elements; containers that die with it join the list.
template <class N>
void endElements(N& node, Node*& dead) noexcept {
  for (auto& element : node) {
    if (String* key = keyIn(element)) std::destroy_at(key);
    Value& value = valueIn(element);
    if (!value.isArray() && !value.isObject()) {
      std::destroy_at(&value);
    } else if (Node* child = Node::of(value); child && child->dropLast()) {
      child->nextDead = dead;
      dead = child;
    }
  }
}

void destroyTree(Node* dead) noexcept {
  while (dead) {
    Node* node = std::exchange(dead, dead->nextDead);
    if (node->kind == Value::Kind::kArray)
      endElements(static_cast<ArrayNode&>(*node), dead);
    else
      endElements(static_cast<ObjectNode&>(*node), dead);
    freeNode(node);
  }
}

void releaseNode(Node* node) noexcept {
  if (node && node->dropLast()) destroyTree(node);
}

/// The node that may be changed: this one when nobody shares it and it has the room, else a new one with the same elements.
template <class N>
N* changeableNode(N* node, std::size_t capacity) {
  if (!node) return makeNode<N>(std::max<std::size_t>(capacity, 1));
  const bool shared = node->isShared();
  if (!shared && node->capacity >= capacity) return node;
  if (capacity > node->capacity) capacity = std::max(capacity, 2 * node->count);
  N* larger = makeNode<N>(std::max(capacity, node->count));
  if (shared) {
    std::uninitialized_copy(node->begin(), node->end(), larger->begin());
    larger->count = node->count;
    releaseNode(node);
  } else {
    std::uninitialized_move(node->begin(), node->end(), larger->begin());
    larger->count = node->count;
    std::destroy(node->begin(), node->end());
    freeNode(node);
  }
  return larger;
}

template <class N, class... Arguments>
void append(N& node, Arguments&&... arguments) {
  ::new (static_cast<void*>(node.end())) ElementOf<N>{std::forward<Arguments>(arguments)...};
  ++node.count;
}

/// Moves the elements from `index` on one place up; the place must be there. What is left at `index` is assigned over.
template <class N>
void insert(N& node, std::size_t index, ElementOf<N> element) {
  if (index == node.count) return append(node, std::move(element));
  append(node, std::move(*(node.end() - 1)));
  std::move_backward(node.begin() + index, node.end() - 2, node.end() - 1);
  node.begin()[index] = std::move(element);
}

[[noreturn]] void raise(const char* name, std::string reason) { throw Exception(name, std::move(reason)); }

const char* nameOf(Value::Kind kind) {
  switch (kind) {
    case Value::Kind::kNull:
      return "null";
    case Value::Kind::kBoolean:
      return "a boolean";
    case Value::Kind::kSigned:
    case Value::Kind::kUnsigned:
      return "an integer";
    case Value::Kind::kDouble:
      return "a floating number";
    case Value::Kind::kString:
      return "a string";
    case Value::Kind::kArray:
      return "an array";
    case Value::Kind::kObject:
      return "an object";
    case Value::Kind::kDate:
      return "a date";
    case Value::Kind::kData:
      return "data";
  }
  return "a value";
}

[[noreturn]] void raiseUnrecognized(const char* operation, Value::Kind kind) {
  raise(kInvalidArgumentException, std::string("-[") + operation + "]: sent to " + nameOf(kind));
}

[[noreturn]] void raiseAbsent(const char* operation) {
  raise(kInvalidArgumentException, std::string("*** -[") + operation + "]: object cannot be absent");
}

}  // namespace

// ---- Value

Value::Value(String text) noexcept : kind_(Kind::kString) {
  payload_.bits = 0;
  payload_.text = std::exchange(text.block_, nullptr);
}
Value::Value(Array array) noexcept : kind_(Kind::kArray) {
  payload_.bits = 0;
  payload_.array = std::exchange(array.node_, nullptr);
}
Value::Value(Dictionary object) noexcept : kind_(Kind::kObject) {
  payload_.bits = 0;
  payload_.object = std::exchange(object.node_, nullptr);
}
Value::Value(Date date) noexcept : kind_(Kind::kDate) { payload_.number = date.timeIntervalSince1970(); }
Value::Value(const Data& data) noexcept : Value(String(data.string())) { kind_ = Kind::kData; }

Node* Value::node() const noexcept {
  return kind_ == Kind::kArray ? static_cast<Node*>(payload_.array) : static_cast<Node*>(payload_.object);
}

void Value::retain() const noexcept {
  if (kind_ == Kind::kString || kind_ == Kind::kData) {
    if (payload_.text) payload_.text->references.fetch_add(1, std::memory_order_relaxed);
  } else if (Node* counted = node()) {
    counted->retain();
  }
}

void Value::release() noexcept {
  if (kind_ == Kind::kString || kind_ == Kind::kData) {
    if (payload_.text && payload_.text->references.fetch_sub(1, std::memory_order_acq_rel) == 1) String::freeBlock(payload_.text);
  } else {
    releaseNode(node());
  }
}

void Value::expect(Kind kind, const char* operation) const {
  if (kind_ != kind) raiseUnrecognized(operation, kind_);
}

bool Value::boolean() const {
  expect(Kind::kBoolean, "Value boolean");
  return payload_.boolean;
}
std::int64_t Value::signedInteger() const {
  expect(Kind::kSigned, "Value signedInteger");
  return payload_.integer;
}
std::uint64_t Value::unsignedInteger() const {
  expect(Kind::kUnsigned, "Value unsignedInteger");
  return payload_.bits;
}
double Value::number() const {
  expect(Kind::kDouble, "Value number");
  return payload_.number;
}

// A String, an Array and a Dictionary are one pointer each: the very pointer that the payload holds.
static_assert(sizeof(String) == sizeof(void*) && sizeof(Array) == sizeof(void*) && sizeof(Dictionary) == sizeof(void*));

const String& Value::string() const {
  expect(Kind::kString, "Value string");
  return reinterpret_cast<const String&>(payload_.text);
}
const Array& Value::array() const {
  expect(Kind::kArray, "Value array");
  return reinterpret_cast<const Array&>(payload_.array);
}
const Dictionary& Value::object() const {
  expect(Kind::kObject, "Value object");
  return reinterpret_cast<const Dictionary&>(payload_.object);
}
Date Value::date() const {
  expect(Kind::kDate, "Value date");
  return Date::dateWithTimeIntervalSince1970(payload_.number);
}
Data Value::data() const {
  expect(Kind::kData, "Value data");
  return Data(reinterpret_cast<const String&>(payload_.text));
}

// ---- The dynamic operations

std::optional<Value> Value::objectForKey(std::string_view key) const {
  if (isNull()) return std::nullopt;
  expect(Kind::kObject, "Value objectForKey:");
  return object().objectForKey(key);
}

std::uint64_t Value::count() const {
  if (isNull()) return 0;
  if (isArray()) return array().count();
  expect(Kind::kObject, "Value count");
  return object().count();
}

Array Value::enumerated() const {
  if (isNull()) return {};
  if (isArray()) return array();
  expect(Kind::kObject, "Value countByEnumeratingWithState:objects:count:");
  Array keys;
  keys.reserve(object().count());
  for (const Member& member : object()) keys.addObject(Value(member.key));
  return keys;
}

namespace {

bool isSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

/// The integer at the start of a text, saturated at the limits of I.
template <class I>
I leadingInteger(std::string_view text) {
  std::size_t at = 0;
  while (at < text.size() && isSpace(text[at])) ++at;
  const bool negative = at < text.size() && text[at] == '-';
  if (at < text.size() && (text[at] == '-' || text[at] == '+')) ++at;
  const std::uint64_t limit = static_cast<std::uint64_t>(std::numeric_limits<I>::max()) + (negative ? 1 : 0);
  std::uint64_t magnitude = 0;
  for (; at < text.size() && isDigit(text[at]); ++at) {
    const auto digit = static_cast<std::uint64_t>(text[at] - '0');
    if (magnitude > (limit - digit) / 10) {
      magnitude = limit;
      break;
    }
    magnitude = magnitude * 10 + digit;
  }
  return static_cast<I>(negative ? 0 - magnitude : magnitude);
}

std::int64_t truncated(double number) {
  if (std::isnan(number)) return 0;
  if (number >= 0x1p63) return INT64_MAX;
  if (number < -0x1p63) return INT64_MIN;
  return static_cast<std::int64_t>(number);
}

}  // namespace

std::int32_t Value::intValue() const {
  switch (kind_) {
    case Kind::kString:
      return leadingInteger<std::int32_t>(string());
    case Kind::kArray:
    case Kind::kObject:
    case Kind::kDate:
    case Kind::kData:
      raiseUnrecognized("Value intValue", kind_);
    default:
      return static_cast<std::int32_t>(integerValue());  // the low 32 bits
  }
}

std::int64_t Value::integerValue() const {
  switch (kind_) {
    case Kind::kBoolean:
      return payload_.boolean ? 1 : 0;
    case Kind::kSigned:
    case Kind::kUnsigned:
      return payload_.integer;
    case Kind::kDouble:
      return truncated(payload_.number);
    case Kind::kString:
      return leadingInteger<std::int64_t>(string());
    default:
      return 0;
  }
}

String Value::substringToIndex(std::size_t characters) const {
  expect(Kind::kString, "Value substringToIndex:");
  const std::string_view text = string();
  std::size_t end = 0;
  for (std::size_t taken = 0; taken < characters; ++taken) {
    if (end == text.size())
      raise(kInvalidArgumentException, "*** -[NSString substringToIndex:]: Index " + std::to_string(characters) +
                                           " out of bounds; string length " + std::to_string(taken));
    ++end;
    while (end < text.size() && continuesCharacter(text[end])) ++end;
  }
  return end == text.size() ? string() : String(text.substr(0, end));
}

// ---- Equality

namespace {

bool isNumber(const Value& value) {
  return value.kind() == Value::Kind::kSigned || value.kind() == Value::Kind::kUnsigned || value.kind() == Value::Kind::kDouble;
}

/// A whole number up to 2^53 is the same double only when the difference is nil; beyond, the double itself is whole and is
/// converted.
bool doubleEqualsInteger(double number, const Value& integer) {
  if (integer.kind() == Value::Kind::kUnsigned)
    return number >= 0 && number < 0x1p64 && number == std::trunc(number) &&
           static_cast<std::uint64_t>(number) == integer.unsignedInteger();
  return number >= -0x1p63 && number < 0x1p63 && number == std::trunc(number) &&
         static_cast<std::int64_t>(number) == integer.signedInteger();
}

bool numbersAreEqual(const Value& a, const Value& b) {
  const bool aIsDouble = a.kind() == Value::Kind::kDouble;
  const bool bIsDouble = b.kind() == Value::Kind::kDouble;
  if (aIsDouble && bIsDouble) return a.number() == b.number();
  if (aIsDouble) return doubleEqualsInteger(a.number(), b);
  if (bIsDouble) return doubleEqualsInteger(b.number(), a);
  return a.kind() == b.kind() && a.integerValue() == b.integerValue();
}

bool leavesAreEqual(const Value& a, const Value& b) {
  if (isNumber(a) && isNumber(b)) return numbersAreEqual(a, b);
  if (a.kind() != b.kind()) return false;
  switch (a.kind()) {
    case Value::Kind::kBoolean:
      return a.boolean() == b.boolean();
    case Value::Kind::kString:
      return a.string() == b.string();
    case Value::Kind::kDate:
      return a.date() == b.date();
    case Value::Kind::kData:
      return a.data() == b.data();
    default:
      return true;  // null
  }
}

bool isContainer(const Value& value) { return value.isArray() || value.isObject(); }

/// Compares two containers; their inner containers go on the list for later.
class Comparison {
 public:
  bool finds(const Value& a, const Value& b) {
    if (!matches(a, b)) return false;
    while (!pending_.empty()) {
      const auto [left, right] = pending_.back();
      pending_.pop_back();
      if (!(left->isArray() ? elementsMatch(left->array(), right->array()) : elementsMatch(left->object(), right->object())))
        return false;
    }
    return true;
  }

 private:
  bool matches(const Value& a, const Value& b) {
    if (!isContainer(a) || a.kind() != b.kind()) return leavesAreEqual(a, b);
    if (Node::of(a) == Node::of(b)) return true;
    if (a.count() != b.count()) return false;
    pending_.emplace_back(&a, &b);
    return true;
  }

  bool elementsMatch(const Array& a, const Array& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [this](const Value& x, const Value& y) { return matches(x, y); });
  }
  bool elementsMatch(const Dictionary& a, const Dictionary& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [this](const Member& x, const Member& y) { return x.key == y.key && matches(x.value, y.value); });
  }

  std::vector<std::pair<const Value*, const Value*>> pending_;
};

}  // namespace

bool operator==(const Value& a, const Value& b) { return isContainer(a) ? Comparison().finds(a, b) : leavesAreEqual(a, b); }

// ---- Array

Array::Array(std::initializer_list<Value> values) {
  if (values.size() == 0) return;
  node_ = makeNode<ArrayNode>(values.size());
  for (const Value& value : values) append(*node_, value);
}
Array::Array(std::vector<Value> values) : Array(fromValues(values)) {}

Array Array::fromValues(std::span<Value> values) {
  Array array;
  if (values.empty()) return array;
  array.node_ = makeNode<ArrayNode>(values.size());
  for (Value& value : values) append(*array.node_, std::move(value));
  return array;
}

Array::Array(const Array& other) noexcept : node_(other.node_) {
  if (node_) node_->retain();
}
Array::~Array() { releaseNode(node_); }

std::size_t Array::count() const noexcept { return node_ ? node_->count : 0; }
const Value* Array::begin() const noexcept { return node_ ? node_->begin() : nullptr; }

const Value& Array::objectAtIndex(std::size_t index) const {
  if (index >= count())
    raise(kRangeException,
          "*** -[NSArray objectAtIndex:]: index " + std::to_string(index) + " beyond the count of " + std::to_string(count()));
  return begin()[index];
}

ArrayNode& Array::own(std::size_t capacity) {
  node_ = changeableNode(node_, capacity);
  return *node_;
}

void Array::reserve(std::size_t capacity) {
  if (capacity > count()) own(capacity);
}
void Array::addObject(Value value) { append(own(count() + 1), std::move(value)); }
void Array::addObject(std::optional<Value> value) {
  if (!value) raiseAbsent("NSMutableArray addObject:");
  addObject(*std::move(value));
}
void Array::addObjectsFromArray(const Array& other) {
  if (other.empty()) return;
  if (empty()) {
    *this = other;
    return;
  }
  const Array held = other;  // NOLINT(performance-unnecessary-copy-initialization): it may be this array
  ArrayNode& node = own(count() + held.count());
  for (const Value& value : held) append(node, value);
}

// ---- Dictionary

namespace {

constexpr std::size_t kScanned = 8;  // up to so many members a scan by length finds a key sooner than halving

struct ByKey {
  bool operator()(const Member& a, std::string_view b) const noexcept { return a.key.view() < b; }
};

template <class M>
M* lowerBound(M* begin, M* end, std::string_view key) {
  return std::lower_bound(begin, end, key, ByKey());
}

const Member* findByScan(const Member* begin, const Member* end, std::string_view key) noexcept {
  for (const Member* member = begin; member != end; ++member)
    if (member->key.length() == key.size() && member->key.view() == key) return member;
  return end;
}

const Member* findByHalving(const Member* begin, const Member* end, std::string_view key) noexcept {
  const Member* place = lowerBound(begin, end, key);
  return place != end && place->key.view() == key ? place : end;
}

}  // namespace

namespace {

constexpr std::size_t kInserted = 16;  // so many members are sorted by inserting each in its place

void insertUnlessThere(ObjectNode& node, String key, Value value) {
  const Member* place = lowerBound(node.begin(), node.end(), key.view());
  if (place != node.end() && place->key == key) return;
  insert(node, static_cast<std::size_t>(place - node.begin()), Member{std::move(key), std::move(value)});
}

/// Of equal keys the first wins: it lies lower.
bool precedes(const Member* a, const Member* b) {
  const auto order = a->key.view() <=> b->key.view();
  return order != 0 ? order < 0 : a < b;
}

}  // namespace

Dictionary::Dictionary(std::initializer_list<std::pair<std::string_view, Value>> entries) {
  if (entries.size() == 0) return;
  node_ = makeNode<ObjectNode>(entries.size());
  for (const auto& [key, value] : entries) insertUnlessThere(*node_, String(key), value);
}

Dictionary Dictionary::fromMembers(std::vector<Member> members) { return fromMembers(std::span(members)); }

Dictionary Dictionary::fromMembers(std::span<Member> members) {
  Dictionary dictionary;
  if (members.empty()) return dictionary;
  dictionary.node_ = makeNode<ObjectNode>(members.size());
  ObjectNode& node = *dictionary.node_;
  if (members.size() <= kInserted) {
    for (Member& member : members) insertUnlessThere(node, std::move(member.key), std::move(member.value));
    return dictionary;
  }
  std::vector<Member*> order(members.size());
  std::transform(members.begin(), members.end(), order.begin(), [](Member& member) { return &member; });
  std::sort(order.begin(), order.end(), precedes);
  for (Member* member : order)
    if (node.count == 0 || (node.end() - 1)->key != member->key) append(node, std::move(*member));
  return dictionary;
}

Dictionary::Dictionary(const Dictionary& other) noexcept : node_(other.node_) {
  if (node_) node_->retain();
}
Dictionary::~Dictionary() { releaseNode(node_); }

std::size_t Dictionary::count() const noexcept { return node_ ? node_->count : 0; }
const Member* Dictionary::begin() const noexcept { return node_ ? node_->begin() : nullptr; }
const Member* Dictionary::end() const noexcept { return node_ ? node_->end() : nullptr; }

const Value* Dictionary::find(std::string_view key) const noexcept {
  const Member* found = count() <= kScanned ? findByScan(begin(), end(), key) : findByHalving(begin(), end(), key);
  return found != end() ? &found->value : nullptr;
}

std::optional<Value> Dictionary::objectForKey(std::string_view key) const {
  if (const Value* value = find(key)) return *value;
  return std::nullopt;
}

ObjectNode& Dictionary::own(std::size_t capacity) {
  node_ = changeableNode(node_, capacity);
  return *node_;
}

void Dictionary::reserve(std::size_t capacity) {
  if (capacity > count()) own(capacity);
}

void Dictionary::setObjectForKey(Value value, String key) {
  const Member* place = lowerBound(begin(), end(), key.view());
  const auto index = static_cast<std::size_t>(place - begin());
  if (place != end() && place->key == key)
    own(count()).begin()[index].value = std::move(value);
  else
    insert(own(count() + 1), index, Member{std::move(key), std::move(value)});
}
void Dictionary::setObjectForKey(std::optional<Value> value, String key) {
  if (!value) raiseAbsent("NSMutableDictionary setObject:forKey:");
  setObjectForKey(*std::move(value), std::move(key));
}

void Dictionary::removeObjectForKey(std::string_view key) {
  const Member* place = lowerBound(begin(), end(), key);
  if (place == end() || place->key.view() != key) return;
  const auto index = place - begin();
  ObjectNode& node = own(count());
  std::move(node.begin() + index + 1, node.end(), node.begin() + index);
  std::destroy_at(node.end() - 1);
  --node.count;
}

void Dictionary::addEntriesFromDictionary(const Dictionary& other) {
  if (other.empty() || node_ == other.node_) return;
  if (empty()) {
    *this = other;
    return;
  }
  Dictionary merged;
  merged.node_ = makeNode<ObjectNode>(count() + other.count());
  ObjectNode& node = *merged.node_;
  const bool shared = node_->isShared();
  const Member* theirs = other.begin();
  const Member* const theirsEnd = other.end();
  for (Member& mine : *node_) {
    auto order = std::strong_ordering::greater;
    while (theirs != theirsEnd && (order = theirs->key <=> mine.key) < 0) append(node, *theirs++);
    if (theirs != theirsEnd && order == 0) continue;
    if (shared)
      append(node, mine);
    else
      append(node, std::move(mine));
  }
  while (theirs != theirsEnd) append(node, *theirs++);
  *this = std::move(merged);
}

}  // namespace platform

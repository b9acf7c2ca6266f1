// JSON objects by name, in bounded memory: what was put in first goes first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <string_view>

#include "platform/Value.h"

namespace devserver {

/// One thread at a time.
class Shelf {
 public:
  struct Bounds {
    std::size_t objects = 0;
    std::size_t bytes = 0;  // of their JSON texts and names
  };

  explicit Shelf(Bounds bounds) : bounds_(bounds) {}

  /// Keeps the object in the place of an older one of that name, as the newest. One that is too large for the shelf is not kept.
  void put(const std::string& name, platform::Dictionary object);
  /// Changes an object of the shelf without making it newer.
  void replace(const std::string& name, platform::Dictionary object);
  /// The object, or null. Good until the next change.
  const platform::Dictionary* find(std::string_view name) const;
  /// All names, oldest first.
  std::list<std::string> names() const { return order_; }
  std::size_t bytes() const { return bytes_; }

 private:
  struct Place {
    platform::Dictionary object;
    std::size_t bytes = 0;
    std::list<std::string>::iterator order;
  };
  using Places = std::map<std::string, Place, std::less<>>;

  void fill(Places::iterator place, platform::Dictionary object);
  void remove(Places::iterator place);

  Bounds bounds_;
  std::size_t bytes_ = 0;
  Places places_;
  std::list<std::string> order_;
};

}  // namespace devserver

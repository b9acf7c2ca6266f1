// Keeping objects, and letting the oldest go.
#include "devserver/Shelf.h"

#include <utility>

#include "devserver/Json.h"

namespace devserver {

using platform::Dictionary;

void Shelf::put(const std::string& name, Dictionary object) {
  if (const auto known = places_.find(name); known != places_.end()) remove(known);
  const auto order = order_.insert(order_.end(), name);
  fill(places_.emplace(name, Place{{}, 0, order}).first, std::move(object));
}

void Shelf::replace(const std::string& name, Dictionary object) {
  if (const auto known = places_.find(name); known != places_.end()) fill(known, std::move(object));
}

const Dictionary* Shelf::find(std::string_view name) const {
  const auto known = places_.find(name);
  return known == places_.end() ? nullptr : &known->second.object;
}

void Shelf::fill(Places::iterator place, Dictionary object) {
  bytes_ -= place->second.bytes;
  place->second.bytes = writeJson(object).size() + place->first.size();
  place->second.object = std::move(object);
  bytes_ += place->second.bytes;
  while (places_.size() > bounds_.objects || bytes_ > bounds_.bytes) remove(places_.find(order_.front()));
}

void Shelf::remove(Places::iterator place) {
  bytes_ -= place->second.bytes;
  order_.erase(place->second.order);
  places_.erase(place);
}

}  // namespace devserver

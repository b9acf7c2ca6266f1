// Answers of the kinds that the server gives most.
#pragma once

#include <string>
#include <utility>

#include "devserver/Behaviour.h"
#include "devserver/Json.h"

namespace devserver {

inline Answer jsonAnswer(int status, const platform::Value& body) {
  return {status, {{"Content-Type", "application/json"}}, writeJson(body)};
}
inline Answer textAnswer(int status, std::string body) {
  return {status, {{"Content-Type", "text/plain; charset=utf-8"}}, std::move(body)};
}
inline Answer errorAnswer(int status, const std::string& reason) {
  return jsonAnswer(status, platform::Dictionary{{"error", reason}});
}

}  // namespace devserver

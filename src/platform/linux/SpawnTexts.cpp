// Environments and argument lists of new programs.
#include "platform/linux/SpawnTexts.h"

#include <unistd.h>

#include <string_view>

namespace platform {

std::vector<std::string> environmentWith(const std::map<std::string, std::optional<std::string>>& variables) {
  std::vector<std::string> made;
  for (char** entry = environ; entry && *entry; ++entry) {
    const std::string_view text = *entry;
    if (!variables.contains(std::string(text.substr(0, text.find('='))))) made.emplace_back(text);
  }
  for (const auto& [name, value] : variables)
    if (value) made.push_back(std::string(name).append("=").append(*value));
  return made;
}

std::vector<std::string> environmentForOthersWith(std::map<std::string, std::optional<std::string>> variables) {
  for (const char* name :
       {"KESTROVA_API_HOST", "KESTROVA_API_VERSION", "KESTROVA_BUNDLE_ID", "KESTROVA_DEBUG", "KESTROVA_HOME", "KESTROVA_SECRET"})
    variables.try_emplace(name);
  return environmentWith(variables);
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace platform

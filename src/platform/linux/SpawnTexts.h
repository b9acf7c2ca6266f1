// The texts that a new program gets, made ready for posix_spawn.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace platform {

/// This process's environment with these variables set, and those without a value left out. The environment must not change
/// meanwhile.
std::vector<std::string> environmentWith(const std::map<std::string, std::optional<std::string>>& variables);

/// As environmentWith, for a program that outlives this one or is another application's: without the settings of the command
/// `kestrova`, which name one application and its secret.
std::vector<std::string> environmentForOthersWith(std::map<std::string, std::optional<std::string>> variables);

/// To each text, and a null pointer for the end; of use as long as the texts stay as they are.
std::vector<char*> pointersTo(std::vector<std::string>& texts);

}  // namespace platform

// Prints the constants that were generated, one a line.
#include <cstdio>

#include "KestrovaGeneratedConstants.h"

int main() {
  const platform::ExternalConstants constants = kestrovaGeneratedConstants();
  for (const auto& constant : {constants.apiHost, constants.apiVersionString, constants.sessionStartedKey,
                               constants.didCookieMatchKey, constants.hawkLocalTimeSkew})
    std::printf("%s\n", constant ? constant->c_str() : "(absent)");
}

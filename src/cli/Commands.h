// The commands, each from its options to its exit status.
#pragma once

#include "cli/Options.h"

namespace cli {

int runEvent(const Options& options);
int runEvents(const Options& options);
int runFlush(const Options& options);
int runQueue(const Options& options);
int runStatus(const Options& options);
int runDemo();

}  // namespace cli

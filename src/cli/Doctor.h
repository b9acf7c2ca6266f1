// What is well with an application's delivery and what is not: its settings, folder, queue, server, clock and transfer service.
#pragma once

#include <string>
#include <vector>

#include "cli/Options.h"

namespace cli {

struct Finding {
  /// A notice is worth knowing and stops nothing; what is ill keeps events or uploads from arriving.
  enum class State { kWell, kNotice, kIll };

  State state = State::kWell;
  std::string subject;  // `queue`
  std::string what;     // what was found, a sentence's middle: `12 records wait, the oldest from …`
  std::string advice;   // what to do; empty when there is nothing to do
};

/// Looks at everything in turn, the parts that a failing one rests on first. Asks the server one unsigned question and waits for it
/// no longer than the options' time. Starts the transfer service when uploads wait for one; changes nothing else. Needs the
/// platform's services.
std::vector<Finding> diagnose(const Options& options);

}  // namespace cli

// For tests: ends the process by SIGKILL at a step that KESTROVA_TRANSFERD_DIE_AT names, as "step" or "step:n" for the n-th such
// step.
#pragma once

#include <string_view>

namespace transfer {

/// Reads the variable. Before anything else runs.
void readDieAt();
/// A StepHook; does nothing unless the variable names the step. Any thread.
void dieAt(std::string_view step);

}  // namespace transfer

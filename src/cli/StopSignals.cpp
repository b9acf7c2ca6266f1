// Waiting for the signals that end a command.
#include "cli/StopSignals.h"

#include <pthread.h>
#include <unistd.h>

#include <thread>
#include <utility>

namespace cli {

StopSignals::StopSignals() {
  sigemptyset(&signals_);
  sigaddset(&signals_, SIGINT);
  sigaddset(&signals_, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
}

void StopSignals::onStop(std::function<void()> stop) {
  std::thread([signals = signals_, stop = std::move(stop)] {
    int signal = 0;
    sigwait(&signals, &signal);
    stop();
    sigwait(&signals, &signal);
    _exit(128 + signal);
  }).detach();
}

}  // namespace cli

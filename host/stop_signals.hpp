// How a serving program is asked to stop: SIGTERM or SIGINT. For the programs' main threads.
#pragma once

#include <signal.h>

namespace kel::host {

// Blocks the signals for this thread and those that it starts from now on, so that only wait sees
// them. Whoever reads a server's output and leaves does not end it: SIGPIPE is ignored.
class StopSignals {
 public:
  StopSignals() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGTERM);
    sigaddset(&signals_, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    signal(SIGPIPE, SIG_IGN);
  }

  void wait() const {
    int signal = 0;
    sigwait(&signals_, &signal);
  }

 private:
  sigset_t signals_{};
};

}  // namespace kel::host

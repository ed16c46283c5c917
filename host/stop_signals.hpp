// How a serving program is asked to stop: by SIGTERM, SIGINT, or SIGHUP unless it was told to
// ignore that, as nohup does. For the programs' main threads.
#pragma once

#include <signal.h>

namespace kel::host {

// Blocks the signals for this thread and those that it starts from now on, so that only wait sees
// them. A server goes on without what it cannot write: SIGPIPE, of a reader that left, and SIGXFSZ,
// of a limit on a file's size, are ignored. Not so SIGCHLD, even if the program was started so: how
// a child ended would not be told then.
class StopSignals {
 public:
  StopSignals() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGTERM);
    sigaddset(&signals_, SIGINT);
    struct sigaction hangUp {};
    sigaction(SIGHUP, nullptr, &hangUp);
    if (hangUp.sa_handler != SIG_IGN) {
      sigaddset(&signals_, SIGHUP);
    }
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
    signal(SIGCHLD, SIG_DFL);
  }

  void wait() const {
    int signal = 0;
    sigwait(&signals_, &signal);
  }

 private:
  sigset_t signals_{};
};

}  // namespace kel::host

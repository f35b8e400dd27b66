#include "automation/TerminationSignals.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "engine/FileIO.h"

namespace quillane::TerminationSignals {

void endOnceWritesAreWhole() {
  sigset_t endings;
  ::sigemptyset(&endings);
  for (const int ending : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction current {};
    if (::sigaction(ending, nullptr, &current) == 0 && current.sa_handler != SIG_IGN)
      ::sigaddset(&endings, ending);
  }
  if (::pthread_sigmask(SIG_BLOCK, &endings, nullptr) != 0) return;
  std::thread([endings] {
    int received = 0;
    while (::sigwait(&endings, &received) != 0) {
    }
    for (const int ending : {SIGINT, SIGTERM, SIGHUP})
      if (::sigismember(&endings, ending) == 1) std::signal(ending, SIG_DFL);
    ::pthread_sigmask(SIG_UNBLOCK, &endings, nullptr);
    FileIO::stopWritesForExit(std::chrono::steady_clock::now() + endingBound);
    // Ended by the signal, as a shell expects of an interrupted command.
    ::raise(received);
    ::_exit(128 + received);
  }).detach();
}

}  // namespace quillane::TerminationSignals

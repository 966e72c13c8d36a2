#include "Platform/Runtime/StandardStreams.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "Platform/Runtime/BackgroundThread.h"
#include "Platform/Runtime/Stop.h"

namespace Platform {
namespace {

bool pipeSignalIsIgnored = false;  // by whoever started the process

}  // namespace

void openStandardStreams() {
  struct sigaction atStart;
  ::sigaction(SIGPIPE, nullptr, &atStart);
  pipeSignalIsIgnored = atStart.sa_handler == SIG_IGN;
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(stream, F_GETFD) >= 0) continue;
    // The lowest free number is the one that is taken.
    const int opened = ::open("/dev/null", stream == STDOUT_FILENO ? O_RDONLY : O_RDWR);
    if (opened < 0) stopProcess(ExitStatus::software);
  }
}

void endWhenNobodyReads() {
  startBackgroundThread("gantrel-reader", [] {
    // Errors and the end of a connection are told unasked.
    pollfd output{STDOUT_FILENO, 0, 0};
    int told;
    do {
      told = ::poll(&output, 1, -1);
    } while (told < 0 && errno == EINTR);
    if (told <= 0) return;
    endByBrokenPipe();
    ::_exit(1);
  });
}

void endByBrokenPipe() {
  sigset_t signal;
  ::sigemptyset(&signal);
  ::sigaddset(&signal, SIGPIPE);
  ::pthread_sigmask(SIG_UNBLOCK, &signal, nullptr);
  if (!pipeSignalIsIgnored) ::signal(SIGPIPE, SIG_DFL);
  ::raise(SIGPIPE);  // this thread's, so that it is taken at once
}

}  // namespace Platform

#include "Platform/Runtime/BackgroundThread.h"

#include <pthread.h>
#include <signal.h>

#include <system_error>
#include <thread>

namespace Platform {

bool startBackgroundThread(const char* name, std::function<void()> body) {
  sigset_t all;
  sigset_t before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);  // a new thread inherits the mask
  bool started = true;
  try {
    std::thread thread(std::move(body));
    ::pthread_setname_np(thread.native_handle(), name);
    thread.detach();
  } catch (const std::system_error&) {
    started = false;
  }
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return started;
}

}  // namespace Platform

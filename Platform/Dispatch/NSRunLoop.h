// NSRunLoop: where a thread waits for the rest of its life.
#pragma once

namespace Platform {

class NSRunLoop {
 public:
  // The calling thread's run loop.
  static NSRunLoop currentRunLoop() { return {}; }

  // Runs the calling thread's run loop. Everything of this system happens on queues, so the loop
  // has nothing of its own to do: it does not return, and uses no processor time.
  [[noreturn]] void run();
};

}  // namespace Platform

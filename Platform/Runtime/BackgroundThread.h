// Starting the few threads that the layer has of its own.
#pragma once

#include <functional>

namespace Platform {

// Runs `body` on a new detached thread that takes no signals: they stay with the threads of the
// application. `name` (at most 15 characters) is shown by ps and debuggers. False when the system
// has no thread to give. Any thread.
bool startBackgroundThread(const char* name, std::function<void()> body);

}  // namespace Platform

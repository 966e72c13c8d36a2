#include "Platform/Dispatch/NSRunLoop.h"

#include <unistd.h>

namespace Platform {

void NSRunLoop::run() {
  for (;;) ::pause();
}

}  // namespace Platform

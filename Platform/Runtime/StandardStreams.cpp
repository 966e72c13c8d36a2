#include "Platform/Runtime/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include "Platform/Runtime/Stop.h"

namespace Platform {

void openStandardStreams() {
  int opened;
  // The lowest free number each time.
  do {
    opened = ::open("/dev/null", O_RDWR);
  } while (opened >= 0 && opened <= STDERR_FILENO);
  if (opened < 0) stopProcess(ExitStatus::software);
  ::close(opened);
}

}  // namespace Platform

#include "Benchmarks/Broker/Launch.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "Benchmarks/Broker/Sockets.h"

namespace Benchmark {

void becomeServer(Descriptor listener, const std::string& name, char* const* command) {
  const int handed = 3;
  // dup2 onto itself would keep close-on-exec.
  const bool placed = listener.get() == handed ? ::fcntl(handed, F_SETFD, 0) == 0
                                               : ::dup2(listener.get(), handed) == handed;
  if (!placed) fail("cannot hand over the socket");
  ::setenv("LISTEN_FDS", "1", 1);
  ::setenv("LISTEN_FDNAMES", name.c_str(), 1);
  ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
  ::execv(command[0], command);
  fail(command[0]);
}

}  // namespace Benchmark

#include "Platform/Runtime/UniqueFd.h"

#include <unistd.h>

namespace Platform {

void UniqueFd::reset(int fd) {
  // Linux frees the number even when close reports an error, so there is nothing to try again.
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
}

}  // namespace Platform

#include "Platform/Runtime/UniqueFd.h"

#include <unistd.h>

namespace Platform {

void UniqueFd::close(int fd) {
  // Linux frees the number even when close reports an error, so there is nothing to try again.
  ::close(fd);
}

}  // namespace Platform

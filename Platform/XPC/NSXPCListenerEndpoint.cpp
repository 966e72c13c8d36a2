#include "Platform/XPC/NSXPCListenerEndpoint.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace Platform {

std::shared_ptr<NSXPCListenerEndpoint> NSXPCListenerEndpoint::adopt(UniqueFd descriptor) {
  const int flags = ::fcntl(descriptor.get(), F_GETFL);
  struct stat status {};
  if (flags < 0 || (flags & O_PATH) == 0 || ::fstat(descriptor.get(), &status) != 0 ||
      !S_ISSOCK(status.st_mode)) {
    return nullptr;
  }
  return std::make_shared<NSXPCListenerEndpoint>(std::move(descriptor));
}

}  // namespace Platform

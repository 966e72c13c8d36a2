#include "Platform/XPC/NSXPCListenerEndpoint.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include "Platform/Runtime/ClosingTogether.h"

namespace Platform {

namespace {

// The device that the kernel gives as that of all sockets' own inodes.
dev_t socketDevice() {
  static const dev_t device = [] {
    const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct stat status {};
    return ::fstat(socket.get(), &status) == 0 ? status.st_dev : 0;
  }();
  return device;
}

}  // namespace

std::shared_ptr<NSXPCListenerEndpoint> NSXPCListenerEndpoint::adopt(UniqueFd& descriptor) {
  // A socket's inode in a file system cannot be opened but with O_PATH, so where the inode is tells
  // both: one call instead of two, on the path of every request that carries an endpoint.
  struct stat status {};
  if (::fstat(descriptor.get(), &status) != 0 || !S_ISSOCK(status.st_mode) ||
      status.st_dev == socketDevice()) {
    return nullptr;
  }
  return std::make_shared<NSXPCListenerEndpoint>(std::move(descriptor));
}

NSXPCListenerEndpoint::~NSXPCListenerEndpoint() {
  ClosingTogether::close(std::move(descriptor_));
}

}  // namespace Platform

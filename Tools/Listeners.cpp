#include "Tools/Listeners.h"

#include <glob.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <system_error>

#include "Platform/Foundation/NSBundle.h"
#include "Platform/Runtime/UniqueFd.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

constexpr std::uint32_t listening = 10;  // TCP_LISTEN, which is every socket's

// Calls `take` with each socket of this network namespace that listens, and the bytes of its
// attributes; with none where the kernel does not tell.
void readTable(const std::function<void(const unix_diag_msg&, int)>& take) {
  const UniqueFd link(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  struct {
    nlmsghdr header;
    unix_diag_req request;
  } question{};
  question.header.nlmsg_len = sizeof question;
  question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  question.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  question.request.sdiag_family = AF_UNIX;
  question.request.udiag_states = 1u << listening;
  question.request.udiag_show = UDIAG_SHOW_VFS | UDIAG_SHOW_RQLEN;
  if (::send(link.get(), &question, sizeof question, 0) < 0) return;
  alignas(nlmsghdr) std::array<std::byte, 64 << 10> buffer;
  for (;;) {
    const ssize_t count = ::recv(link.get(), buffer.data(), buffer.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return;
    auto left = static_cast<unsigned>(count);
    for (auto* header = reinterpret_cast<const nlmsghdr*>(buffer.data()); NLMSG_OK(header, left);
         header = NLMSG_NEXT(header, left)) {
      if (header->nlmsg_type == NLMSG_DONE || header->nlmsg_type == NLMSG_ERROR) return;
      const auto* const message = static_cast<const unix_diag_msg*>(NLMSG_DATA(header));
      take(*message, static_cast<int>(NLMSG_PAYLOAD(header, sizeof *message)));
    }
  }
}

// For each socket, by its own inode, the first process that has it open, of those that may be seen.
std::map<std::uint32_t, pid_t> findOwners() {
  std::map<std::uint32_t, pid_t> owners;
  glob_t descriptors{};
  ::glob("/proc/[0-9]*/fd/*", GLOB_NOSORT, nullptr, &descriptors);
  for (std::size_t i = 0; i < descriptors.gl_pathc; ++i) {
    char target[64] = {};
    std::uint32_t socket = 0;
    pid_t process = 0;
    if (::readlink(descriptors.gl_pathv[i], target, sizeof target - 1) < 0 ||
        std::sscanf(target, "socket:[%" SCNu32 "]", &socket) != 1 ||
        std::sscanf(descriptors.gl_pathv[i], "/proc/%d", &process) != 1) {
      continue;
    }
    const auto [owner, isFirst] = owners.emplace(socket, process);
    owner->second = std::min(owner->second, process);
  }
  ::globfree(&descriptors);
  return owners;
}

Process describe(pid_t process) {
  const std::string folder = "/proc/" + std::to_string(process);
  std::string name;
  std::getline(std::ifstream(folder + "/comm"), name, '\0');
  if (name.ends_with('\n')) name.pop_back();
  std::error_code error;
  const auto executable = std::filesystem::read_symlink(folder + "/exe", error);
  return {process, name, NSBundle::bundleOfExecutable(executable.native()).bundleIdentifier()};
}

}  // namespace

std::string pathOf(const NSXPCListenerEndpoint& endpoint) {
  return "/proc/self/fd/" + std::to_string(endpoint.descriptor());
}

bool isServed(const NSXPCListenerEndpoint& endpoint) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  pathOf(endpoint).copy(address.sun_path, sizeof address.sun_path - 1);
  const UniqueFd asker(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
  return ::connect(asker.get(), generic, sizeof address) == 0 || errno != ECONNREFUSED;
}

Listeners::Listeners() {
  const auto owners = findOwners();
  readTable([&](const unix_diag_msg& message, int left) {
    const auto owner = owners.find(message.udiag_ino);
    Socket socket{false, owner == owners.end() ? 0 : owner->second};
    std::optional<Inode> inode;
    for (auto* at = reinterpret_cast<const rtattr*>(&message + 1); RTA_OK(at, left);
         at = RTA_NEXT(at, left)) {
      if (at->rta_type == UNIX_DIAG_VFS && RTA_PAYLOAD(at) >= sizeof(unix_diag_vfs)) {
        unix_diag_vfs vfs;
        std::memcpy(&vfs, RTA_DATA(at), sizeof vfs);
        inode = {vfs.udiag_vfs_dev, vfs.udiag_vfs_ino};
      } else if (at->rta_type == UNIX_DIAG_RQLEN && RTA_PAYLOAD(at) >= sizeof(unix_diag_rqlen)) {
        unix_diag_rqlen queue;  // of a listening socket: how many wait, and how many may
        std::memcpy(&queue, RTA_DATA(at), sizeof queue);
        socket.isFull = queue.udiag_rqueue > queue.udiag_wqueue;
      }
    }
    if (inode) sockets_.emplace(*inode, socket);
  });
}

Listener Listeners::behind(const NSXPCListenerEndpoint& endpoint) const {
  if (!isServed(endpoint)) return {ListenerState::gone, {}};
  struct stat status {};
  ::fstat(endpoint.descriptor(), &status);
  // As the kernel itself numbers them; both are cut to 32 bits in its table.
  constexpr unsigned minorBits = 20;
  const auto device = major(status.st_dev) << minorBits | minor(status.st_dev);
  const auto socket = sockets_.find({device, static_cast<std::uint32_t>(status.st_ino)});
  if (socket == sockets_.end()) return {ListenerState::served, {}};
  const auto [isFull, owner] = socket->second;
  Listener listener{isFull ? ListenerState::notAnswering : ListenerState::served, {}};
  if (owner != 0) listener.process = describe(owner);
  return listener;
}

}  // namespace Gantrel_Sync_Helper

#include "Tools/Listeners.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>

#include "Platform/Foundation/NSBundle.h"
#include "Platform/Runtime/UniqueFd.h"

namespace Gantrel_Sync_Helper {

using namespace Platform;

namespace {

constexpr std::uint32_t listening = 10;  // TCP_LISTEN, which is every socket's

// As the kernel itself numbers them; both are cut to 32 bits in its table.
using BoundTo = std::pair<std::uint32_t, std::uint32_t>;  // device, inode

BoundTo boundTo(const Sight& sight) {
  constexpr unsigned minorBits = 20;
  return {major(sight.device) << minorBits | minor(sight.device),
          static_cast<std::uint32_t>(sight.inode)};
}

struct Row {
  std::uint32_t socket;  // the inode of the socket itself
  bool isFull;
};
using Rows = std::map<BoundTo, Row>;

void addRow(Rows& rows, const nlmsghdr* header) {
  const auto* const message = static_cast<const unix_diag_msg*>(NLMSG_DATA(header));
  std::optional<BoundTo> place;
  Row row{message->udiag_ino, false};
  auto left = static_cast<int>(NLMSG_PAYLOAD(header, sizeof *message));
  for (auto* at = reinterpret_cast<const rtattr*>(message + 1); RTA_OK(at, left);
       at = RTA_NEXT(at, left)) {
    if (at->rta_type == UNIX_DIAG_VFS && RTA_PAYLOAD(at) >= sizeof(unix_diag_vfs)) {
      unix_diag_vfs vfs;
      std::memcpy(&vfs, RTA_DATA(at), sizeof vfs);
      place = {vfs.udiag_vfs_dev, vfs.udiag_vfs_ino};
    } else if (at->rta_type == UNIX_DIAG_RQLEN && RTA_PAYLOAD(at) >= sizeof(unix_diag_rqlen)) {
      unix_diag_rqlen queue;  // of a listening socket: how many wait, and how many may
      std::memcpy(&queue, RTA_DATA(at), sizeof queue);
      row.isFull = queue.udiag_rqueue > queue.udiag_wqueue;
    }
  }
  if (place) rows.emplace(*place, row);
}

// All sockets of this network namespace that listen; none of them where the kernel does not tell.
Rows listeningSockets() {
  Rows rows;
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
  if (::send(link.get(), &question, sizeof question, 0) < 0) return rows;
  alignas(nlmsghdr) std::array<std::byte, 64 << 10> buffer;
  for (;;) {
    const ssize_t count = ::recv(link.get(), buffer.data(), buffer.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return rows;
    auto left = static_cast<unsigned>(count);
    for (auto* header = reinterpret_cast<const nlmsghdr*>(buffer.data()); NLMSG_OK(header, left);
         header = NLMSG_NEXT(header, left)) {
      if (header->nlmsg_type == NLMSG_DONE || header->nlmsg_type == NLMSG_ERROR) return rows;
      addRow(rows, header);
    }
  }
}

template <class Number>
std::optional<Number> number(std::string_view digits) {
  Number value = 0;
  const auto end = digits.data() + digits.size();
  const auto [rest, error] = std::from_chars(digits.data(), end, value);
  return error == std::errc() && rest == end ? std::optional(value) : std::nullopt;
}

// For each of the sockets, the first process that has it open, of those that may be seen.
using Owners = std::unordered_map<std::uint32_t, pid_t>;

void findOwners(Owners& owners) {
  constexpr std::string_view prefix = "socket:[";
  std::error_code error;
  for (std::filesystem::directory_iterator entry("/proc", error), end; !error && entry != end;
       entry.increment(error)) {
    const auto process = number<pid_t>(entry->path().filename().native());
    if (!process) continue;
    std::error_code hidden;
    for (std::filesystem::directory_iterator descriptor(entry->path() / "fd", hidden);
         !hidden && descriptor != end; descriptor.increment(hidden)) {
      std::error_code closed;
      const std::string target = std::filesystem::read_symlink(descriptor->path(), closed).native();
      if (!target.starts_with(prefix)) continue;
      const std::string_view digits = std::string_view(target).substr(prefix.size());
      const auto socket = number<std::uint32_t>(digits.substr(0, digits.size() - 1));
      const auto owner = socket ? owners.find(*socket) : owners.end();
      if (owner == owners.end()) continue;
      owner->second = owner->second == 0 ? *process : std::min(owner->second, *process);
    }
  }
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

Sight look(const NSXPCListenerEndpoint& endpoint) {
  struct stat status {};
  ::fstat(endpoint.descriptor(), &status);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = "/proc/self/fd/" + std::to_string(endpoint.descriptor());
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const UniqueFd asker(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const bool isRefused =
      ::connect(asker.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
      errno == ECONNREFUSED;
  return {status.st_dev, status.st_ino, !isRefused};
}

std::vector<Listener> listenersBehind(const std::vector<Sight>& sights) {
  const Rows rows = listeningSockets();
  Owners owners;
  for (const Sight& sight : sights) {
    const auto row = rows.find(boundTo(sight));
    if (row != rows.end()) owners.emplace(row->second.socket, 0);
  }
  if (!owners.empty()) findOwners(owners);
  std::map<pid_t, Process> processes;
  std::vector<Listener> listeners;
  for (const Sight& sight : sights) {
    Listener& listener = listeners.emplace_back();
    if (!sight.isBound) continue;
    listener.state = ListenerState::served;
    const auto row = rows.find(boundTo(sight));
    if (row == rows.end()) continue;
    if (row->second.isFull) listener.state = ListenerState::notAnswering;
    const pid_t owner = owners[row->second.socket];
    if (owner == 0) continue;
    if (!processes.contains(owner)) processes.emplace(owner, describe(owner));
    listener.process = processes.at(owner);
  }
  return listeners;
}

}  // namespace Gantrel_Sync_Helper

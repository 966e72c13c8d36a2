#include "Platform/XPC/Socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Platform/XPC/Wire.h"

namespace Platform {
namespace {

constexpr int longestQueue = 4096;

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

UniqueFd newSocket(int flags) {
  return UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
}

}  // namespace

void setReceivePatience(int socket, std::chrono::microseconds patience) {
  const timeval time{0, patience.count()};
  ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
}

Received receive(int socket, std::span<std::byte> buffer, ForeignDescriptors& descriptors,
                 Wait wait) {
  Received received;
  iovec bytes{buffer.data(), buffer.size()};
  alignas(cmsghdr) char
      control[CMSG_SPACE(Wire::mostDescriptors * sizeof(int)) + CMSG_SPACE(sizeof(ucred))];
  msghdr message{};
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  ssize_t count;
  do {
    count = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC | (wait == Wait::no ? MSG_DONTWAIT : 0));
  } while (count < 0 && errno == EINTR);
  if (count < 0 && errno == EAGAIN) {
    received.outcome = Received::Outcome::nothingYet;
    return received;
  }
  if (count < 0) return received;
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level != SOL_SOCKET) continue;
    if (header->cmsg_type == SCM_CREDENTIALS) {
      ucred sender;
      std::memcpy(&sender, CMSG_DATA(header), sizeof sender);
      received.sender = sender.pid;
    }
    if (header->cmsg_type != SCM_RIGHTS) continue;
    const std::size_t carried = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < carried; ++i) {
      int descriptor;
      std::memcpy(&descriptor, CMSG_DATA(header) + i * sizeof(int), sizeof descriptor);
      descriptors.add(UniqueFd(descriptor));
    }
  }
  if (count == 0) return received;
  received.lostDescriptors = (message.msg_flags & MSG_CTRUNC) != 0;
  received.outcome = Received::Outcome::data;
  received.bytes = static_cast<std::size_t>(count);
  return received;
}

void tellSenders(int socket, bool whether) {
  const int on = whether ? 1 : 0;
  ::setsockopt(socket, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
}

std::span<const std::byte> peek(int socket, std::span<std::byte> buffer) {
  const ssize_t count = ::recv(socket, buffer.data(), buffer.size(), MSG_PEEK | MSG_DONTWAIT);
  return buffer.first(count > 0 ? static_cast<std::size_t>(count) : 0);
}

bool mayPeerRead(int socket) {
  pollfd state{socket, 0, 0};
  return ::poll(&state, 1, 0) == 0;  // else it has hung up
}

Connected connectTo(const std::string& path) {
  Connected result;
  if (!fitsSocketAddress(path)) return result;
  UniqueFd socket = newSocket(SOCK_NONBLOCK);
  if (!socket.isValid()) {
    result.outcome = ConnectOutcome::tryLater;
    return result;
  }
  const sockaddr_un address = addressOf(path);
  while (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
         0) {
    if (errno == EINTR) continue;
    if (errno == EAGAIN) result.outcome = ConnectOutcome::tryLater;
    return result;
  }
  // From here on each call says for itself whether it waits.
  ::fcntl(socket.get(), F_SETFL, O_RDWR);
  result.outcome = ConnectOutcome::connected;
  result.socket = std::move(socket);
  return result;
}

UniqueFd bindTo(const std::string& path) {
  UniqueFd socket = newSocket(SOCK_NONBLOCK);
  const sockaddr_un address = addressOf(path);
  if (!fitsSocketAddress(path) || !socket.isValid() ||
      ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return {};
  }
  // The folder is private already; the mode says it again for whoever looks at the socket alone.
  if (::chmod(path.c_str(), 0600) != 0) {
    ::unlink(path.c_str());
    return {};
  }
  return socket;
}

bool fitsSocketAddress(const std::string& path) {
  return path.size() < sizeof(sockaddr_un::sun_path) && path.find('\0') == std::string::npos;
}

bool listenOn(int socket) {
  return ::listen(socket, longestQueue) == 0;
}

bool isPeerOfThisUser(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
         peer.uid == ::geteuid();
}

}  // namespace Platform

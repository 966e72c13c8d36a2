#include "Benchmarks/Broker/FloorFrames.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Benchmark {
namespace {

constexpr std::size_t descriptorsPerCall = 253;  // SCM_MAX_FD of the kernel
constexpr std::size_t readSize = 64 << 10;
constexpr std::size_t mostLength = 256 << 20;

struct Header {
  std::uint32_t length;
  FrameKind kind;
  std::uint64_t serial;
};

// What the agent's frames hold beside the identifier, less the serial.
constexpr std::size_t envelopeSize(FrameKind kind) {
  return kind == FrameKind::retrieve || kind == FrameKind::registration ? 46 : 2;
}

}  // namespace

void appendFrame(std::vector<char>& out, const Frame& frame) {
  const std::size_t envelope = envelopeSize(frame.kind);
  const Header header{static_cast<std::uint32_t>(envelope + frame.payload.size()), frame.kind,
                      frame.serial};
  const std::size_t start = out.size();
  out.resize(start + sizeof header + header.length);
  std::memcpy(out.data() + start, &header, sizeof header);
  frame.payload.copy(out.data() + start + sizeof header + envelope, frame.payload.size());
}

bool sendAll(int socket, std::span<const char> bytes, std::span<const int> descriptors) {
  alignas(cmsghdr) char control[CMSG_SPACE(descriptorsPerCall * sizeof(int))];
  while (!bytes.empty()) {
    iovec part{const_cast<char*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (!descriptors.empty()) {
      message.msg_control = control;
      message.msg_controllen = CMSG_SPACE(descriptors.size_bytes());
      cmsghdr* const rights = CMSG_FIRSTHDR(&message);
      rights->cmsg_level = SOL_SOCKET;
      rights->cmsg_type = SCM_RIGHTS;
      rights->cmsg_len = CMSG_LEN(descriptors.size_bytes());
      std::memcpy(CMSG_DATA(rights), descriptors.data(), descriptors.size_bytes());
    }
    const ssize_t sent = ::sendmsg(socket, &message, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(sent));
    descriptors = {};
  }
  return true;
}

FrameReader::FrameReader(int socket) : socket_(socket), buffer_(readSize) {}

bool FrameReader::receive() {
  // Move the rest to the front; make room for the whole of a frame that is longer than the buffer.
  if (begin_ != 0) std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
  end_ -= begin_;
  begin_ = 0;
  if (end_ >= sizeof(Header)) {
    Header header;
    std::memcpy(&header, buffer_.data(), sizeof header);
    if (header.length > mostLength) return false;
    buffer_.resize(std::max(buffer_.size(), sizeof header + header.length));
  }

  alignas(cmsghdr) char control[CMSG_SPACE(descriptorsPerCall * sizeof(int))];
  iovec part{buffer_.data() + end_, buffer_.size() - end_};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  ssize_t received;
  do {
    received = ::recvmsg(socket_, &message, MSG_CMSG_CLOEXEC);
  } while (received < 0 && errno == EINTR);
  if (received <= 0) return false;
  end_ += static_cast<std::size_t>(received);
  for (cmsghdr* rights = CMSG_FIRSTHDR(&message); rights; rights = CMSG_NXTHDR(&message, rights)) {
    for (std::size_t at = CMSG_LEN(0); at < rights->cmsg_len; at += sizeof(int)) {
      int descriptor;
      std::memcpy(&descriptor, reinterpret_cast<const char*>(rights) + at, sizeof descriptor);
      descriptors_.emplace_back(descriptor);
    }
  }
  return true;
}

std::optional<Frame> FrameReader::next() {
  Header header;
  if (end_ - begin_ < sizeof header) return std::nullopt;
  std::memcpy(&header, buffer_.data() + begin_, sizeof header);
  if (end_ - begin_ - sizeof header < header.length) return std::nullopt;
  if (header.length < envelopeSize(header.kind)) return std::nullopt;
  std::string_view payload(buffer_.data() + begin_ + sizeof header, header.length);
  payload.remove_prefix(envelopeSize(header.kind));
  begin_ += sizeof header + header.length;
  return Frame{header.kind, header.serial, payload};
}

std::optional<Frame> FrameReader::wait() {
  for (;;) {
    if (std::optional<Frame> frame = next()) return frame;
    if (!receive()) return std::nullopt;
  }
}

Descriptor FrameReader::takeDescriptor() {
  if (descriptors_.empty()) return {};
  Descriptor descriptor = std::move(descriptors_.front());
  descriptors_.pop_front();
  return descriptor;
}

}  // namespace Benchmark

// HostilePeer: a client that writes to the agent's socket by itself, so that it can break every
// rule.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <algorithm>

#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/XPC/Codec.h"
#include "Platform/XPC/Socket.h"
#include "Tests/Support/TestProcess.h"

namespace Gantrel_Sync_Helper {

using Bytes = std::vector<std::byte>;

inline Bytes bytesOf(std::string_view characters) {
  const auto bytes = std::as_bytes(std::span(characters));
  return {bytes.begin(), bytes.end()};
}

// A frame around any payload, with any claims.
inline Bytes frameOf(const Bytes& payload, std::uint32_t descriptors, std::uint32_t claimedLength) {
  Bytes frame(Platform::Wire::headerSize + payload.size());
  for (std::size_t i = 0; i < 4; ++i) {
    frame[i] = static_cast<std::byte>(claimedLength >> (8 * i));
    frame[i + 4] = static_cast<std::byte>(descriptors >> (8 * i));
  }
  std::copy(payload.begin(), payload.end(), frame.begin() + Platform::Wire::headerSize);
  return frame;
}
inline Bytes frameOf(const Bytes& payload, std::uint32_t descriptors = 0) {
  return frameOf(payload, descriptors, static_cast<std::uint32_t>(payload.size()));
}

// What the interface's messages look like. Serials below 24 take one byte.
namespace Frames {
inline Bytes message(std::string_view selector, std::string_view text) {
  Platform::Encoder encoder;
  encoder.head(Platform::Wire::Major::array, 3);
  encoder.head(Platform::Wire::Major::unsignedInteger, 0);
  encoder.text(selector);
  encoder.head(Platform::Wire::Major::array, 1);
  encoder.text(text);
  return encoder.finish().bytes;
}
inline Bytes remove(std::string_view identifier) {
  return message("removeListenerEndpoint:", identifier);
}
inline Bytes retrieve(std::uint64_t serial, std::string_view identifier) {
  Platform::Encoder encoder;
  encoder.head(Platform::Wire::Major::array, 4);
  encoder.head(Platform::Wire::Major::unsignedInteger, 1);
  encoder.head(Platform::Wire::Major::unsignedInteger, serial);
  encoder.text("retrieveListenerEndpoint:completionHandler:");
  encoder.head(Platform::Wire::Major::array, 1);
  encoder.text(identifier);
  return encoder.finish().bytes;
}
// Registers the frame's descriptor with that index; declares `descriptors` of them.
inline Bytes enroll(std::uint64_t serial, std::string_view identifier,
                    std::uint32_t descriptors = 1, std::uint64_t index = 0) {
  Platform::Encoder encoder;
  encoder.head(Platform::Wire::Major::array, 4);
  encoder.head(Platform::Wire::Major::unsignedInteger, 1);
  encoder.head(Platform::Wire::Major::unsignedInteger, serial);
  encoder.text("registerListenerEndpoint:forIdentifier:completionHandler:");
  encoder.head(Platform::Wire::Major::array, 2);
  encoder.head(Platform::Wire::Major::tag, Platform::Wire::endpointTag);
  encoder.head(Platform::Wire::Major::unsignedInteger, index);
  encoder.text(identifier);
  Bytes bytes = encoder.finish().bytes;
  return frameOf({bytes.begin() + Platform::Wire::headerSize, bytes.end()}, descriptors);
}
// Replies as the agent writes them.
inline Bytes yes(std::uint8_t serial) {
  return frameOf(
      {std::byte{0x83}, std::byte{2}, std::byte{serial}, std::byte{0x81}, std::byte{0xF5}});
}
inline Bytes nil(std::uint8_t serial) {
  return frameOf(
      {std::byte{0x83}, std::byte{2}, std::byte{serial}, std::byte{0x81}, std::byte{0xF6}});
}
inline Bytes refusal(std::uint8_t serial) {
  return frameOf({std::byte{0x82}, std::byte{3}, std::byte{serial}});
}
}  // namespace Frames

class HostilePeer {
 public:
  HostilePeer() = default;  // not connected
  // Waits while more peers wait to be accepted than the agent's queue takes.
  explicit HostilePeer(const std::string& path) {
    EXPECT_TRUE(TestSupport::eventually([&] {
      Platform::Connected connected = Platform::connectTo(path);
      socket_ = std::move(connected.socket);
      return connected.outcome != Platform::ConnectOutcome::tryLater;
    }));
    EXPECT_TRUE(socket_.isValid());
  }

  int socket() const { return socket_.get(); }

  // How many of the bytes went without waiting. The descriptors go with the first of them.
  std::size_t send(std::span<const std::byte> bytes, const std::vector<int>& descriptors = {}) {
    iovec content{const_cast<std::byte*>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(253 * sizeof(int))> control{};
    if (!descriptors.empty()) {
      const std::size_t size = descriptors.size() * sizeof(int);
      message.msg_control = control.data();
      message.msg_controllen = CMSG_SPACE(size);
      cmsghdr* const header = CMSG_FIRSTHDR(&message);
      header->cmsg_level = SOL_SOCKET;
      header->cmsg_type = SCM_RIGHTS;
      header->cmsg_len = CMSG_LEN(size);
      std::memcpy(CMSG_DATA(header), descriptors.data(), size);
    }
    const ssize_t count = ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    return count < 0 ? 0 : static_cast<std::size_t>(count);
  }

  void finishSending() { ::shutdown(socket_.get(), SHUT_WR); }

  // What the agent sends, up to `count` bytes; less when it ends the connection before.
  Bytes read(std::size_t count) {
    Bytes all;
    while (all.size() < count) {
      pollfd readable{socket_.get(), POLLIN, 0};
      if (::poll(&readable, 1, 60'000) != 1) ADD_FAILURE() << "neither an answer nor an end";
      std::array<std::byte, 65536> buffer;
      const auto room = std::span(buffer).first(std::min(buffer.size(), count - all.size()));
      const Platform::Received received =
          Platform::receive(socket_.get(), room, Platform::Wait::no);
      if (received.outcome != Platform::Received::Outcome::data) break;
      all.insert(all.end(), buffer.begin(), buffer.begin() + static_cast<long>(received.bytes));
    }
    return all;
  }
  Bytes readToEnd() { return read(SIZE_MAX); }

 private:
  Platform::UniqueFd socket_;
};

}  // namespace Gantrel_Sync_Helper

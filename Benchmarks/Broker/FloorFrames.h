// The floors' wire: what bare sendmsg and recvmsg need to carry the same requests and replies.
//
// A frame is a Header and `length` bytes, as many as the agent's takes. A request carries the
// identifier, a reply nothing; the one descriptor of a registration or of a retrieved endpoint
// rides along as SCM_RIGHTS.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "Benchmarks/Broker/Descriptor.h"

namespace Benchmark {

enum class FrameKind : std::uint32_t { retrieve, registration, reply, replyWithEndpoint };

struct Frame {
  FrameKind kind;
  std::uint64_t serial;      // of the request, repeated by its reply
  std::string_view payload;  // valid until the next call of FrameReader::receive
};

void appendFrame(std::vector<char>& out, const Frame& frame);

// Blocks until all is sent; the descriptors ride with the first byte. False when the peer is gone.
bool sendAll(int socket, std::span<const char> bytes, std::span<const int> descriptors = {});

// Splits what arrives into frames.
class FrameReader {
 public:
  explicit FrameReader(int socket);

  // One recvmsg; blocks. False when the peer is gone.
  bool receive();
  // The next complete frame of what was received, or none.
  std::optional<Frame> next();
  // Blocks for one frame. None when the peer is gone.
  std::optional<Frame> wait();
  // The oldest descriptor that arrived; an invalid one when there is none.
  Descriptor takeDescriptor();

 private:
  const int socket_;
  std::vector<char> buffer_;
  std::size_t begin_ = 0;  // of what is not yet taken
  std::size_t end_ = 0;
  std::deque<Descriptor> descriptors_;
};

}  // namespace Benchmark

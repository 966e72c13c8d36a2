// FrameReader: cuts a byte stream, and the descriptors that come with it, into frames.
//
// What it keeps of a frame that is not complete is at most what arrived of it. The descriptors of a
// frame come with its first bytes (Documentation/wire-protocol.md), so they may wait a long time
// for its last: whoever reads asks, while the process holds many, how far it may go.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "Platform/XPC/Budget.h"
#include "Platform/XPC/Decoder.h"
#include "Platform/XPC/ForeignDescriptors.h"

namespace Platform {

// Whether all descriptors that were sent with what was received came with it.
enum class Arrived { all, some };

// One for a link's life. Not synchronised: used by whoever reads the link.
class FrameReader {
 public:
  // Takes the bytes that one receive brought, whose descriptors are among those that are arriving,
  // and appends the frames that it completes; `bytes` lends them their payloads. False when the
  // stream is not of the wire's format, or when it cannot be told whose descriptors were lost; it
  // has no future then.
  bool feed(std::span<const std::byte> bytes, Arrived arrived, std::vector<Frame>& frames);

  // In order of arrival, those that no frame has yet: what a receive brings is added to them.
  ForeignDescriptors& arriving() { return descriptors_; }

  // How many descriptors are here that no frame begun so far has declared.
  std::size_t undeclaredDescriptors() const;

  // Whether so many more bytes may be received now, as far as the frame that has begun decides. A
  // large one takes them from the process's budget.
  bool mayGrow(std::size_t bytes);
  bool isInLargeFrame() const { return !isInHeader() && payloadBytes_ > Wire::largePayload; }

  // How many of the bytes that are to be received next may be received without a frame's more than
  // a few descriptors: none when one of them has, since the kernel gives them with the first bytes
  // of the call that sent them; and not those of which it cannot be told yet.
  std::size_t bytesWithFewDescriptors(std::span<const std::byte> next) const;

 private:
  struct Header {
    std::size_t payloadBytes;
    std::size_t descriptors;
  };
  static Header parsed(const std::byte* header);

  bool isInHeader() const { return headerBytes_ < header_.size(); }
  bool readHeader(const std::byte* bytes);
  bool completeFrame(Arrived arrived, std::vector<Frame>& frames);

  std::array<std::byte, Wire::headerSize> header_{};
  std::size_t headerBytes_ = 0;
  std::size_t payloadBytes_ = 0;         // declared; valid when the header is complete
  std::size_t declaredDescriptors_ = 0;  // likewise
  bool lacksDescriptors_ = false;        // some of the frame's were lost
  std::vector<std::byte> payload_;       // grows with what arrives, not with what was declared
  BudgetPart part_;                      // the payload's, if it is large
  ForeignDescriptors descriptors_;       // those that are arriving
};

}  // namespace Platform

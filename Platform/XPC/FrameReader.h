// FrameReader: cuts a byte stream, and the descriptors that come with it, into frames.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "Platform/Runtime/UniqueFd.h"
#include "Platform/XPC/Codec.h"

namespace Platform {

// One for a connection's life. Not synchronised: used by whoever reads the connection.
class FrameReader {
 public:
  // Takes what one receive brought and appends the frames that it completes. False when the stream
  // is not of the wire's format; it has no future then.
  bool feed(std::span<const std::byte> bytes, std::vector<UniqueFd> descriptors,
            std::vector<Frame>& frames);

  // Whether descriptors are here that no frame begun so far has declared.
  bool hasUndeclaredDescriptors() const;

 private:
  bool isInHeader() const { return headerBytes_ < header_.size(); }
  bool readHeader();
  bool completeFrame(std::vector<Frame>& frames);
  std::size_t waitingDescriptors() const { return descriptors_.size() - takenDescriptors_; }
  std::vector<UniqueFd>::iterator firstWaiting() {
    return descriptors_.begin() + static_cast<std::ptrdiff_t>(takenDescriptors_);
  }

  std::array<std::byte, Wire::headerSize> header_{};
  std::size_t headerBytes_ = 0;
  std::size_t payloadBytes_ = 0;         // declared; valid when the header is complete
  std::size_t declaredDescriptors_ = 0;  // likewise
  std::vector<std::byte> payload_;       // grows with what arrives, not with what was declared
  std::vector<UniqueFd> descriptors_;    // in order of arrival
  std::size_t takenDescriptors_ = 0;     // so many at the front went with frames
};

}  // namespace Platform

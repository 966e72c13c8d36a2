#include "Platform/XPC/FrameReader.h"

#include <algorithm>
#include <iterator>

namespace Platform {
namespace {

std::size_t loadLittleEndian(const std::byte* bytes) {
  std::uint32_t number = 0;
  for (int i = 3; i >= 0; --i) number = number << 8 | std::to_integer<std::uint32_t>(bytes[i]);
  return number;
}

// What may wait for the rest of its frame: a whole frame's worth, and two more receives', since one
// that is full may end within the bytes that brought descriptors.
constexpr std::size_t mostWaitingDescriptors = 3 * Wire::mostDescriptors;

constexpr std::size_t growth = 16;

}  // namespace

bool FrameReader::feed(std::span<const std::byte> bytes, std::vector<UniqueFd> descriptors,
                       std::vector<Frame>& frames) {
  // Those that went with frames leave in one go: to close the gap after each would take long.
  descriptors_.erase(descriptors_.begin(), firstWaiting());
  takenDescriptors_ = 0;
  std::move(descriptors.begin(), descriptors.end(), std::back_inserter(descriptors_));
  if (descriptors_.size() > mostWaitingDescriptors) return false;
  for (;;) {
    if (isInHeader()) {
      const std::size_t count = std::min(bytes.size(), header_.size() - headerBytes_);
      std::copy_n(bytes.begin(), count,
                  header_.begin() + static_cast<std::ptrdiff_t>(headerBytes_));
      bytes = bytes.subspan(count);
      headerBytes_ += count;
      if (isInHeader()) return true;
      if (!readHeader()) return false;
    }
    const std::size_t count = std::min(bytes.size(), payloadBytes_ - payload_.size());
    // At most this many times what has arrived: a claim costs its sender, and an honest one few
    // moves.
    if (const std::size_t size = payload_.size() + count; size > payload_.capacity()) {
      payload_.reserve(std::min(payloadBytes_, growth * size));
    }
    payload_.insert(payload_.end(), bytes.begin(),
                    bytes.begin() + static_cast<std::ptrdiff_t>(count));
    bytes = bytes.subspan(count);
    if (payload_.size() < payloadBytes_) return true;
    if (!completeFrame(frames)) return false;
  }
}

bool FrameReader::readHeader() {
  payloadBytes_ = loadLittleEndian(header_.data());
  declaredDescriptors_ = loadLittleEndian(header_.data() + 4);
  return payloadBytes_ <= Wire::mostPayloadBytes && declaredDescriptors_ <= Wire::mostDescriptors;
}

bool FrameReader::completeFrame(std::vector<Frame>& frames) {
  // Descriptors travel with their frame's first bytes, so by now they must be here.
  if (waitingDescriptors() < declaredDescriptors_) return false;
  Frame& frame = frames.emplace_back();
  frame.payload.swap(payload_);
  const auto first = std::make_move_iterator(firstWaiting());
  frame.descriptors.assign(first, first + static_cast<std::ptrdiff_t>(declaredDescriptors_));
  takenDescriptors_ += declaredDescriptors_;
  headerBytes_ = 0;
  return true;
}

bool FrameReader::hasUndeclaredDescriptors() const {
  if (headerBytes_ == 0) return waitingDescriptors() != 0;
  return !isInHeader() && waitingDescriptors() > declaredDescriptors_;
}

}  // namespace Platform

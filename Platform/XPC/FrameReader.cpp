#include "Platform/XPC/FrameReader.h"

#include <endian.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace Platform {
namespace {

std::size_t loadLittleEndian(const std::byte* bytes) {
  std::uint32_t number;
  std::memcpy(&number, bytes, sizeof number);
  return le32toh(number);
}

// What may wait for the rest of its frame: a whole frame's worth, and two more receives', since one
// that is full may end within the bytes that brought descriptors.
constexpr std::size_t mostWaitingDescriptors = 3 * Wire::mostDescriptors;

constexpr std::size_t growth = 16;

}  // namespace

FrameReader::Header FrameReader::parsed(const std::byte* header) {
  return {loadLittleEndian(header), loadLittleEndian(header + 4)};
}

bool FrameReader::feed(std::span<const std::byte> bytes, Arrived arrived,
                       std::vector<Frame>& frames) {
  if (descriptors_.size() > mostWaitingDescriptors) return false;
  for (;;) {
    if (headerBytes_ == 0 && bytes.size() >= header_.size()) {
      if (!readHeader(bytes.data())) return false;
      bytes = bytes.subspan(header_.size());
    } else if (isInHeader()) {
      const std::size_t count = std::min(bytes.size(), header_.size() - headerBytes_);
      std::copy_n(bytes.begin(), count,
                  header_.begin() + static_cast<std::ptrdiff_t>(headerBytes_));
      bytes = bytes.subspan(count);
      headerBytes_ += count;
      // Of a frame that is not known yet it cannot be told whether it lost any.
      if (isInHeader()) return arrived == Arrived::all || headerBytes_ == 0;
      if (!readHeader(header_.data())) return false;
    }
    const std::size_t count = std::min(bytes.size(), payloadBytes_ - payload_.size());
    const auto part = bytes.first(count);
    bytes = bytes.subspan(count);
    // Most frames come whole, and their bytes stay where they are.
    if (count == payloadBytes_) {
      if (!completeFrame(arrived, frames)) return false;
      frames.back().payload = part;
      continue;
    }
    // At most this many times what has arrived: a claim costs its sender, and an honest one few
    // moves.
    if (const std::size_t size = payload_.size() + count; size > payload_.capacity()) {
      payload_.reserve(std::min(payloadBytes_, growth * size));
    }
    payload_.insert(payload_.end(), part.begin(), part.end());
    if (payload_.size() < payloadBytes_) {
      if (arrived == Arrived::some && descriptors_.size() < declaredDescriptors_) {
        lacksDescriptors_ = true;
        descriptors_ = {};
      }
      return true;
    }
    if (!completeFrame(arrived, frames)) return false;
    frames.back().keep(std::exchange(payload_, {}));
  }
}

bool FrameReader::readHeader(const std::byte* bytes) {
  const Header header = parsed(bytes);
  headerBytes_ = header_.size();
  payloadBytes_ = header.payloadBytes;
  declaredDescriptors_ = header.descriptors;
  return payloadBytes_ <= Wire::mostPayloadBytes && declaredDescriptors_ <= Wire::mostDescriptors;
}

bool FrameReader::completeFrame(Arrived arrived, std::vector<Frame>& frames) {
  // Descriptors travel with their frame's first bytes, so by now they must be here.
  const std::size_t here =
      std::min(lacksDescriptors_ ? 0 : declaredDescriptors_, descriptors_.size());
  if (here < declaredDescriptors_ && !lacksDescriptors_) {
    if (arrived == Arrived::all) return false;
    lacksDescriptors_ = true;
  }
  Frame& frame = frames.emplace_back();
  if (here != 0) descriptors_.giveFirst(here, frame.descriptors);
  frame.lacksDescriptors = std::exchange(lacksDescriptors_, false);
  if (isInLargeFrame()) frame.part = std::move(part_);
  headerBytes_ = 0;
  return true;
}

std::size_t FrameReader::undeclaredDescriptors() const {
  if (headerBytes_ == 0) return descriptors_.size();
  if (isInHeader()) return 0;  // not known yet
  const std::size_t declared = lacksDescriptors_ ? 0 : declaredDescriptors_;
  return descriptors_.size() - std::min(descriptors_.size(), declared);
}

bool FrameReader::mayGrow(std::size_t bytes) {
  return !isInLargeFrame() || part_.reach(std::min(payload_.size() + bytes, payloadBytes_));
}

std::size_t FrameReader::bytesWithFewDescriptors(std::span<const std::byte> next) const {
  std::array<std::byte, Wire::headerSize> header = header_;
  std::size_t known = headerBytes_;
  std::size_t place = isInHeader() ? 0 : payloadBytes_ - payload_.size();
  if (!isInHeader()) known = 0;
  while (place < next.size()) {
    const std::size_t count = std::min(header.size() - known, next.size() - place);
    std::copy_n(next.begin() + static_cast<std::ptrdiff_t>(place), count,
                header.begin() + static_cast<std::ptrdiff_t>(known));
    const Header frame = parsed(header.data());
    if (known + count < header.size()) return place;
    if (frame.descriptors > Wire::fewDescriptors) return 0;
    place += count + frame.payloadBytes;
    known = 0;
  }
  return next.size();
}

}  // namespace Platform

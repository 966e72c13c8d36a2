#include "Platform/XPC/Outbox.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

namespace Platform {
namespace {

// Descriptors under way count against the user, and past the limit nobody of that user can send
// any. A peer that stops reading must not hold many: few go in one call, and once a connection has
// sent some, its socket buffer is made small. Neither costs throughput.
constexpr std::size_t mostDescriptorsPerSend = 64;
constexpr std::size_t descriptorsBeforeSmallBuffer = 64;
constexpr int smallBuffer = 8 << 10;  // doubled by the kernel, see socket(7)

// What one call sends the kernel cuts into pieces, and the descriptors arrive with the first. The
// header that declares them must be in that piece too, or the peer takes them for undeclared. No
// piece but the last is smaller than half a send buffer, less 64 bytes.
constexpr std::size_t mostBytesAhead = smallBuffer - 1024;

constexpr std::size_t keptWhenBusy = 16 << 10;  // bytes of memory, from one send to the next
constexpr std::size_t keptAtRest = 512;
constexpr std::size_t compactAfter = 16 << 10;  // sent bytes that may stay in front of waiting ones

}  // namespace

void Outbox::append(OutgoingFrame&& frame) {
  for (EndpointRef& endpoint : frame.endpoints) {
    endpoints_.push_back({bytes_.size(), std::move(endpoint)});
  }
  if (bytes_.empty() && frame.bytes.size() > bytes_.capacity()) {
    bytes_ = frame.bytes.release();
  } else {
    bytes_.insert(bytes_.end(), frame.bytes.begin(), frame.bytes.end());
  }
}

Outbox::Result Outbox::sendAll(int socket) {
  bool mayCarry = true;
  while (!isEmpty()) {
    // Take the endpoints of whole frames until the next would make it too many, or is too far away;
    // its bytes must then stay behind as well, since descriptors go no later than the first byte of
    // their frame.
    int descriptors[Wire::mostDescriptors];
    std::size_t count = 0;
    std::size_t end = bytes_.size();
    std::size_t next = endpointsSent_;
    while (next < endpoints_.size()) {
      const std::size_t start = endpoints_[next].start;
      std::size_t last = next;
      while (last < endpoints_.size() && endpoints_[last].start == start) ++last;
      const bool isTooMany = count != 0 && count + (last - next) > mostDescriptorsPerSend;
      if (!mayCarry || isTooMany || start > sent_ + mostBytesAhead) {
        end = start;
        break;
      }
      for (; next < last; ++next) descriptors[count++] = endpoints_[next].endpoint->descriptor();
    }

    iovec bytes{bytes_.data() + sent_, end - sent_};
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptors)];
    if (count != 0) {
      if (!bufferIsSmall_ && descriptorsSent_ + count > descriptorsBeforeSmallBuffer) {
        ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &smallBuffer, sizeof smallBuffer);
        bufferIsSmall_ = true;
      }
      message.msg_control = control;
      message.msg_controllen = CMSG_SPACE(count * sizeof(int));
      cmsghdr* const header = CMSG_FIRSTHDR(&message);
      header->cmsg_level = SOL_SOCKET;
      header->cmsg_type = SCM_RIGHTS;
      header->cmsg_len = CMSG_LEN(count * sizeof(int));
      std::memcpy(CMSG_DATA(header), descriptors, count * sizeof(int));
    }
    const ssize_t sent = ::sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0) {
      const int error = errno;
      if (error == EINTR) continue;
      if (error == ETOOMANYREFS && endpoints_[endpointsSent_].start > sent_) {
        mayCarry = false;  // what stands before the first of them need not wait
        continue;
      }
      dropSent();
      if (error == EAGAIN) return Result::blocked;
      return error == ETOOMANYREFS ? Result::tryLater : Result::broken;
    }
    mayCarry = true;
    // A partial send has sent all its descriptors.
    sent_ += static_cast<std::size_t>(sent);
    descriptorsSent_ += count;
    for (; endpointsSent_ < next; ++endpointsSent_) endpoints_[endpointsSent_].endpoint.reset();
  }
  clear();
  return Result::done;
}

void Outbox::dropSent() {
  // Not before as much has gone as is to be moved.
  if (sent_ < compactAfter || sent_ < bytes_.size() - sent_) return;
  bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(sent_));
  endpoints_.erase(endpoints_.begin(),
                   endpoints_.begin() + static_cast<std::ptrdiff_t>(endpointsSent_));
  for (Waiting& waiting : endpoints_) waiting.start -= sent_;
  sent_ = 0;
  endpointsSent_ = 0;
}

void Outbox::lose() {
  hasLost_ = hasLost_ || !isEmpty();
  clear();
}

void Outbox::clear() {
  lastResult_ = Result::done;
  bytes_.clear();
  endpoints_.clear();
  sent_ = 0;
  endpointsSent_ = 0;
  if (bytes_.capacity() + endpoints_.capacity() * sizeof(Waiting) > keptWhenBusy) {
    keepAtMost(keptWhenBusy);
  }
}

void Outbox::rest() {
  if (isEmpty()) keepAtMost(keptAtRest);
}

void Outbox::keepAtMost(std::size_t bytes) {
  if (bytes_.capacity() > bytes) bytes_.shrink_to_fit();
  if (endpoints_.capacity() * sizeof(Waiting) > bytes) endpoints_.shrink_to_fit();
}

}  // namespace Platform

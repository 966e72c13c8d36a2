#include "Platform/XPC/Link.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <span>
#include <utility>

namespace Platform {
namespace {

// What one receive brings of small messages, and of a large one. Others get their turn in between.
constexpr std::size_t usualReception = 8 << 10;
constexpr std::size_t largeReception = 64 << 10;

// Whether so many descriptors of peers wait here that frames with more than a few have to wait.
bool descriptorsAreScarce() {
  static const std::size_t plenty = [] {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return std::max<std::size_t>(limit.rlim_cur / 4, Wire::mostDescriptors);
  }();
  return ForeignDescriptors::held() > plenty;
}

}  // namespace

// Not cleared, so a thread that only ever receives little touches little of it.
struct ReceiveRoom::Content {
  static std::unique_ptr<Content>& spareOfThisThread() {
    thread_local std::unique_ptr<Content> spare;
    return spare;
  }

  const std::unique_ptr<std::byte[]> buffer{new std::byte[largeReception]};
  std::vector<Frame> frames;
};

ReceiveRoom::ReceiveRoom() : content_(std::move(Content::spareOfThisThread())) {
  if (!content_) content_ = std::make_unique<Content>();
}

ReceiveRoom::~ReceiveRoom() {
  content_->frames.clear();
  Content::spareOfThisThread() = std::move(content_);
}

std::span<std::byte> ReceiveRoom::buffer() {
  return {content_->buffer.get(), largeReception};
}

std::vector<Frame>& ReceiveRoom::frames() {
  return content_->frames;
}

void Link::askForSender() {
  asksForSender_ = true;
  tellSenders(socket_.get(), true);
}

Reception Link::receive(Wait wait, bool mayHoldBack, ReceiveRoom& room) {
  using Outcome = Reception::Outcome;
  const auto all = room.buffer();
  auto buffer = reader_.isInLargeFrame() ? all : all.first(usualReception);
  if (mayHoldBack && !reader_.mayGrow(buffer.size())) return {Outcome::heldBack};
  // Whether there may be more that belongs to what is received, when the buffer is filled.
  bool mayBeCut = true;
  const bool areScarce = mayHoldBack && descriptorsAreScarce();
  if (areScarce) {
    const auto next = peek(socket_.get(), all);
    const std::size_t fitting = reader_.bytesWithFewDescriptors(next);
    if (fitting == 0 && !next.empty()) return {Outcome::heldBack};
    if (fitting != 0) buffer = all.first(fitting);
    if (!next.empty()) mayBeCut = fitting != next.size() || fitting == all.size();
  }
  const Received received = Platform::receive(socket_.get(), buffer, reader_.arriving(), wait);
  if (received.outcome == Received::Outcome::nothingYet) return {Outcome::nothingYet};
  if (received.outcome == Received::Outcome::ended) return {Outcome::ended};
  if (std::exchange(asksForSender_, false)) tellSenders(socket_.get(), false);
  const bool isFull = received.bytes == buffer.size();
  const bool isCut = isFull && mayBeCut;
  // Whose descriptors were lost can be told only when all is here that was sent with them.
  if (received.lostDescriptors && isCut) return {Outcome::fault};
  const bool isSound =
      reader_.feed(buffer.first(received.bytes),
                   received.lostDescriptors ? Arrived::some : Arrived::all, room.frames());
  // When all that was sent with these descriptors is here, a frame must have claimed them. Else its
  // header is near, unless somebody wants to fill this process with descriptors.
  const std::size_t mayBeUndeclared = !isCut      ? 0
                                      : areScarce ? Wire::fewDescriptors
                                                  : 3 * Wire::mostDescriptors;
  if (!isSound || reader_.undeclaredDescriptors() > mayBeUndeclared) return {Outcome::fault};
  return {Outcome::data, isFull, received.sender};
}

void Link::waitForSocket(short events, std::chrono::milliseconds atMost) {
  constexpr std::chrono::milliseconds longest = std::chrono::hours(1);
  pollfd socket{socket_.get(), events, 0};
  ::poll(&socket, 1, static_cast<int>(std::min(atMost, longest).count()));
}

void Link::setPatience(std::chrono::microseconds patience) {
  if (std::exchange(patience_, patience) != patience) {
    setReceivePatience(socket_.get(), patience);
  }
}

void Link::shutDown() {
  ::shutdown(socket_.get(), SHUT_RDWR);
}

void Link::stopReceiving() {
  ::shutdown(socket_.get(), SHUT_RD);
}

void Link::watchFor(std::uint32_t events, const std::weak_ptr<ReadinessHandler>& handler) {
  watched_.events = events;
  if (watched_.watch) {
    watched_.watch.setEvents(events | EPOLLONESHOT);
  } else {
    watched_.watch = WorkerPool::shared().watch(socket_.get(), events | EPOLLONESHOT, handler);
  }
}

}  // namespace Platform

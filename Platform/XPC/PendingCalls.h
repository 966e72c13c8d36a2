// PendingCalls: the calls of one connection that have no answer yet.
//
// A call in a waiting form lives on the stack of the thread that waits; of any other, the blocks to
// be called are kept here.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "Platform/XPC/Codec.h"
#include "Platform/XPC/Link.h"
#include "Platform/XPC/NSXPCConnectionError.h"
#include "Platform/XPC/Reply.h"

namespace Platform {

struct WaitingCall {
  const std::uint64_t serial;
  std::condition_variable wake = {};
  std::optional<Frame> answer = {};
  Origin origin = {};  // of the answer
  std::optional<NSXPCConnectionError> error = {};

  bool isDone() const { return answer || error; }
  void end(NSXPCConnectionError why);
};

struct PendingCall {
  ReplyReader onReply;
  SharedErrorHandler onError;
  std::uint64_t age = 0;  // how many ends there were before it was made
};

// Guarded by its connection, but for `nextSerial`.
class PendingCalls {
 public:
  using Blocks = std::unordered_map<std::uint64_t, PendingCall>;

  std::uint64_t nextSerial() { return ++lastSerial_; }  // any thread

  void add(std::uint64_t serial, PendingCall call);
  void add(WaitingCall& call) { waiting_.push_back(&call); }
  void remove(WaitingCall& call) { std::erase(waiting_, &call); }

  bool areEmpty() const { return blocks_.empty() && waiting_.empty(); }
  bool anyWaits() const { return !waiting_.empty(); }
  bool anyHasBlocks() const { return !blocks_.empty(); }

  // The call that waits for this frame has it afterwards, and wakes. `reader` is the call whose
  // thread has received the frame, and that may use it where it lies; or null.
  bool giveToWaiting(Frame& frame, const Origin& origin, const WaitingCall* reader);
  std::optional<PendingCall> take(std::uint64_t serial);

  // Ends the calls that wait. Those with blocks may still have an answer among what has arrived:
  // after that, what is left of them is the caller's to end, by the number that this gives.
  std::uint64_t endAll(NSXPCConnectionError why);
  Blocks takeEnded(std::uint64_t end);
  // Wakes the call that has waited longest: somebody has to read.
  void wakeFirst();
  void wakeAll();

 private:
  std::atomic<std::uint64_t> lastSerial_ = 0;
  Blocks blocks_;
  Blocks::node_type spare_;  // an ended call's place: an answer often leads to the next call
  std::vector<WaitingCall*> waiting_;  // in order of arrival
  std::uint64_t ends_ = 0;
};

}  // namespace Platform

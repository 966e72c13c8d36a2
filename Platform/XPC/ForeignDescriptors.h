// ForeignDescriptors: descriptors that came from a peer, until somebody claims them.
//
// To close one may take as long as its sender likes: a socket that lingers, a file of a file system
// that answers slowly. So those that nobody claims are closed by threads that have nothing else to
// do, and that are there only while there is something to close.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <span>
#include <utility>

#include "Platform/Runtime/SmallVector.h"
#include "Platform/Runtime/UniqueFd.h"

namespace Platform {

// Usually one, an endpoint's.
using UniqueFds = SmallVector<UniqueFd, 1>;

// Not synchronised, but for the functions of the class.
class ForeignDescriptors {
 public:
  ForeignDescriptors() = default;
  ForeignDescriptors(ForeignDescriptors&& other) noexcept
      : descriptors_(std::move(other.descriptors_)), taken_(std::exchange(other.taken_, 0)) {}
  ForeignDescriptors& operator=(ForeignDescriptors&& other) noexcept;
  ~ForeignDescriptors() {
    if (!descriptors_.empty()) close({});
  }

  void add(UniqueFd descriptor);
  // Moves the first `count` of them to `other`.
  void giveFirst(std::size_t count, ForeignDescriptors& other);

  // Whoever claims one moves it out; an invalid one stays in its place.
  std::span<UniqueFd> all() {
    return std::span(descriptors_.begin(), descriptors_.end()).subspan(taken_);
  }
  std::size_t size() const { return descriptors_.size() - taken_; }
  bool hasUnclaimed() const {
    return std::any_of(descriptors_.begin(), descriptors_.end(),
                       [](const UniqueFd& descriptor) { return descriptor.isValid(); });
  }

  // Closes those that nobody has claimed, where nobody waits for it. `whileClosing` is released
  // when the last is closed.
  void close(std::shared_ptr<void> whileClosing);

  // How many of the process wait to be claimed or to be closed. Any thread.
  static std::size_t held();

 private:
  void closeGap();

  UniqueFds descriptors_;
  std::size_t taken_ = 0;  // so many at the front have left: to close the gap each time takes long
};

}  // namespace Platform

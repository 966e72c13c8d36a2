// SmallVector: a sequence of which the usual, few items need no memory of their own.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
#include <utility>
#include <vector>

namespace Platform {

// Up to `few` items in place, more of them in a vector.
template <class T, std::size_t few>
class SmallVector {
 public:
  SmallVector() = default;
  SmallVector(SmallVector&& other) noexcept { take(other); }
  SmallVector& operator=(SmallVector&& other) noexcept {
    if (this == &other) return *this;
    if (!empty()) clear();
    take(other);
    return *this;
  }

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T* data() { return size_ <= few ? few_.data() : many_.data(); }
  const T* data() const { return size_ <= few ? few_.data() : many_.data(); }
  T* begin() { return data(); }
  T* end() { return data() + size_; }
  const T* begin() const { return data(); }
  const T* end() const { return data() + size_; }

  void push_back(T item) {
    if (size_ < few) {
      few_[size_] = std::move(item);
    } else {
      if (size_ == few) spill();
      many_.push_back(std::move(item));
    }
    ++size_;
  }

  void append(std::span<const T> items) {
    if (size_ + items.size() <= few) {
      std::copy(items.begin(), items.end(), few_.data() + size_);
    } else {
      if (size_ <= few) spill();
      many_.insert(many_.end(), items.begin(), items.end());
    }
    size_ += items.size();
  }

  // The first `count` of them; to copy all, where there is room, takes less than to copy a few.
  template <std::size_t most>
  void appendFirst(std::size_t count, const std::array<T, most>& items) {
    if (size_ + most <= few) {
      std::copy(items.begin(), items.end(), few_.data() + size_);
      size_ += count;
    } else {
      append(std::span(items).first(count));
    }
  }

  // All of them as a vector; there are none afterwards.
  std::vector<T> release() {
    if (size_ <= few) spill();
    size_ = 0;
    return std::exchange(many_, {});
  }

 private:
  void spill() {
    many_.assign(std::make_move_iterator(few_.begin()),
                 std::make_move_iterator(few_.begin() + static_cast<std::ptrdiff_t>(size_)));
  }
  void clear() {
    for (std::size_t i = 0; i < std::min(size_, few); ++i) few_[i] = T();
    many_.clear();
    size_ = 0;
  }
  // There must be nothing here.
  void take(SmallVector& other) {
    size_ = std::exchange(other.size_, 0);
    if (size_ <= few) {
      std::move(other.few_.data(), other.few_.data() + size_, few_.data());
    } else {
      many_ = std::move(other.many_);
      other.many_.clear();
    }
  }

  std::array<T, few> few_;
  std::vector<T> many_;
  std::size_t size_ = 0;
};

}  // namespace Platform

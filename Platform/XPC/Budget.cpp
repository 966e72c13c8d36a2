#include "Platform/XPC/Budget.h"

#include <mutex>

namespace Platform {
namespace {

constexpr std::size_t most = std::size_t{32} << 20;  // bytes

struct Budget {
  std::mutex mutex;
  // Protected by mutex:
  std::size_t taken = 0;
  bool favoursOne = false;
};

Budget& budget() {
  static Budget* const instance = new Budget;
  return *instance;
}

}  // namespace

BudgetPart& BudgetPart::operator=(BudgetPart&& other) noexcept {
  if (this == &other) return *this;
  giveBack();
  bytes_ = std::exchange(other.bytes_, 0);
  isFavoured_ = std::exchange(other.isFavoured_, false);
  return *this;
}

bool BudgetPart::reach(std::size_t bytes) {
  if (bytes <= bytes_) return true;
  const std::size_t more = bytes - bytes_;
  Budget& all = budget();
  const std::lock_guard lock(all.mutex);
  if (!isFavoured_ && all.taken + more > most) {
    if (all.favoursOne) return false;
    all.favoursOne = isFavoured_ = true;
  }
  all.taken += more;
  bytes_ = bytes;
  return true;
}

void BudgetPart::giveBack() {
  if (bytes_ == 0) return;
  Budget& all = budget();
  const std::lock_guard lock(all.mutex);
  all.taken -= std::exchange(bytes_, 0);
  if (std::exchange(isFavoured_, false)) all.favoursOne = false;
}

}  // namespace Platform

// Budget: what the large messages of all peers together may take of this process's memory before
// they are carried out.
//
// A small message needs none of it. A large one takes its part as its bytes arrive. When there is
// no more, the message that asked first may go on to its end all the same, so that one always can;
// the others wait until something is given back.
#pragma once

#include <cstddef>
#include <utility>

namespace Platform {

// One message's part of the budget, given back at the end of its life. Used by one thread at a
// time.
class BudgetPart {
 public:
  BudgetPart() = default;
  BudgetPart(BudgetPart&& other) noexcept
      : bytes_(std::exchange(other.bytes_, 0)),
        isFavoured_(std::exchange(other.isFavoured_, false)) {}
  BudgetPart& operator=(BudgetPart&& other) noexcept;
  ~BudgetPart() {
    if (bytes_ != 0) giveBack();
  }

  // Makes it as large as `bytes`, unless it is. False when there is no room: then try again some
  // time later.
  bool reach(std::size_t bytes);

 private:
  void giveBack();

  std::size_t bytes_ = 0;
  bool isFavoured_ = false;
};

}  // namespace Platform

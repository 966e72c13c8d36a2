// Task: what a queue runs once, kept in place as far as it fits.
//
// A request of a peer becomes a task of a few captured values. Held as a std::function each would
// be an allocation, and could not capture what only moves.
#pragma once

#include <concepts>
#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace Platform {

// Moves, and is not copied. Used by one thread at a time.
class Task {
 public:
  Task() = default;
  // From anything that can be called without arguments.
  template <class Callable>
  requires(!std::same_as<std::remove_cvref_t<Callable>, Task> &&
           std::invocable<std::decay_t<Callable>&>) Task(Callable&& callable) {
    using Content = std::decay_t<Callable>;
    if constexpr (sizeof(Content) <= room && alignof(Content) <= alignof(void*) &&
                  std::is_nothrow_move_constructible_v<Content>) {
      ::new (place_) Content(std::forward<Callable>(callable));
      does_ = &Does<Content>::table;
    } else {
      *this = Task([content = std::make_unique<Content>(std::forward<Callable>(callable))] {
        (*content)();
      });
    }
  }
  Task(Task&& other) noexcept { take(other); }
  Task& operator=(Task&& other) noexcept {
    if (this == &other) return *this;
    reset();
    take(other);
    return *this;
  }
  ~Task() { reset(); }

  // There must be something to call.
  void operator()() { does_->call(place_); }
  void reset() noexcept {
    if (const Table* const does = std::exchange(does_, nullptr)) does->end(place_);
  }

 private:
  // Enough for a request to the agent.
  static constexpr std::size_t room = 13 * sizeof(void*);

  struct Table {
    void (*call)(void* content);
    void (*move)(void* from, void* to) noexcept;  // and ends what was there
    void (*end)(void* content) noexcept;
  };
  template <class Content>
  struct Does {
    static Content& in(void* place) { return *std::launder(static_cast<Content*>(place)); }
    static constexpr Table table{[](void* content) { in(content)(); },
                                 [](void* from, void* to) noexcept {
                                   ::new (to) Content(std::move(in(from)));
                                   in(from).~Content();
                                 },
                                 [](void* content) noexcept { in(content).~Content(); }};
  };

  void take(Task& other) noexcept {
    if (!other.does_) return;
    other.does_->move(other.place_, place_);
    does_ = std::exchange(other.does_, nullptr);
  }

  const Table* does_ = nullptr;
  alignas(void*) std::byte place_[room];
};

}  // namespace Platform

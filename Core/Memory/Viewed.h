#pragma once

#include <atomic>
#include <cstdint>
#include <new>
#include <utility>

#include "Core/Memory/Allocator.h"
#include "Core/Memory/CrashOwner.h"

namespace core {

/// Large tables that one thread replaces as a whole while any others, a crash too, look things up
/// in them: a view costs two additions, no lock and no copy, and what it shows stays for as long as
/// it exists. For static storage; never destroyed. (State that is copied out is Published.)
///
/// A view counts itself and then takes the pointer; who publishes exchanges the pointer and then
/// looks at the count, all of it sequentially consistent. So if the count is 0, every view made
/// since then has the new state, and nobody has an older one: those are freed, unless a
/// crash has an owner by then. Otherwise they wait for the next publication.
template <class T>
class Viewed {
  struct State {
    T value;
    State* older;  // among those that are not used any more
  };

 public:
  constexpr Viewed() noexcept = default;
  Viewed(const Viewed&) = delete;
  Viewed& operator=(const Viewed&) = delete;

  class View {
   public:
    explicit View(Viewed& viewed) noexcept : viewed_(viewed) {
      viewed_.views_.fetch_add(1, std::memory_order_seq_cst);
      renew();
    }
    View(const View&) = delete;
    View& operator=(const View&) = delete;
    ~View() { viewed_.views_.fetch_sub(1, std::memory_order_release); }

    /// Looks at the newest state from now on.
    void renew() noexcept {
      const State* state = viewed_.current_.load(std::memory_order_seq_cst);
      value_ = state != nullptr ? &state->value : nullptr;
    }

    /// nullptr before the first publication.
    const T* get() const noexcept { return value_; }

   private:
    Viewed& viewed_;
    const T* value_;
  };

  /// The newest state for the thread that publishes, until it does; nullptr before the first.
  const T* current() const noexcept {
    const State* state = current_.load(std::memory_order_relaxed);
    return state != nullptr ? &state->value : nullptr;
  }

  /// By one thread at a time, which has no view itself: that would keep the old states.
  void publish(T value) noexcept {
    auto* made = new (core::allocate(sizeof(State))) State{std::move(value), nullptr};
    State* before = current_.exchange(made, std::memory_order_seq_cst);
    if (before == nullptr || CrashOwner::exists()) {
      return;
    }
    before->older = retired_;
    retired_ = before;
    if (views_.load(std::memory_order_seq_cst) == 0) {
      freeRetired();
    }
  }

 private:
  void freeRetired() noexcept {
    while (retired_ != nullptr) {
      State* older = retired_->older;
      retired_->~State();
      core::deallocate(retired_);
      retired_ = older;
    }
  }

  std::atomic<State*> current_{nullptr};
  std::atomic<std::uint32_t> views_{0};
  State* retired_ = nullptr;
};

}  // namespace core

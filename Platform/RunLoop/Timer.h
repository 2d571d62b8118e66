#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

#include "Core/Memory/Block.h"

namespace platform {

/// A handle on a timer of a run loop; copies mean the same timer. Dropping all handles
/// leaves the timer running.
class Timer {
 public:
  /// No timer: not valid, invalidating it does nothing.
  Timer() noexcept = default;

  /// Ends the timer; any thread, any number of times. Called on the loop's own thread, also
  /// by the timer's block, no call begins afterwards.
  void invalidate() const noexcept;

  /// Whether it may still fire: until invalidated, one that does not repeat until it has fired.
  bool isValid() const noexcept;

  /// Told when one of its timers was invalidated, on whatever thread did it.
  class Owner {
   public:
    virtual void timerInvalidated() noexcept = 0;

   protected:
    ~Owner() = default;
  };

  /// What the queue knows of a timer. The queue's thread alone reads and writes it, but for `valid`.
  struct State {
    Owner* owner;
    std::int64_t deadline;
    std::int64_t interval;  // nanoseconds, 0 for one that fires once
    core::Block<void(Timer&)> block;
    std::atomic<bool> valid{true};
    State* next = nullptr;
    std::shared_ptr<State> self{};  // while it lies in the queue's inbox
  };
  explicit Timer(std::shared_ptr<State> state) noexcept : state_(std::move(state)) {}

 private:
  std::shared_ptr<State> state_;
};

}  // namespace platform

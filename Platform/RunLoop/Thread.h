#pragma once

#include <memory>

#include "Core/Memory/Block.h"
#include "Core/Memory/String.h"

namespace platform {

/// A handle on a thread of this system; copies mean the same thread, and dropping them
/// leaves it running. Every thread that the library makes is made here.
///
/// Such a thread takes no asynchronous signal: they are blocked in it, but not the fault
/// signals (SEGV, BUS, FPE, ILL, TRAP, ABRT, SYS) nor the one that suspends threads. All but start() is
/// fit for the owner of a crash.
class Thread {
 public:
  /// No thread: false, not executing, not cancelled.
  Thread() noexcept = default;

  /// Starts `body` on a new thread; no thread when the system grants none. The kernel, and
  /// so a debugger, shows the first 15 bytes of the name.
  static Thread start(const core::String& name, core::Block<void()> body) noexcept;

  /// The calling thread, if start() made it; else no thread.
  static Thread current() noexcept;

  explicit operator bool() const noexcept { return state_ != nullptr; }
  core::String name() const noexcept;

  /// From start() until the body has returned and its captures are gone.
  bool isExecuting() const noexcept;

  /// Asks the thread to end. The body sees it by isCancelled() and an early end of waitFor().
  void cancel() const noexcept;
  bool isCancelled() const noexcept;

  /// Waits until `seconds` have passed, then true; false as soon as the thread is cancelled.
  /// Meant for the body, as Thread::current().waitFor(0.5).
  bool waitFor(double seconds) const noexcept;

  /// Waits at most `seconds` for the end of the body; whether it has ended.
  bool join(double seconds) const noexcept;

 private:
  struct State;
  explicit Thread(std::shared_ptr<State> state) noexcept;
  static void* main(void* argument);

  std::shared_ptr<State> state_;
};

}  // namespace platform

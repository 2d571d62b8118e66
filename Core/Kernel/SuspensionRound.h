#pragma once

#include <cstddef>
#include <cstdint>

#include "Core/Kernel/MachineContext.h"
#include "Core/Kernel/Process.h"
#include "Core/Kernel/SuspendedThread.h"
#include "Core/Kernel/ThreadList.h"
#include "Core/Memory/CrashOwner.h"
#include "Core/Memory/Mutex.h"

namespace core {

/// One pass over threads, by one thread at a time: the next waits. The owner of a crash waits for
/// nobody and takes over the threads that an interrupted round holds; from then on other
/// rounds are refused. Not in a forked child, save by the owner of a crash there.
///
/// While a thread is held: no allocation, no lock, no log. One can be asked while another is read,
/// so that it stops meanwhile, and many when they are to copy their stacks: see window().
///
///     SuspensionRound round;
///     SuspendedThread thread = round.ask(id);
///     if (thread.wait() == SuspendedThread::Answer::kHeld) { ... thread.registers() ... }
///
/// Threads that do not come, because they block the signal or are kept from running, share one
/// budget of 150 ms a round. Outside of a crash each thread is looked at before it is asked
/// (some 10 us, while it still runs): that tells exactly which system call it is interrupted in, and
/// keeps the signal away from one that sleeps in sigwait, which would answer it to the
/// program. A thread that blocks the signal and takes it from a signal descriptor still does.
class SuspensionRound {
 public:
  SuspensionRound() noexcept;

  SuspendedThread ask(int thread, const SuspensionRequest& request = {}) noexcept;

  /// The most threads that are to be asked and not yet let go: two that are held; of those that stand
  /// no longer than they take to copy their stacks, enough to keep every processor at it.
  std::size_t window() const noexcept { return copiesFail_ ? 2 : kMostAsked; }
  static constexpr std::size_t kMostAsked = 16;

  bool isCrash() const noexcept { return isCrash_; }
  /// Nanoseconds that are left for threads that do not come.
  std::int64_t budget() const noexcept { return budget_; }

 private:
  friend SuspendedThread;

  Lock lock_;
  bool isCrash_;
  bool mayAdopt_;  // the round of a crash, which has interrupted another
  int process_;
  int thread_;
  std::uint32_t nextSlot_ = 0;
  bool copiesFail_ = false;
  std::int64_t budget_ = 150'000'000;
};

/// Fills `context` with the state of another thread, stopped for the moment. True when
/// general registers, floats and exception state were all read; of a silent thread, false
/// with what is known of it.
bool readOtherContext(SuspensionRound& round, int thread, MachineContext& context) noexcept;

/// The same for the thread of a port, which may be the calling one: then the general
/// registers are those of the calling function's own frame, and the exception state is 0.
[[gnu::always_inline]] inline bool readThreadContext(SuspensionRound& round, std::uint32_t port,
                                                     MachineContext& context) noexcept {
  if (threadOfPort(port) == threadId()) {
    captureContext(context);
    return true;
  }
  return readOtherContext(round, threadOfPort(port), context);
}

}  // namespace core

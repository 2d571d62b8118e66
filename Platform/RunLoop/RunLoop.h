#pragma once

#include <atomic>
#include <cstdint>

#include "Core/Memory/Block.h"
#include "Platform/RunLoop/Clock.h"
#include "Platform/RunLoop/Inbox.h"
#include "Platform/RunLoop/LoopSeat.h"
#include "Platform/RunLoop/ObserverList.h"
#include "Platform/RunLoop/Poller.h"
#include "Platform/RunLoop/Timer.h"
#include "Platform/RunLoop/TimerQueue.h"
#include "Platform/RunLoop/Work.h"

namespace platform {

/// The phases of a run loop, as bits of an observer's mask.
enum class Activity : std::uint32_t {
  kEntry = 1,
  kBeforeTimers = 2,
  kBeforeSources = 4,
  kBeforeWaiting = 32,
  kAfterWaiting = 64,
  kExit = 128,
};
inline constexpr std::uint32_t kAllActivities = 0x0FFFFFFF;

/// Waits for timers, descriptors and blocks from any thread, and calls them on one thread.
///
/// One turn: before timers, before sources, the wait (before waiting, after waiting; left
/// out when something is due already), then what is due: descriptors, timers, blocks. A
/// block may run the loop again: calls nest, each with its own entry and exit. What a block
/// throws goes through to the caller of run().
///
/// The main loop serves the main queue. It is driven by the thread that runs it or that
/// attached it to a loop of its own; as long as nobody did, a service thread starts with the
/// first work and serves it without telling observers, and hands over between two blocks
/// to the first driver. Driving lasts until detach(), also between runs.
///
/// Adding, posting, invalidating and stopping wait for no lock and are open to every thread,
/// the owner of a crash included; the rest says so where it is not.
class RunLoop {
 public:
  using Block = core::Block<void()>;

  /// Never destroyed.
  static RunLoop& main() noexcept;
  /// The loop that the calling thread is running, else the main one.
  static RunLoop& current() noexcept;

  /// A loop of one's own, for one thread at a time; `clock` must outlive it. While it waits
  /// it trusts that the clock goes as fast as the machine's.
  explicit RunLoop(const Clock& clock = Clock::monotonic()) noexcept : RunLoop(clock, false) {}
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;
  /// Not while it runs. Timers become invalid, posted blocks are dropped.
  ~RunLoop();

  /// Runs until stopped, or until the loop's clock reaches `deadline` (nanoseconds). False,
  /// at once, when another thread is running the loop.
  bool run() { return runUntil(kNever); }
  bool runUntil(std::int64_t deadline);
  /// One turn that waits at most `seconds`; whether anything was called. False, at once,
  /// when another thread is running the loop.
  bool runOnce(double seconds);

  /// Ends the innermost run after the block that is being called; when none is on its way,
  /// the next one at once.
  void stop() noexcept { stopFromSignal(); }
  /// The same, fit for a signal handler.
  void stopFromSignal() noexcept;

  /// Calls `block` on the loop's thread, in the order of the calls here.
  void perform(Block block) noexcept;
  void performAfter(double seconds, Block block) noexcept;
  Timer addTimer(double seconds, bool repeats, core::Block<void(Timer&)> block) noexcept;

  /// Calls `block` in the phases of `mask`, in the order of adding. Answers the number to
  /// remove it by. These two wait for their likes on other threads.
  std::uint64_t addObserver(std::uint32_t mask, core::Block<void(Activity)> block) noexcept;
  void removeObserver(std::uint64_t id) noexcept;

  /// Calls `block` with the events there are as long as there are any of `events` (EPOLLIN
  /// ...). The descriptor should not block: what was there may be gone by the call. Answers
  /// the number to remove it by, which comes before closing it; 0 when it cannot be waited for.
  std::uint64_t addDescriptor(int descriptor, std::uint32_t events, core::Block<void(std::uint32_t)> block) noexcept;
  void removeDescriptor(std::uint64_t id) noexcept;

  /// Lets a foreign loop of the calling thread drive this one: it watches descriptor(), and calls
  /// serve() whenever that is readable. With notify() around its own wait (kBeforeWaiting,
  /// kAfterWaiting), the whole thread is seen by the observers. False when another thread is
  /// running the loop.
  bool attach();
  int descriptor() const noexcept { return poller_.descriptor(); }
  /// Calls what is due, without waiting: after waiting, before timers, before sources, the
  /// calls, before waiting. False once stop() was called.
  bool serve();
  void notify(Activity activity);
  /// Ends attach() or driving by runs: the service thread may serve the loop again.
  void detach();

  /// Whether a thread drives the loop, rather than nobody or the service thread.
  bool isDriven() const noexcept { return seat_.isDriven(); }

  /// Calls, for an orderly end, what was posted and what that posts; no timers. Nothing and
  /// false unless the calling thread is the process's main one, or drives or is running the loop.
  bool drain();

 private:
  class Running;

  RunLoop(const Clock& clock, bool served) noexcept;
  bool drive(std::int64_t deadline, bool once);
  bool turn(std::int64_t deadline);
  bool callDue(const Poller::Ready* ready, std::size_t count);
  bool callPosted(bool interruptible);
  void collect() noexcept;
  void armTimer() noexcept;
  bool isDue() const noexcept;
  bool interrupted() const noexcept;
  void ensureServed() noexcept;
  void serviceThread();

  const Clock& clock_;
  const bool served_;  // by a service thread as long as nobody drives it
  Poller poller_;
  Inbox<Work> posted_;
  ObserverList<std::uint32_t, Activity> observers_;
  ObserverList<int, std::uint32_t> descriptors_;

  LoopSeat seat_{poller_};
  std::atomic<bool> serviceStarted_{false};
  std::atomic<bool> stopped_{false};

  // Of the thread that is inside.
  TimerQueue timers_;
  WorkList ready_;
  bool armed_ = false;
};

}  // namespace platform

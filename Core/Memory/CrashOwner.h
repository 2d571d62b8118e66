#pragma once

#include <atomic>

namespace core {

/// The gate in front of crash handling: the first crashing thread owns the crash.
///
/// Everything that must behave differently on the crash path (allocation, locks,
/// published values) asks isCurrentThread(). That is one relaxed load and no system call, also during
/// a crash, which asks some thousand times. All operations are fit for a signal handler and leave errno alone.
class CrashOwner {
 public:
  enum class Claim {
    kFirst,   ///< the calling thread owns the crash from now on
    kAgain,   ///< it owned the crash already: its own handling faulted
    kRefused  ///< another thread owns it; touch nothing shared and wait
  };

  static Claim claim() noexcept;

  /// Gives the crash up, so that a later fault can be claimed anew. Owner only.
  static void release() noexcept;

  /// Sequentially consistent with Published: see there.
  static bool exists() noexcept { return owner_.load(std::memory_order_seq_cst) != 0; }

  static bool isCurrentThread() noexcept { return control_.load(std::memory_order_relaxed) == currentControl(); }

  /// The kernel's id of the owning thread, 0 for none.
  static int threadId() noexcept { return owner_.load(std::memory_order_relaxed); }

 private:
  /// The calling thread's control block, which the ABI keeps its own address in.
  static const void* currentControl() noexcept {
    const void* control;
    asm("movq %%fs:0, %0" : "=r"(control));
    return control;
  }

  static std::atomic<int> owner_;
  static std::atomic<const void*> control_;  // the owner's
};

}  // namespace core

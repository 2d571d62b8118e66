#pragma once

#include <signal.h>

#include <cstddef>

namespace core {

class SuspensionRound;

/// Stacks for signal handlers, so that a thread whose own stack is used up can still report its
/// crash: 256 KiB of address space each, the lowest page of it a guard. What the kernel puts there
/// for a handler is memory already (two pages as a rule): a crash stops every thread, and would have
/// to find the memory for each. The rest is touched only as used.
/// Never unmapped, since the kernel may start a handler on one at any time; when a thread has
/// ended, its stack serves another. A thread that has an alternate stack keeps what it has.
///
/// Any thread, normal running only.
class AlternateStack {
 public:
  /// For a thread of our own at its start, by the hook on thread creation, or for whoever makes threads
  /// in a way that the hook does not see. False when there is none to be had.
  static bool giveToCaller() noexcept;

  struct Handout {
    std::size_t given;
    std::size_t had;          ///< one already
    std::size_t unreachable;  ///< without one still
  };
  /// For the calling thread and all others that exist, which are stopped for it one by one.
  static Handout giveToAll(SuspensionRound& round) noexcept;

  /// How many were mapped so far, and the most bytes of one that were ever touched by its present
  /// owner, to a page.
  static std::size_t count() noexcept;
  static std::size_t highWaterMark() noexcept;

  /// Bytes of each that a handler and the kernel's frame for it may use.
  static std::size_t size() noexcept;
};

}  // namespace core

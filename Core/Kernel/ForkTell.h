#pragma once

namespace core {

/// Tells a child of this process from the process itself, by a page that the kernel wipes in a
/// forked child. Whoever owns something that a child must not touch (a journal, a listing
/// descriptor) asks it first. Fit for a signal handler; two loads and a system call.
class ForkTell {
 public:
  enum class Process {
    kOwn,     ///< the process that prepared, or nobody did
    kForked,  ///< a child with memory of its own
    kVforked  ///< a child that still uses this process's memory, until it calls exec
  };

  /// Makes the page and claims it for the calling process; a forked child that goes on to
  /// prepare is from then on its own. False when the kernel wipes no pages (before 4.14): all
  /// children are then told as vforked ones, which may do the least. Normal running only.
  static bool prepare() noexcept;

  static Process current() noexcept;

  /// Whether this is a child with memory of its own. One load, no system call.
  static bool isForked() noexcept;
};

}  // namespace core

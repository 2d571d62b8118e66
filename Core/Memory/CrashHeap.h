#pragma once

#include <cstddef>
#include <type_traits>

namespace core {

/// The memory of the crash path: one region reserved at installation, handed out from
/// the front and never taken back.
class CrashHeap {
 public:
  /// Address space reserved without swap space behind it, and how much of it an ordinary crash
  /// needs at the most.
  static constexpr std::size_t kCapacity = std::size_t{64} << 20;
  static constexpr std::size_t kTouched = std::size_t{2} << 20;

  /// Maps the region; once a process, later calls answer true at once. False when the
  /// address space has no room: a crash then ends every section that wants memory.
  static bool reserve() noexcept;

  /// Brings the first kTouched bytes in, which takes most of a millisecond: for a background
  /// thread. A crash that comes earlier takes its page faults.
  static void touch() noexcept;

  /// The next `bytes`, aligned to 16. Never null: an exhausted region leaves the innermost
  /// CrashSection, or ends the process where there is none. Owner of the crash only.
  static void* take(std::size_t bytes) noexcept;

  static bool contains(const void* address) noexcept;

  /// Bytes handed out so far.
  static std::size_t used() noexcept;
};

/// A stretch of crash handling that may be given up without giving up the crash.
///
///     bool complete = CrashSection::run([&] { writeRegisters(out); });
///
/// False when the crash heap ran out inside: what `work` had done so far stands, and no
/// destructor between here and there ran (the region frees nothing, so nothing leaks).
class CrashSection {
 public:
  template <class Work>
  static bool run(Work&& work) noexcept {
    return enter([](void* context) { (*static_cast<std::remove_reference_t<Work>*>(context))(); }, &work);
  }

  /// Leaves the innermost section, which then answers false.
  [[noreturn]] static void leave() noexcept;

 private:
  static bool enter(void (*work)(void*), void* context) noexcept;
};

}  // namespace core

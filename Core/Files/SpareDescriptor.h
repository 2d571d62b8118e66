#pragma once

namespace core {

/// A descriptor that is held open so that a crash can open files in a process that has used up
/// its own: File::open gives it up for the owner of a crash.
class SpareDescriptor {
 public:
  /// Opens it unless it is open. Normal running only.
  static void prepare() noexcept;
  /// Closes it; false when there was none.
  static bool giveUp() noexcept;
};

}  // namespace core

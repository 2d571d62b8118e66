#pragma once

namespace core {

/// Descriptors that are held open so that a crash can open files in a process that has used up its
/// own: File::open gives one up for the owner of a crash when there is no other.
class SpareDescriptor {
 public:
  /// As many as a crash holds at a time: a lock, a file, and a directory that is synced.
  static constexpr int kHeld = 3;

  /// Opens those that are not open. Normal running only.
  static void prepare() noexcept;
  /// Closes one; false when there was none.
  static bool giveUp() noexcept;
};

}  // namespace core

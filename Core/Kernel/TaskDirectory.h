#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace core {

/// The process's task directory, which the kernel shows with one folder a thread. Opened ahead,
/// so that it can be read when descriptors have run out or the process has changed its root.
class TaskDirectory {
 public:
  /// Opens it, for this process; once is enough. Normal running only. False when there is no
  /// process file system.
  static bool open() noexcept;

  /// What open() opened in this process, -1 for none; one that a fork handed down is the
  /// parent's and does not count. Belongs to the class.
  static int descriptor() noexcept;

  /// Reads the front of a thread's file (`name` as "comm") into `room`. Answers the bytes read or
  /// -errno: -ENOENT or -ESRCH when there is no such thread. Fit for the crash path.
  static long read(int thread, std::string_view name, std::span<char> room) noexcept;
};

}  // namespace core

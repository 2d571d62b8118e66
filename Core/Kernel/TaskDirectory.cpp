#include "Core/Kernel/TaskDirectory.h"

#include <fcntl.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <charconv>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/SystemCall.h"

namespace core {
namespace {

constexpr std::string_view kPath = "/proc/self/task/";
constexpr std::size_t kLongestName = 16;
constexpr std::size_t kPathRoom = kPath.size() + 12 + kLongestName + 2;

/// The process that opened it (upper half) and the descriptor.
std::atomic<std::uint64_t> opened{0};

/// "<thread>/<name>", put after `front` and ended.
void spell(std::string_view front, int thread, std::string_view name, std::span<char, kPathRoom> path) noexcept {
  char* at = std::copy(front.begin(), front.end(), path.data());
  at = std::to_chars(at, path.data() + path.size(), thread).ptr;
  *at++ = '/';
  at = std::copy_n(name.data(), std::min(name.size(), kLongestName), at);
  *at = '\0';
}

long openTaskFile(int thread, std::string_view name) noexcept {
  char path[kPathRoom];
  if (const int directory = TaskDirectory::descriptor(); directory >= 0) {
    spell("", thread, name, path);
    const long file = restartedSystemCall(SYS_openat, directory, path, O_RDONLY | O_CLOEXEC);
    // The program may have closed the descriptor and opened something else under its number.
    if (file != -EBADF && file != -ENOTDIR && file != -ENOENT) {
      return file;
    }
  }
  spell(kPath, thread, name, path);
  return restartedSystemCall(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC);
}

}  // namespace

bool TaskDirectory::open() noexcept {
  if (descriptor() >= 0) {
    return true;
  }
  std::uint64_t before = opened.load(std::memory_order_relaxed);
  const long made = restartedSystemCall(SYS_openat, AT_FDCWD, kPath.data(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (made < 0) {
    return false;
  }
  const std::uint64_t mine = static_cast<std::uint64_t>(processId()) << 32 | static_cast<std::uint64_t>(made);
  if (!opened.compare_exchange_strong(before, mine, std::memory_order_relaxed)) {
    systemCall(SYS_close, made);
  }
  return true;
}

int TaskDirectory::descriptor() noexcept {
  const std::uint64_t known = opened.load(std::memory_order_relaxed);
  return known != 0 && static_cast<int>(known >> 32) == processId() ? static_cast<int>(known & 0xFFFFFFFFU) : -1;
}

long TaskDirectory::read(int thread, std::string_view name, std::span<char> room) noexcept {
  const long file = openTaskFile(thread, name);
  if (file < 0) {
    return file;
  }
  const long count = restartedSystemCall(SYS_read, file, room.data(), room.size());
  systemCall(SYS_close, file);
  return count;
}

}  // namespace core

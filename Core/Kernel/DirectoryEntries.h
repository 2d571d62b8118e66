#pragma once

#include <sys/syscall.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "Core/Kernel/SystemCall.h"

namespace core {

/// The head of an entry as getdents64 lays it out; the name follows, NUL at its end.
struct DirectoryEntryHead {
  std::uint64_t inode;
  std::int64_t next;
  std::uint16_t size;
  std::uint8_t type;
};

/// Calls `use(name)` for each entry of an open directory from its position on, "." and ".." too, in
/// no order. 0 or -errno. Fit for the crash path if `use` is.
template <class Use>
long visitDirectory(long directory, Use&& use) noexcept {
  constexpr std::size_t kNameOffset = offsetof(DirectoryEntryHead, type) + 1;
  // Room for several entries of the longest name; small, since it lies on the crash path's stack.
  alignas(DirectoryEntryHead) char block[2048];
  long count;
  while ((count = restartedSystemCall(SYS_getdents64, directory, block, sizeof block)) > 0) {
    DirectoryEntryHead head;
    for (long at = 0; at < count; at += head.size) {
      std::memcpy(&head, block + at, kNameOffset);
      use(std::string_view(block + at + kNameOffset));
    }
  }
  return count;
}

}  // namespace core

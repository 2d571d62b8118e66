#include "Core/Kernel/ThreadList.h"

#include <fcntl.h>
#include <sys/auxv.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>

#include "Core/Kernel/DirectoryEntries.h"
#include "Core/Kernel/Process.h"
#include "Core/Kernel/SystemCall.h"
#include "Core/Kernel/TaskDirectory.h"
#include "Core/Memory/CrashOwner.h"

namespace core {
namespace {

ThreadName shortName{};

bool listDirectory(long directory, Array<int>& threads) noexcept {
  threads.clear();
  if (restartedSystemCall(SYS_lseek, directory, 0, SEEK_SET) != 0) {
    return false;
  }
  const long result = visitDirectory(directory, [&threads](std::string_view name) {
    int thread = 0;
    if (std::from_chars(name.begin(), name.end(), thread).ec == std::errc()) {
      threads.append(thread);
    }
  });
  // The calling thread is missing in a directory that is another one than was opened.
  return result == 0 && threads.contains(threadId());
}

bool listFresh(Array<int>& threads) noexcept {
  const long directory =
      restartedSystemCall(SYS_openat, AT_FDCWD, "/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory < 0) {
    return false;
  }
  const bool listed = listDirectory(directory, threads);
  systemCall(SYS_close, directory);
  return listed;
}

/// Threads that come and go while the directory is read can be listed twice.
void order(Array<int>& threads) noexcept {
  const int main = processId();
  std::sort(threads.begin(), threads.end(),
            [main](int a, int b) { return a != b && (a == main || (b != main && a < b)); });
  for (std::size_t i = threads.size(); i-- > 1;) {
    if (threads[i] == threads[i - 1]) {
      threads.removeAt(i);
    }
  }
}

}  // namespace

void ThreadList::prepare() noexcept {
  TaskDirectory::open();
  if (const auto* path = reinterpret_cast<const char*>(getauxval(AT_EXECFN))) {
    std::string_view name(path);
    name.remove_prefix(name.rfind('/') + 1);
    std::copy_n(name.data(), std::min(name.size(), sizeof shortName.bytes - 1), shortName.bytes);
  }
}

// A position is the descriptor's, so the one opened ahead is left to the crash.
ThreadList ThreadList::read() noexcept {
  ThreadList list;
  const int ahead = CrashOwner::isCurrentThread() ? TaskDirectory::descriptor() : -1;
  list.isComplete_ = (ahead >= 0 && listDirectory(ahead, list.threads_)) || listFresh(list.threads_);
  if (!list.isComplete_) {
    list.threads_ = {threadId()};
  }
  order(list.threads_);
  return list;
}

std::string_view reportedThreadName(const ThreadName& name) noexcept {
  return name.view() == shortName.view() ? std::string_view() : name.view();
}

}  // namespace core

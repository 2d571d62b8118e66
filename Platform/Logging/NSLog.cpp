#include "Platform/Logging/NSLog.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/SystemCall.h"
#include "Platform/Foundation/ProcessInfo.h"
#include "Platform/Foundation/TimeZone.h"

namespace platform {
namespace {

std::atomic<LogSink> currentSink{nullptr};
std::atomic<const char*> systemLogPath{"/dev/log"};
std::atomic<int> systemLogSocket{-1};

constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
/// Facility "user", severity "notice".
constexpr int kSystemLogPriority = 1 * 8 + 5;

/// The kernel's set of signals, of the calling thread.
using SignalSet = std::uint64_t;
constexpr SignalSet kBrokenPipe = SignalSet{1} << (SIGPIPE - 1);

/// While it lives, a write to a broken pipe raises no SIGPIPE in this thread.
class BrokenPipeGuard {
 public:
  BrokenPipeGuard() noexcept {
    SignalSet pending = 0;
    core::systemCall(SYS_rt_sigpending, &pending, sizeof(pending));
    wasPending_ = (pending & kBrokenPipe) != 0;
    core::systemCall(SYS_rt_sigprocmask, SIG_BLOCK, &kBrokenPipe, &before_, sizeof(SignalSet));
  }
  BrokenPipeGuard(const BrokenPipeGuard&) = delete;
  BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;
  ~BrokenPipeGuard() {
    if (broken_ && !wasPending_) {
      const timespec atOnce{};
      core::systemCall(SYS_rt_sigtimedwait, &kBrokenPipe, nullptr, &atOnce, sizeof(SignalSet));
    }
    core::systemCall(SYS_rt_sigprocmask, SIG_SETMASK, &before_, nullptr, sizeof(SignalSet));
  }

  void pipeWasBroken() noexcept { broken_ = true; }

 private:
  SignalSet before_ = 0;
  bool wasPending_ = false;
  bool broken_ = false;
};

bool takesOutput(int descriptor) noexcept {
  pollfd waiting{descriptor, POLLOUT, 0};
  return core::systemCall(SYS_poll, &waiting, 1, 0) == 1 && (waiting.revents & POLLOUT) != 0;
}

bool isRegularFile(int descriptor) noexcept {
  struct stat facts {};
  return core::systemCall(SYS_fstat, descriptor, &facts) == 0 && S_ISREG(facts.st_mode);
}

/// Writes some of `text`; bytes taken or -errno.
long writeAtOnce(int descriptor, std::string_view text) noexcept {
  const iovec whole{const_cast<char*>(text.data()), text.size()};
  constexpr long kCurrentPosition = -1;
  const long result = core::restartedSystemCall(SYS_pwritev2, descriptor, &whole, 1, kCurrentPosition, 0, RWF_NOWAIT);
  if (result >= 0 || result == -EPIPE || result == -EBADF) {
    return result;
  }
  // Terminals, some file systems and older kernels' pipes do not know the flag. Where polling
  // promises room, there is some for PIPE_BUF bytes.
  if (!takesOutput(descriptor)) {
    return -EAGAIN;
  }
  const std::size_t size = isRegularFile(descriptor) ? text.size() : std::min<std::size_t>(text.size(), PIPE_BUF);
  return core::restartedSystemCall(SYS_write, descriptor, text.data(), size);
}

void writeToStandardError(std::string_view line) noexcept {
  BrokenPipeGuard guard;
  while (!line.empty()) {
    const long count = writeAtOnce(STDERR_FILENO, line);
    if (count <= 0) {
      if (count == -EPIPE) {
        guard.pipeWasBroken();
      }
      return;
    }
    line.remove_prefix(static_cast<std::size_t>(count));
  }
}

/// One socket for the life of the process; it is never connected, so that it survives the log
/// daemon.
int openSystemLogSocket() noexcept {
  int held = systemLogSocket.load(std::memory_order_acquire);
  if (held < 0) {
    const long made = core::systemCall(SYS_socket, AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (made >= 0) {
      if (systemLogSocket.compare_exchange_strong(held, static_cast<int>(made), std::memory_order_acq_rel)) {
        return static_cast<int>(made);
      }
      core::systemCall(SYS_close, made);
    }
  }
  return held;
}

void writeToSystemLog(std::string_view message) noexcept {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string_view path = systemLogPath.load(std::memory_order_relaxed);
  if (path.size() >= sizeof(address.sun_path)) {
    return;
  }
  path.copy(address.sun_path, path.size());
  core::systemCall(SYS_sendto, openSystemLogSocket(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                   &address, sizeof(address));
}

}  // namespace

void writeLogLine(std::string_view text) noexcept {
  if (const LogSink sink = currentSink.load(std::memory_order_acquire)) {
    sink(text);
    return;
  }
  const std::int64_t milliseconds = core::wallClockNanoseconds() / 1'000'000;
  const core::CivilTime time = localTime(milliseconds / 1000);
  const core::String process = processName();

  core::StringBuilder line(text.size() + 128);
  core::kiv_append(line, "%04d-%02d-%02d %02d:%02d:%02d.%03d %@[%d:%d] ", time.year, time.month, time.day, time.hour,
                   time.minute, time.second, static_cast<int>(milliseconds % 1000), process, core::processId(),
                   core::threadId());
  line.append(text);
  line.append('\n');
  writeToStandardError(line.view());

  line.clear();
  core::kiv_append(line, "<%d>%s %2d %02d:%02d:%02d %@[%d]: ", kSystemLogPriority, kMonths[time.month - 1], time.day,
                   time.hour, time.minute, time.second, process, core::processId());
  line.append(text);
  writeToSystemLog(line.view());
}

LogSink setLogSink(LogSink sink) noexcept {
  return currentSink.exchange(sink, std::memory_order_acq_rel);
}

void setSystemLogSocket(const char* path) noexcept {
  systemLogPath.store(path, std::memory_order_relaxed);
}

}  // namespace platform

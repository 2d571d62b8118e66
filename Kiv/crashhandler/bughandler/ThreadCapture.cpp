#include "Kiv/crashhandler/bughandler/ThreadCapture.h"

#include <algorithm>
#include <utility>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/ThreadList.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Kiv/crashhandler/bughandler/KivBacktrace.h"

ThreadCapture::ThreadCapture(CrashSnapshot& snapshot, const Request& request) noexcept
    : snapshot_(snapshot), request_(request) {}

void ThreadCapture::run(std::span<const int> threads) noexcept {
  core::CodeImages::refreshIfChanged();
  snapshot_.clearThreads();
  readAll(threads);
  readEmptyAgain();
}

// A thread that is not stopped is read while nothing is held: its walk may look at the images anew.
void ThreadCapture::readAll(std::span<const int> threads) noexcept {
  std::optional<core::SuspendedThread> coming;
  for (std::uint32_t index = 0; index < threads.size(); ++index) {
    const std::uint32_t port = core::threadPort(threads[index]);
    std::fill_n(frames_.begin(), kCleared, 0);
    if (!isToBeStopped(threads[index])) {
      const core::ThreadName name = readRunning(port);
      snapshot_.appendThread(port, index, name, stack(), isCrashed(port));
      continue;
    }
    core::SuspendedThread stopped = coming ? std::move(*coming) : round_.ask(threads[index]);
    coming.reset();
    if (index + 1 < threads.size() && isToBeStopped(threads[index + 1])) {
      coming.emplace(round_.ask(threads[index + 1]));
    }
    kiv_backtrace_stopped(stopped, frames_, block_);
    snapshot_.appendThread(port, index, stopped.name(), stack(), isCrashed(port));
  }
}

// On a machine with much else to do, threads come too late for the round's patience. By now they
// sleep again where they did, or have been given the processor.
void ThreadCapture::readEmptyAgain() noexcept {
  const std::int64_t end = core::monotonicNanoseconds() + kSecondPatience;
  for (CrashSnapshot::Thread& thread : snapshot_.allThreads()) {
    const int id = core::threadOfPort(thread.port);
    if (thread.frameCount == 0 && isToBeStopped(id) && core::monotonicNanoseconds() < end) {
      frames_.fill(0);
      core::SuspendedThread stopped = round_.ask(id);
      kiv_backtrace_stopped(stopped, frames_, block_);
      snapshot_.setStack(thread, stack(), isCrashed(thread.port));
    }
  }
}

bool ThreadCapture::isToBeStopped(int thread) const noexcept {
  const std::uint32_t port = core::threadPort(thread);
  const bool hasContext = request_.context != nullptr && isCrashed(port);
  const auto& running = request_.running;
  return !hasContext && thread != core::threadId() && std::find(running.begin(), running.end(), port) == running.end();
}

core::ThreadName ThreadCapture::readRunning(std::uint32_t port) noexcept {
  kiv_backtrace_fetch(round_, isCrashed(port) ? request_.context : nullptr, port, frames_, false);
  return core::readThreadName(core::threadOfPort(port));
}

std::span<const std::uint64_t> ThreadCapture::stack() const noexcept {
  return {frames_.begin(), std::find(frames_.begin(), frames_.end(), 0)};
}

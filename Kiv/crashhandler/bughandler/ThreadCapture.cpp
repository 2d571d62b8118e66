#include "Kiv/crashhandler/bughandler/ThreadCapture.h"

#include <algorithm>
#include <array>
#include <optional>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/ThreadList.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Kiv/crashhandler/bughandler/KivBacktrace.h"

namespace {

constexpr core::SuspensionRequest kCopy{.copiesStack = true};

}  // namespace

ThreadCapture::ThreadCapture(CrashSnapshot& snapshot, const Request& request) noexcept
    : snapshot_(snapshot), request_(request) {}

void ThreadCapture::run(std::span<const int> threads) noexcept {
  core::CodeImages::refreshIfChanged();
  snapshot_.clearThreads();
  readAll(threads);
  readEmptyAgain();
}

// A thread that is not stopped is read while no other is asked: its walk may look at the images anew.
void ThreadCapture::readAll(std::span<const int> threads) noexcept {
  std::array<std::optional<core::SuspendedThread>, core::SuspensionRound::kMostAsked> asked;
  std::uint32_t next = 0;
  for (std::uint32_t index = 0; index < threads.size(); ++index) {
    for (; next < threads.size() && next < index + round_.window() && isToBeStopped(threads[next]); ++next) {
      asked[next % asked.size()].emplace(round_.ask(threads[next], kCopy));
    }
    const std::uint32_t port = core::threadPort(threads[index]);
    std::fill_n(frames_.begin(), kCleared, 0);
    if (next == index) {
      const core::ThreadName name = readRunning(port);
      append(port, index, name);
      ++next;
      continue;
    }
    std::optional<core::SuspendedThread>& current = asked[index % asked.size()];
    kiv_backtrace_stopped(*current, frames_, block_);
    append(port, index, current->name());
    current.reset();
  }
}

void ThreadCapture::append(std::uint32_t port, std::uint32_t index, const core::ThreadName& name) noexcept {
  const bool isUnnamed = core::reportedThreadName(name).empty();
  snapshot_.appendThread(port, index, isUnnamed ? core::ThreadName{} : name, stack(), isCrashed(port));
}

// On a machine with much else to do, threads come too late for the round's patience. By now they
// sleep again where they did, or have been given the processor.
void ThreadCapture::readEmptyAgain() noexcept {
  const std::int64_t end = core::monotonicNanoseconds() + kSecondPatience;
  for (CrashSnapshot::Thread& thread : snapshot_.allThreads()) {
    const int id = core::threadOfPort(thread.port);
    if (thread.frameCount == 0 && isToBeStopped(id) && core::monotonicNanoseconds() < end) {
      frames_.fill(0);
      core::SuspendedThread stopped = round_.ask(id, kCopy);
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

#include "Kiv/crashhandler/bughandler/KivBacktrace.h"

#include "Core/Kernel/Process.h"
#include "Core/Kernel/Registers.h"
#include "Core/Kernel/ThreadList.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Core/Memory/Allocator.h"
#include "Core/Memory/CrashOwner.h"

namespace {

constexpr std::size_t kBlock = 16384;

/// Room for copies of a stack, which must be there before a thread is stopped. The owner of a
/// crash, whose memory never comes back, has one for all its walks.
class StackBlock {
 public:
  StackBlock() noexcept
      : isOwned_(!core::CrashOwner::isCurrentThread()),
        bytes_(isOwned_ ? static_cast<std::uint8_t*>(core::allocate(kBlock)) : forCrash_) {}
  StackBlock(const StackBlock&) = delete;
  StackBlock& operator=(const StackBlock&) = delete;
  ~StackBlock() {
    if (isOwned_) {
      core::deallocate(bytes_);
    }
  }

  std::span<std::uint8_t> bytes() const noexcept { return {bytes_, kBlock}; }

 private:
  static std::uint8_t forCrash_[kBlock];

  bool isOwned_;
  std::uint8_t* bytes_;
};

std::uint8_t StackBlock::forCrash_[kBlock];

void walkStopped(core::SuspensionRound& round, int thread, KivFrames frames,
                 const core::WalkContext& context) noexcept {
  core::SuspendedThread stopped = round.ask(thread);
  const core::SuspendedThread::Answer answer = stopped.wait();
  if (answer == core::SuspendedThread::Answer::kHeld || answer == core::SuspendedThread::Answer::kSilent) {
    core::walk(stopped.registers(), frames, context);
  }
}

}  // namespace

void kiv_backtrace_fetch(const mcontext_t* context, std::uint32_t thread, KivFrames frames, bool suspend) noexcept {
  core::CodeImages::refreshIfChanged();
  core::SuspensionRound round;
  kiv_backtrace_fetch(round, context, thread, frames, suspend);
}

void kiv_backtrace_fetch(core::SuspensionRound& round, const mcontext_t* context, std::uint32_t thread,
                         KivFrames frames, bool suspend) noexcept {
  const StackBlock block;
  core::WalkContext walkContext{block.bytes()};
  core::MachineContext read;
  if (context == nullptr && suspend && core::threadOfPort(thread) != core::threadId()) {
    walkStopped(round, core::threadOfPort(thread), frames, walkContext);
    return;
  }
  if (context == nullptr && !core::readThreadContext(round, thread, read)) {
    return;
  }
  walkContext.mayRefreshImages = true;
  core::walk(core::registersOf(context != nullptr ? *context : read.machine), frames, walkContext);
}

int kiv_skip_instruction(ucontext_t& context, int n) noexcept {
  context.uc_mcontext.gregs[REG_RIP] += n;
  return n;
}

#include "Kiv/crashhandler/bughandler/KivBacktrace.h"

#include "Core/Kernel/Process.h"
#include "Core/Kernel/Registers.h"
#include "Core/Kernel/ThreadList.h"
#include "Core/Kernel/Unwind/CodeImages.h"

void kiv_backtrace_fetch(const mcontext_t* context, std::uint32_t thread, KivFrames frames, bool suspend) noexcept {
  core::CodeImages::refreshIfChanged();
  core::SuspensionRound round;
  kiv_backtrace_fetch(round, context, thread, frames, suspend);
}

void kiv_backtrace_fetch(core::SuspensionRound& round, const mcontext_t* context, std::uint32_t thread,
                         KivFrames frames, bool suspend) noexcept {
  const StackBlock block;
  if (context == nullptr && suspend && core::threadOfPort(thread) != core::threadId()) {
    core::SuspendedThread asked = round.ask(core::threadOfPort(thread), {.copiesStack = true});
    kiv_backtrace_stopped(asked, frames, block);
    return;
  }
  core::MachineContext read;
  if (context == nullptr && !core::readThreadContext(round, thread, read)) {
    return;
  }
  const core::WalkContext walkContext{.block = block.bytes(), .mayRefreshImages = true};
  core::walk(core::registersOf(context != nullptr ? *context : read.machine), frames, walkContext);
}

void kiv_backtrace_stopped(core::SuspendedThread& asked, KivFrames frames, const StackBlock& block) noexcept {
  using Answer = core::SuspendedThread::Answer;
  Answer answer = asked.wait();
  if (answer == Answer::kCopied) {
    if (core::walk(asked.registers(), frames, asked.stackCopy(), block.memory())) {
      return;
    }
    asked.askToStay();
    answer = asked.wait();
  }
  if (answer == Answer::kHeld || answer == Answer::kSilent) {
    core::walk(asked.registers(), frames, {.block = block.bytes(), .memory = block.memory()});
  }
}

int kiv_skip_instruction(ucontext_t& context, int n) noexcept {
  context.uc_mcontext.gregs[REG_RIP] += n;
  return n;
}

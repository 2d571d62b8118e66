#pragma once

#include <ucontext.h>

#include <cstdint>
#include <span>

#include "Core/Kernel/SuspensionRound.h"
#include "Core/Kernel/Unwind/FrameWalk.h"
#include "Kiv/crashhandler/bughandler/StackBlock.h"

/// Stacks and registers of single threads, which are named by port (core::threadPort). All of
/// it is fit for the crash path; in normal running a thread that is stopped by another dump is
/// waited for.

using KivFrames = std::span<std::uint64_t, core::kMostFrames>;

/// Writes a thread's stack to the front of `frames`: the instruction pointer, then return
/// addresses, innermost first. What lies behind them is left alone; consumers stop at the first 0.
///
/// With a context, the stack that it shows. Else the thread's own: stopped for the walk if
/// `suspend`, otherwise only while its registers are read. The calling thread is never stopped. A
/// thread whose registers cannot be read leaves `frames` untouched.
void kiv_backtrace_fetch(const mcontext_t* context, std::uint32_t thread, KivFrames frames, bool suspend) noexcept;

/// The same for one of several threads, which share the round's patience. Images must have been
/// brought up to date (core::CodeImages::refreshIfChanged).
void kiv_backtrace_fetch(core::SuspensionRound& round, const mcontext_t* context, std::uint32_t thread,
                         KivFrames frames, bool suspend) noexcept;

/// The same for a thread that was asked to stop, and that goes on when `asked` goes.
void kiv_backtrace_stopped(core::SuspendedThread& asked, KivFrames frames, const StackBlock& block) noexcept;

/// Reads a thread's registers, floats and exception state; true when all of it was read. Of the
/// calling thread, as they are in the function that calls.
[[gnu::always_inline]] inline bool kiv_read_thread_mc(std::uint32_t thread, core::MachineContext& context) noexcept {
  core::SuspensionRound round;
  return core::readThreadContext(round, thread, context);
}

/// Moves a context's instruction pointer on by `n` bytes; answers `n`.
int kiv_skip_instruction(ucontext_t& context, int n) noexcept;

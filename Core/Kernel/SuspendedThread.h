#pragma once

#include <signal.h>
#include <ucontext.h>

#include <cstdint>

#include "Core/Kernel/InterruptedCall.h"
#include "Core/Kernel/Registers.h"
#include "Core/Kernel/ThreadFiles.h"

namespace core {

class SuspensionRound;

/// One thread that is asked to stop, and what was read of it. A held thread goes on with the
/// destruction of the object. Made by a round, which it must not outlive. Fit for the crash path.
class [[nodiscard]] SuspendedThread {
 public:
  enum class Answer {
    kAsked,   ///< not known yet: wait()
    kHeld,    ///< stopped until the object goes
    kSilent,  ///< runs on; at most stack and instruction pointer are known, of where it sleeps
    kGone,    ///< there is no such thread any more
    kRefused  ///< the calling thread itself; or a crash of another thread comes first
  };

  SuspendedThread(SuspendedThread&& other) noexcept;
  SuspendedThread& operator=(SuspendedThread&& other) noexcept;
  ~SuspendedThread() { resume(); }

  /// Waits for the answer: normally some microseconds, for a thread that does not come 2 ms and
  /// what the round's budget still allows.
  Answer wait() noexcept;
  void resume() noexcept;

  int thread() const noexcept { return thread_; }
  Answer answer() const noexcept { return answer_; }

  /// All of the registers of a held thread; of a silent one rip and rsp, 0 when unknown.
  Registers registers() const noexcept { return registersOf(context_); }
  /// The same with flags, selectors and exception state; its pointer to the float state leads
  /// into the held thread's stack.
  const mcontext_t& context() const noexcept { return context_; }
  const ThreadName& name() const noexcept { return name_; }

  /// Whether it took the stack that it was offered.
  bool tookStack() const noexcept { return tookStack_; }

 private:
  friend SuspensionRound;
  SuspendedThread(SuspensionRound& round, int thread) noexcept : round_(&round), thread_(thread) {}
  SuspendedThread(const SuspendedThread&) noexcept = default;
  SuspendedThread& operator=(const SuspendedThread&) noexcept = default;

  void ask(const stack_t& offeredStack) noexcept;
  void lookAhead() noexcept;
  bool shouldBeSent() const noexcept;
  bool claimSlot(const stack_t& offeredStack) noexcept;
  void send() noexcept;

  bool adopt() noexcept;
  bool isLost(std::int64_t waited) const noexcept;
  bool giveUp() noexcept;

  Answer settleHeld() noexcept;
  Answer settleUnheld() noexcept;

  SuspensionRound* round_;
  int thread_;
  int slot_ = -1;
  std::uint32_t generation_ = 0;
  bool isAdopted_ = false;
  bool tookStack_ = false;
  Answer answer_ = Answer::kAsked;
  CallAhead ahead_{-1, 0, 0};
  mcontext_t context_{};
  ThreadName name_{};
};

}  // namespace core

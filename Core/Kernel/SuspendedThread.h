#pragma once

#include <signal.h>

#include <cstdint>

#include "Core/Kernel/InterruptedCall.h"
#include "Core/Kernel/MachineContext.h"
#include "Core/Kernel/Registers.h"
#include "Core/Kernel/StackCopy.h"
#include "Core/Kernel/ThreadFiles.h"

namespace core {

class SuspensionRound;

/// What a thread is asked for.
struct SuspensionRequest {
  /// An alternate stack for it, which it takes if it has none; size 0 for none.
  stack_t offeredStack{};
  /// It need not stand longer than it takes to copy its stack (some microseconds).
  bool copiesStack = false;
};

/// One thread that is asked to stop, and what was read of it. A held thread goes on with the
/// destruction of the object. Made by a round, which it must not outlive. Fit for the crash path.
class [[nodiscard]] SuspendedThread {
 public:
  enum class Answer {
    kAsked,   ///< not known yet: wait()
    kHeld,    ///< stopped until the object goes
    kCopied,  ///< it stood while its stack was copied, as it had been asked, and goes on
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
  /// Asks once more, that the thread be held: the copy of its stack is too short.
  void askToStay() noexcept;

  int thread() const noexcept { return thread_; }
  Answer answer() const noexcept { return answer_; }

  /// All of the registers of a held or copied thread; of a silent one rip and rsp, 0 when unknown.
  const Registers& registers() const noexcept { return registers_; }
  /// The same with flags, selectors, exception and float state, which are a held thread's only; false
  /// when they could not all be read.
  bool copyContext(MachineContext& into) const noexcept;
  const ThreadName& name() const noexcept { return name_; }
  /// Of a copied thread, from the red zone below its stack pointer on, to its end or as far as it was
  /// copied. It goes with the object.
  StackCopy stackCopy() const noexcept;

  /// Whether it took the stack that it was offered.
  bool tookStack() const noexcept { return tookStack_; }

 private:
  friend SuspensionRound;
  SuspendedThread(SuspensionRound& round, int thread) noexcept : round_(&round), thread_(thread) {}
  SuspendedThread(const SuspendedThread&) noexcept = default;
  SuspendedThread& operator=(const SuspendedThread&) noexcept = default;

  void ask(const SuspensionRequest& request) noexcept;
  CallAhead lookAhead() const noexcept;
  bool shouldBeSent(const CallAhead& ahead) const noexcept;
  bool claimSlot(const SuspensionRequest& request, const CallAhead& ahead) noexcept;
  void send() noexcept;

  bool adopt() noexcept;
  bool isLost(std::int64_t waited) const noexcept;
  bool giveUp() noexcept;

  Answer settleAnswered() noexcept;
  Answer settleUnheld() noexcept;

  SuspensionRound* round_;
  int thread_;
  int slot_ = -1;
  std::uint32_t generation_ = 0;
  bool isAdopted_ = false;
  bool tookStack_ = false;
  Answer answer_ = Answer::kAsked;
  Registers registers_{};
  ThreadName name_{};
};

}  // namespace core

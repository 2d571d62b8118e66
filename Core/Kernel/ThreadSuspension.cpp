#include "Core/Kernel/ThreadSuspension.h"

#include <errno.h>
#include <sys/syscall.h>

#include "Core/Kernel/Futex.h"
#include "Core/Kernel/KernelSignal.h"
#include "Core/Kernel/SuspensionHandler.h"
#include "Core/Kernel/SuspensionSlot.h"
#include "Core/Kernel/SystemCall.h"

namespace core {
namespace {

KernelSignalAction currentAction() noexcept {
  KernelSignalAction action{};
  systemCall(SYS_rt_sigaction, ThreadSuspension::kSignal, nullptr, &action, sizeof action.mask);
  return action;
}

}  // namespace

int ThreadSuspension::install() noexcept {
  if (isInstalled()) {
    return 0;
  }
  if (currentAction().handler != nullptr) {
    return EBUSY;
  }
  const KernelSignalAction action{onSuspensionSignal, SA_SIGINFO | SA_ONSTACK | SA_RESTART | kSignalRestorer,
                                  kivReturnFromSuspension, ~KernelSignalSet{0}};
  return errorOf(systemCall(SYS_rt_sigaction, kSignal, &action, nullptr, sizeof action.mask));
}

bool ThreadSuspension::isInstalled() noexcept {
  return currentAction().handler == onSuspensionSignal;
}

void ThreadSuspension::resumeAll() noexcept {
  for (SuspensionSlot& slot : suspensionSlots) {
    const std::uint32_t word = slotWord(slot);
    const bool isOpen = phaseOf(word) == SlotPhase::kAsked || isAnswered(word);
    if (isOpen && stepSlot(slot, word, slotWordOf(generationOf(word), SlotPhase::kFree))) {
      futexWake(slot.word);
    }
  }
}

}  // namespace core

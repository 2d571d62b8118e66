#include "Core/Kernel/SuspensionRound.h"

#include <algorithm>
#include <iterator>

#include "Core/Kernel/SuspensionSlot.h"

namespace core {
namespace {

Mutex rounds;

bool isAnyThreadHeld() noexcept {
  return std::any_of(std::begin(suspensionSlots), std::end(suspensionSlots),
                     [](const SuspensionSlot& slot) { return phaseOf(slotWord(slot)) != SlotPhase::kFree; });
}

}  // namespace

SuspensionRound::SuspensionRound() noexcept
    : lock_(rounds),
      isCrash_(CrashOwner::isCurrentThread()),
      mayAdopt_(isCrash_ && isAnyThreadHeld()),
      process_(processId()),
      thread_(threadId()) {}

SuspendedThread SuspensionRound::ask(int thread, const SuspensionRequest& request) noexcept {
  SuspendedThread asked(*this, thread);
  asked.ask(request);
  return asked;
}

bool readOtherContext(SuspensionRound& round, int thread, MachineContext& context) noexcept {
  SuspendedThread suspended = round.ask(thread);
  suspended.wait();
  return suspended.copyContext(context);
}

}  // namespace core

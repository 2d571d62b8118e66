#include "Core/Kernel/SuspensionRound.h"

namespace core {
namespace {

Mutex rounds;

}  // namespace

SuspensionRound::SuspensionRound() noexcept
    : lock_(rounds), isCrash_(CrashOwner::isCurrentThread()), process_(processId()), thread_(threadId()) {}

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

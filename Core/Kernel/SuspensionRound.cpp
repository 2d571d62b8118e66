#include "Core/Kernel/SuspensionRound.h"

#include "Core/Kernel/OwnMemory.h"

namespace core {
namespace {

Mutex rounds;

}  // namespace

SuspensionRound::SuspensionRound() noexcept : lock_(rounds), isCrash_(CrashOwner::isCurrentThread()) {}

SuspendedThread SuspensionRound::ask(int thread, const stack_t& offeredStack) noexcept {
  SuspendedThread asked(*this, thread);
  asked.ask(offeredStack);
  return asked;
}

bool readOtherContext(SuspensionRound& round, int thread, MachineContext& context) noexcept {
  SuspendedThread suspended = round.ask(thread);
  suspended.wait();
  context.machine = suspended.context();
  const auto floats = reinterpret_cast<std::uint64_t>(context.machine.fpregs);
  context.machine.fpregs = &context.floats;
  return suspended.answer() == SuspendedThread::Answer::kHeld && floats != 0 &&
         readOwnMemory(floats, &context.floats, sizeof context.floats);
}

}  // namespace core

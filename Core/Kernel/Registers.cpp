#include "Core/Kernel/Registers.h"

namespace core {

Registers registersOf(const mcontext_t& context) noexcept {
  // In the order of Registers::Number.
  constexpr int kPlaces[Registers::kGeneral] = {REG_RAX, REG_RDX, REG_RCX, REG_RBX, REG_RSI, REG_RDI, REG_RBP, REG_RSP,
                                                REG_R8,  REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15};
  Registers registers;
  for (unsigned i = 0; i < Registers::kGeneral; ++i) {
    registers.general[i] = static_cast<std::uint64_t>(context.gregs[kPlaces[i]]);
  }
  registers.instructionPointer = static_cast<std::uint64_t>(context.gregs[REG_RIP]);
  return registers;
}

}  // namespace core

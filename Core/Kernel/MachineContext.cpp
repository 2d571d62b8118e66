#include "Core/Kernel/MachineContext.h"

namespace core {
namespace {

constexpr int kSize = sizeof(greg_t);
static_assert(sizeof(_libc_fpstate) == 512);

}  // namespace

// One register a line, at its place in the array; the argument is in rdi, the return address
// on top of the stack.
asm(R"(
  .text
  .globl kivCaptureRegisters
  .hidden kivCaptureRegisters
  .type kivCaptureRegisters, @function
  .p2align 4
kivCaptureRegisters:
  .cfi_startproc
  movq %r8, 0(%rdi)
  movq %r9, 8(%rdi)
  movq %r10, 16(%rdi)
  movq %r11, 24(%rdi)
  movq %r12, 32(%rdi)
  movq %r13, 40(%rdi)
  movq %r14, 48(%rdi)
  movq %r15, 56(%rdi)
  movq %rdi, 64(%rdi)
  movq %rsi, 72(%rdi)
  movq %rbp, 80(%rdi)
  movq %rbx, 88(%rdi)
  movq %rdx, 96(%rdi)
  movq %rax, 104(%rdi)
  movq %rcx, 112(%rdi)
  leaq 8(%rsp), %rax
  movq %rax, 120(%rdi)
  movq (%rsp), %rax
  movq %rax, 128(%rdi)
  pushfq
  .cfi_adjust_cfa_offset 8
  popq 136(%rdi)
  .cfi_adjust_cfa_offset -8
  movw %cs, 144(%rdi)
  movw %gs, 146(%rdi)
  movw %fs, 148(%rdi)
  movw %ss, 150(%rdi)
  movq 104(%rdi), %rax
  ret
  .cfi_endproc
  .size kivCaptureRegisters, .-kivCaptureRegisters
)");

static_assert(REG_R8 == 0 && REG_R15 == 7 && REG_RDI * kSize == 64 && REG_RBP * kSize == 80 && REG_RAX * kSize == 104 &&
              REG_RSP * kSize == 120 && REG_RIP * kSize == 128 && REG_EFL * kSize == 136 && REG_CSGSFS * kSize == 144);

}  // namespace core

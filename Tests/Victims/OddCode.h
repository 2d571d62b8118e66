#pragma once

// Code that compilers seldom or never write, with call-frame information. Included once.

asm(R"(
  .pushsection .text
  .type victimLocal, @function
victimLocal:
  ret
  ret
  .size victimLocal, .-victimLocal

# Stops at its first instruction. The one before belongs to another function.
  .type victimBefore, @function
victimBefore:
  .cfi_startproc
  .cfi_def_cfa_offset 4096
  nop
  .cfi_endproc
  .size victimBefore, .-victimBefore
  .type victimFirst, @function
victimFirst:
  .cfi_startproc
  ud2
  .cfi_endproc
  .size victimFirst, .-victimFirst

# Uses the register of frame pointers for something else.
  .type victimFrameless, @function
victimFrameless:
  .cfi_startproc
  push %rbp
  .cfi_adjust_cfa_offset 8
  .cfi_rel_offset %rbp, 0
  mov $0x5a5a, %ebp
  call *%rdi
  pop %rbp
  .cfi_adjust_cfa_offset -8
  .cfi_restore %rbp
  ret
  .cfi_endproc
  .size victimFrameless, .-victimFrameless

# A CFA from an odd register, states kept twice, registers by expression and by other registers,
# an undefined one.
  .type victimOdd, @function
victimOdd:
  .cfi_startproc
  push %rbx
  .cfi_adjust_cfa_offset 8
  .cfi_rel_offset %rbx, 0
  mov %rsp, %rbx
  .cfi_def_cfa_register %rbx
  push %r12
  .cfi_rel_offset %r12, -8
  sub $24, %rsp
  nop
  .cfi_remember_state
  .cfi_escape 0x10, 0x0c, 0x02, 0x73, 0x78        # r12 at breg3 -8
  .cfi_undefined %rax
  .cfi_remember_state
  mov %r13, 8(%rsp)
  .cfi_escape 0x10, 0x0d, 0x03, 0x77, 0x08, 0x96  # r13 at breg7 8; nop
  xor %r13d, %r13d
  mov %r14, 16(%rsp)
  .cfi_escape 0x10, 0x0e, 0x02, 0x77, 0x10        # r14 at breg7 16
  mov %rbp, %r14
  .cfi_register %rbp, %r14
  call *%rdi
  mov %r14, %rbp
  mov 16(%rsp), %r14
  .cfi_restore_state
  mov 8(%rsp), %r13
  .cfi_restore_state
  add $24, %rsp
  pop %r12
  .cfi_restore %r12
  pop %rbx
  .cfi_restore %rbx
  .cfi_def_cfa %rsp, 8
  ret
  .cfi_endproc
  .size victimOdd, .-victimOdd

# A CFA that is computed.
  .type victimComputed, @function
victimComputed:
  .cfi_startproc
  pushq %rbp
  .cfi_def_cfa_offset 16
  .cfi_offset %rbp, -16
  lea 16(%rsp), %rax
  .cfi_def_cfa %rax, 0
  sub $128, %rsp
  and $-64, %rsp
  mov %rax, 32(%rsp)
  .cfi_escape 0x0f, 0x03, 0x77, 0x20, 0x06        # CFA = deref(breg7 32)
  call *%rdi
  mov 32(%rsp), %rax
  lea -16(%rax), %rsp
  .cfi_def_cfa %rsp, 16
  popq %rbp
  .cfi_restore %rbp
  .cfi_def_cfa_offset 8
  ret
  .cfi_endproc
  .size victimComputed, .-victimComputed
  .popsection
)");

extern "C" {
void victimLocal();
void victimFirst();
void victimFrameless(void (*call)());
void victimOdd(void (*call)());
void victimComputed(void (*call)());
}

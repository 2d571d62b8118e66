#pragma once

#include <array>
#include <cstdint>

#include "Core/Kernel/Registers.h"
#include "Core/Kernel/Unwind/CallFrameExpression.h"
#include "Core/Kernel/Unwind/CallFrameRow.h"
#include "Core/Kernel/Unwind/CallFrameTable.h"
#include "Core/Kernel/Unwind/StackWindow.h"
#include "Core/Kernel/Unwind/StepRule.h"

namespace core {

/// The frame at which a walk stands: its registers, as far as they are known. A register that a
/// callee stored is read when it is first asked for. Fit for the crash path.
class CallFrame final : public ExpressionFrame {
 public:
  CallFrame(const Registers& registers, StackWindow& window) noexcept : window_(window) { enter(registers); }

  std::uint64_t address() const noexcept { return address_; }
  std::uint64_t stackPointer() const noexcept { return values_[Registers::kRsp]; }
  bool framePointer(std::uint64_t& into) noexcept { return generalValue(Registers::kRbp, into); }

  /// True when the frame was stopped where it stands (the first one, one below a signal
  /// frame); others stand behind a call.
  bool isContext() const noexcept { return isContext_; }
  /// An address of the instruction that is being executed.
  std::uint64_t executing() const noexcept { return isContext_ ? address_ : address_ - 1; }

  /// Each of these makes it the caller's frame. False when there is none: the memory cannot be
  /// read, the address is 0, or the stack pointer does not move up.
  bool follow(StepRule common) noexcept;
  bool follow(const CallFrameRow& row, bool isSignalFrame, const CallFrameTable& table) noexcept;
  bool followTo(std::uint64_t address, std::uint64_t stackPointer) noexcept;
  bool followTo(std::uint64_t address, std::uint64_t stackPointer, std::uint64_t framePointer) noexcept;

  /// Goes to the context that a signal interrupted, on whatever stack.
  void enter(const Registers& registers) noexcept;

  /// The 8 bytes of stack at `address`.
  bool word(std::uint64_t address, std::uint64_t& into) noexcept { return window_.word(address, into); }

  bool registerValue(std::uint64_t number, std::uint64_t& into) noexcept override;
  bool memoryValue(std::uint64_t address, std::size_t size, std::uint64_t& into) noexcept override;
  const OwnMemory& memory() const noexcept override { return window_.memory(); }

 private:
  bool generalValue(unsigned number, std::uint64_t& into) noexcept {
    if ((stored_ >> number & 1) != 0) {
      return loadStored(number, into);
    }
    into = values_[number];
    return true;
  }
  [[gnu::noinline]] bool loadStored(unsigned number, std::uint64_t& into) noexcept;
  bool canonicalAddress(const CallFrameRow& row, const CallFrameTable& table, std::uint64_t& cfa) noexcept;
  bool callerValue(const CallFrameRow& row, unsigned column, std::uint64_t cfa, const CallFrameTable& table,
                   std::uint64_t& value, bool& isStored) noexcept;

  StackWindow& window_;
  std::uint64_t address_ = 0;
  bool isContext_ = true;
  std::uint32_t stored_ = 0;                                 // bit n: values_[n] is where register n is stored
  std::array<std::uint64_t, Registers::kGeneral> values_{};  // the stack pointer's never is
};

}  // namespace core

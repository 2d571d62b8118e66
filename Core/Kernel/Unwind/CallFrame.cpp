#include "Core/Kernel/Unwind/CallFrame.h"

#include <algorithm>

namespace core {
namespace {

constexpr std::uint64_t kWord = sizeof(std::uint64_t);

}  // namespace

void CallFrame::enter(const Registers& registers) noexcept {
  values_ = registers.general;
  address_ = registers.instructionPointer;
  isContext_ = true;
  stored_ = 0;
  window_.leave();
}

bool CallFrame::follow(StepRule rule) noexcept {
  std::uint64_t base = stackPointer();
  if (rule.isFromFramePointer() && !framePointer(base)) {
    return false;
  }
  const std::uint64_t cfa = base + rule.cfaOffset();
  std::uint64_t caller = 0;
  if (!word(cfa - kWord, caller)) {
    return false;
  }
  std::uint64_t slots = rule.slots();
  for (const Registers::Number number : StepRule::kKept) {
    const std::uint64_t slot = slots & StepRule::kSlotMask;
    values_[number] = slot != 0 ? cfa - kWord - slot * kWord : values_[number];
    stored_ |= static_cast<std::uint32_t>(slot != 0) << number;
    slots >>= StepRule::kSlotBits;
  }
  return followTo(caller, cfa);
}

bool CallFrame::followTo(std::uint64_t address, std::uint64_t stackPointer) noexcept {
  const bool movesUp = stackPointer > values_[Registers::kRsp];
  address_ = address;
  values_[Registers::kRsp] = stackPointer;
  isContext_ = false;
  return movesUp && address != 0;
}

bool CallFrame::followTo(std::uint64_t address, std::uint64_t stackPointer, std::uint64_t framePointer) noexcept {
  values_[Registers::kRbp] = framePointer;
  stored_ &= ~(std::uint32_t{1} << Registers::kRbp);
  return followTo(address, stackPointer);
}

bool CallFrame::follow(const CallFrameRow& row, bool isSignalFrame, const CallFrameTable& table) noexcept {
  std::uint64_t cfa = 0;
  if (!canonicalAddress(row, table, cfa)) {
    return false;
  }
  std::array<std::uint64_t, CallFrameRow::kColumns> callers;
  std::uint32_t stored = 0;
  for (unsigned column = 0; column < CallFrameRow::kColumns; ++column) {
    bool isStored = false;
    if (!callerValue(row, column, cfa, table, callers[column], isStored)) {
      return false;
    }
    stored |= std::uint32_t{isStored} << column;
  }
  // These two are wanted at once, the others perhaps never.
  for (const unsigned column : {unsigned{Registers::kRsp}, Registers::kReturnAddress}) {
    if ((stored >> column & 1) != 0 && !word(callers[column], callers[column])) {
      return false;
    }
  }
  const std::uint64_t before = stackPointer();
  std::copy_n(callers.begin(), values_.size(), values_.begin());
  address_ = callers[Registers::kReturnAddress];
  stored_ = stored & ~(std::uint32_t{1} << Registers::kRsp | std::uint32_t{1} << Registers::kReturnAddress);
  isContext_ = isSignalFrame;
  if (isContext_) {
    window_.leave();
    return address_ != 0;
  }
  return stackPointer() > before && address_ != 0;
}

bool CallFrame::canonicalAddress(const CallFrameRow& row, const CallFrameTable& table, std::uint64_t& cfa) noexcept {
  const auto number = static_cast<std::uint64_t>(row.cfaOffset);
  if (row.cfaIsComputed) {
    TableBlock block;
    return evaluateExpression(table.entries.cursor(memory(), block, number), *this, nullptr, cfa);
  }
  if (!generalValue(row.cfaRegister, cfa)) {
    return false;
  }
  cfa += number;
  return true;
}

/// A register's value in the caller, or where it is stored.
bool CallFrame::callerValue(const CallFrameRow& row, unsigned column, std::uint64_t cfa, const CallFrameTable& table,
                            std::uint64_t& value, bool& isStored) noexcept {
  const auto number = static_cast<std::uint64_t>(row.values[column]);
  const RegisterRule rule = row.rules[column];
  isStored = false;
  switch (rule) {
    case RegisterRule::kSavedAtOffset:
      isStored = true;
      value = cfa + number;
      return true;
    case RegisterRule::kOffset:
      value = cfa + number;
      return true;
    case RegisterRule::kRegister:
      return generalValue(static_cast<unsigned>(number), value);
    case RegisterRule::kSavedAtComputed:
    case RegisterRule::kComputed: {
      TableBlock block;
      isStored = rule == RegisterRule::kSavedAtComputed;
      return evaluateExpression(table.entries.cursor(memory(), block, number), *this, &cfa, value);
    }
    default:
      break;
  }
  // The same, or lost. Without a rule of its own the caller's stack pointer is the CFA; nothing
  // leads on from a return address that is lost.
  if (column == Registers::kReturnAddress) {
    value = 0;
  } else if (column == Registers::kRsp) {
    value = cfa;
  } else {
    value = values_[column];
    isStored = (stored_ >> column & 1) != 0;
  }
  return true;
}

bool CallFrame::registerValue(std::uint64_t number, std::uint64_t& into) noexcept {
  if (number == Registers::kReturnAddress) {
    into = address_;
    return true;
  }
  return number < Registers::kGeneral && generalValue(static_cast<unsigned>(number), into);
}

bool CallFrame::memoryValue(std::uint64_t address, std::size_t size, std::uint64_t& into) noexcept {
  if (size == sizeof into) {
    return word(address, into);
  }
  into = 0;
  return memory().read(address, &into, size);
}

bool CallFrame::loadStored(unsigned number, std::uint64_t& into) noexcept {
  if (!word(values_[number], into)) {
    return false;
  }
  values_[number] = into;
  stored_ &= ~(std::uint32_t{1} << number);
  return true;
}

}  // namespace core

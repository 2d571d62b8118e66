#pragma once

#include <cstdint>

#include "Core/Kernel/Unwind/ByteCursor.h"

namespace core {

/// What expressions ask of the frame that they are about.
class ExpressionFrame {
 public:
  /// The value of register `number` (Registers' numbers, the return address's for the instruction pointer).
  virtual bool registerValue(std::uint64_t number, std::uint64_t& into) noexcept = 0;
  /// `size` bytes, 8 at most, as a number.
  virtual bool memoryValue(std::uint64_t address, std::size_t size, std::uint64_t& into) noexcept = 0;
  virtual const OwnMemory& memory() const noexcept = 0;

 protected:
  ~ExpressionFrame() = default;
};

/// The value of the expression (DW_OP_*) that `cursor` stands before, its length first. `cfa`
/// lies on the stack at its start, except for the expression of the CFA itself (nullptr). False
/// for operations that make no sense in frames, a stack that runs over or out, a division by
/// zero, more than kMostSteps operations, memory that cannot be read. Fit for the crash path.
bool evaluateExpression(ByteCursor cursor, ExpressionFrame& frame, const std::uint64_t* cfa,
                        std::uint64_t& result) noexcept;

}  // namespace core

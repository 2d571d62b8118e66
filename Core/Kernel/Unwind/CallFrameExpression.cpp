#include "Core/Kernel/Unwind/CallFrameExpression.h"

#include <array>

#include "Core/Kernel/Unwind/EncodedPointer.h"

namespace core {
namespace {

constexpr int kMostSteps = 4096;
constexpr std::size_t kMostValues = 64;

enum Operation : std::uint8_t {
  kAddress = 0x03,
  kDereference = 0x06,
  kConstant1Unsigned = 0x08,
  kConstant1Signed = 0x09,
  kConstant2Unsigned = 0x0A,
  kConstant2Signed = 0x0B,
  kConstant4Unsigned = 0x0C,
  kConstant4Signed = 0x0D,
  kConstant8Unsigned = 0x0E,
  kConstant8Signed = 0x0F,
  kConstantUnsigned = 0x10,
  kConstantSigned = 0x11,
  kDuplicate = 0x12,
  kDrop = 0x13,
  kOver = 0x14,
  kPick = 0x15,
  kSwap = 0x16,
  kRotate = 0x17,
  kAbsolute = 0x19,
  kAnd = 0x1A,
  kDivide = 0x1B,
  kMinus = 0x1C,
  kModulo = 0x1D,
  kMultiply = 0x1E,
  kNegate = 0x1F,
  kNot = 0x20,
  kOr = 0x21,
  kPlus = 0x22,
  kPlusConstant = 0x23,
  kShiftLeft = 0x24,
  kShiftRight = 0x25,
  kShiftRightSigned = 0x26,
  kXor = 0x27,
  kBranch = 0x28,
  kEqual = 0x29,
  kNotLess = 0x2A,
  kGreater = 0x2B,
  kNotGreater = 0x2C,
  kLess = 0x2D,
  kNotEqual = 0x2E,
  kSkip = 0x2F,
  kLiteral0 = 0x30,
  kRegister0 = 0x50,
  kBasedRegister0 = 0x70,
  kRegisterExtended = 0x90,
  kBasedRegisterExtended = 0x92,
  kDereferenceSize = 0x94,
  kNothing = 0x96,
  kCallFrameAddress = 0x9C,
  kEncodedAddress = 0xF1
};
constexpr std::uint8_t kNumbered = 32;

std::uint64_t shifted(std::uint64_t value, std::uint64_t count, Operation operation) noexcept {
  const bool isAll = count >= 64;
  if (operation == kShiftRightSigned) {
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(value) >> (isAll ? 63 : count));
  }
  if (isAll) {
    return 0;
  }
  return operation == kShiftLeft ? value << count : value >> count;
}

/// The result of an operation on two values, `right` being the topmost. False for division by zero.
bool combine(Operation operation, std::uint64_t left, std::uint64_t right, std::uint64_t& result) noexcept {
  const auto signedLeft = static_cast<std::int64_t>(left);
  const auto signedRight = static_cast<std::int64_t>(right);
  switch (operation) {
    case kAnd:
      result = left & right;
      return true;
    case kOr:
      result = left | right;
      return true;
    case kXor:
      result = left ^ right;
      return true;
    case kPlus:
      result = left + right;
      return true;
    case kMinus:
      result = left - right;
      return true;
    case kMultiply:
      result = left * right;
      return true;
    case kDivide:
      if (right == 0) {
        return false;
      }
      result = signedRight == -1 ? -left : static_cast<std::uint64_t>(signedLeft / signedRight);
      return true;
    case kModulo:
      if (right == 0) {
        return false;
      }
      result = left % right;
      return true;
    case kEqual:
      result = left == right;
      return true;
    case kNotEqual:
      result = left != right;
      return true;
    case kLess:
      result = signedLeft < signedRight;
      return true;
    case kNotGreater:
      result = signedLeft <= signedRight;
      return true;
    case kGreater:
      result = signedLeft > signedRight;
      return true;
    case kNotLess:
      result = signedLeft >= signedRight;
      return true;
    default:
      result = shifted(left, right, operation);
      return true;
  }
}

class Evaluator {
 public:
  Evaluator(ByteCursor& cursor, ExpressionFrame& frame, const std::uint64_t* cfa) noexcept
      : cursor_(cursor), frame_(frame), cfa_(cfa) {}

  bool run(std::uint64_t& result) noexcept {
    const std::uint64_t size = cursor_.unsignedLeb();
    cursor_.endAt(cursor_.address() + size);
    if (cfa_ != nullptr) {
      push(*cfa_);
    }
    for (int steps = 0; !cursor_.done(); ++steps) {
      if (steps == kMostSteps || !execute(cursor_.byte())) {
        return false;
      }
    }
    return pop(result) && !cursor_.failed();
  }

 private:
  bool execute(std::uint8_t code) noexcept {
    if (code >= kLiteral0 && code < kLiteral0 + kNumbered) {
      return push(std::uint64_t{code} - kLiteral0);
    }
    if (code >= kRegister0 && code < kRegister0 + kNumbered) {
      return pushRegister(std::uint64_t{code} - kRegister0, 0);
    }
    if (code >= kBasedRegister0 && code < kBasedRegister0 + kNumbered) {
      return pushRegister(std::uint64_t{code} - kBasedRegister0, cursor_.signedLeb());
    }
    switch (const auto operation = static_cast<Operation>(code)) {
      case kAnd:
      case kDivide:
      case kMinus:
      case kModulo:
      case kMultiply:
      case kOr:
      case kPlus:
      case kShiftLeft:
      case kShiftRight:
      case kShiftRightSigned:
      case kXor:
      case kEqual:
      case kNotLess:
      case kGreater:
      case kNotGreater:
      case kLess:
      case kNotEqual: {
        std::uint64_t left = 0;
        std::uint64_t right = 0;
        return pop(right) && pop(left) && combine(operation, left, right, right) && push(right);
      }
      case kDereference:
      case kDereferenceSize:
      case kAbsolute:
      case kNegate:
      case kNot:
      case kPlusConstant:
        return changeTop(operation);
      case kDuplicate:
      case kOver:
      case kPick:
      case kDrop:
      case kSwap:
      case kRotate:
        return arrange(operation);
      case kSkip:
      case kBranch:
        return jump(operation);
      case kRegisterExtended:
        return pushRegister(cursor_.unsignedLeb(), 0);
      case kBasedRegisterExtended: {
        const std::uint64_t number = cursor_.unsignedLeb();
        return pushRegister(number, cursor_.signedLeb());
      }
      case kCallFrameAddress:
        return cfa_ != nullptr && push(*cfa_);
      case kNothing:
        return true;
      default:
        return pushConstant(operation);
    }
  }

  bool pushConstant(Operation operation) noexcept {
    switch (operation) {
      case kConstant1Unsigned:
        return push(cursor_.byte());
      case kConstant1Signed:
        return pushSigned(cursor_.take<std::int8_t>());
      case kConstant2Unsigned:
        return push(cursor_.take<std::uint16_t>());
      case kConstant2Signed:
        return pushSigned(cursor_.take<std::int16_t>());
      case kConstant4Unsigned:
        return push(cursor_.take<std::uint32_t>());
      case kConstant4Signed:
        return pushSigned(cursor_.take<std::int32_t>());
      case kAddress:
      case kConstant8Unsigned:
      case kConstant8Signed:
        return push(cursor_.take<std::uint64_t>());
      case kConstantUnsigned:
        return push(cursor_.unsignedLeb());
      case kConstantSigned:
        return pushSigned(cursor_.signedLeb());
      case kEncodedAddress: {
        const std::uint8_t encoding = cursor_.byte();
        return push(takePointer(cursor_, encoding, {}, frame_.memory()));
      }
      default:
        return false;
    }
  }

  bool changeTop(Operation operation) noexcept {
    std::uint64_t value = 0;
    if (!pop(value)) {
      return false;
    }
    switch (operation) {
      case kDereference:
        return frame_.memoryValue(value, sizeof value, value) && push(value);
      case kDereferenceSize: {
        const std::size_t size = cursor_.byte();
        return size != 0 && size <= sizeof value && frame_.memoryValue(value, size, value) && push(value);
      }
      case kAbsolute:
        return push(static_cast<std::int64_t>(value) < 0 ? -value : value);
      case kNegate:
        return push(-value);
      case kNot:
        return push(~value);
      default:
        return push(value + cursor_.unsignedLeb());
    }
  }

  bool arrange(Operation operation) noexcept {
    switch (operation) {
      case kDuplicate:
        return pushCopy(0);
      case kOver:
        return pushCopy(1);
      case kPick:
        return pushCopy(cursor_.byte());
      case kDrop: {
        std::uint64_t dropped = 0;
        return pop(dropped);
      }
      case kSwap:
        return rotate(2);
      default:
        return rotate(3);
    }
  }

  bool jump(Operation operation) noexcept {
    const std::int16_t distance = cursor_.take<std::int16_t>();
    std::uint64_t condition = 1;
    if (operation == kBranch && !pop(condition)) {
      return false;
    }
    if (condition != 0) {
      cursor_.moveTo(cursor_.address() + static_cast<std::uint64_t>(std::int64_t{distance}));
    }
    return !cursor_.failed();
  }

  bool pushRegister(std::uint64_t number, std::int64_t offset) noexcept {
    std::uint64_t value = 0;
    return frame_.registerValue(number, value) && push(value + static_cast<std::uint64_t>(offset));
  }

  bool pushSigned(std::int64_t value) noexcept { return push(static_cast<std::uint64_t>(value)); }

  bool push(std::uint64_t value) noexcept {
    if (count_ == kMostValues) {
      return false;
    }
    values_[count_++] = value;
    return true;
  }

  bool pop(std::uint64_t& into) noexcept {
    if (count_ == 0) {
      return false;
    }
    into = values_[--count_];
    return true;
  }

  bool pushCopy(std::size_t depth) noexcept { return depth < count_ && push(values_[count_ - 1 - depth]); }

  /// The topmost value goes below the `count` - 1 others.
  bool rotate(std::size_t count) noexcept {
    if (count_ < count) {
      return false;
    }
    const std::uint64_t top = values_[count_ - 1];
    for (std::size_t i = 1; i < count; ++i) {
      values_[count_ - i] = values_[count_ - i - 1];
    }
    values_[count_ - count] = top;
    return true;
  }

  ByteCursor& cursor_;
  ExpressionFrame& frame_;
  const std::uint64_t* cfa_;
  std::array<std::uint64_t, kMostValues> values_;
  std::size_t count_ = 0;
};

}  // namespace

bool evaluateExpression(ByteCursor cursor, ExpressionFrame& frame, const std::uint64_t* cfa,
                        std::uint64_t& result) noexcept {
  return Evaluator(cursor, frame, cfa).run(result);
}

}  // namespace core

#include "Core/Kernel/Unwind/CallFrameProgram.h"

#include "Core/Kernel/Unwind/EncodedPointer.h"

namespace core {
namespace {

/// Instructions, the first three with an operand in their low six bits.
enum Instruction : std::uint8_t {
  kAdvance = 0x40,
  kOffset = 0x80,
  kRestore = 0xC0,
  kNop = 0x00,
  kSetLocation = 0x01,
  kAdvance1 = 0x02,
  kAdvance2 = 0x03,
  kAdvance4 = 0x04,
  kOffsetExtended = 0x05,
  kRestoreExtended = 0x06,
  kUndefined = 0x07,
  kSameValue = 0x08,
  kRegister = 0x09,
  kRememberState = 0x0A,
  kRestoreState = 0x0B,
  kDefineCfa = 0x0C,
  kDefineCfaRegister = 0x0D,
  kDefineCfaOffset = 0x0E,
  kDefineCfaExpression = 0x0F,
  kExpression = 0x10,
  kOffsetExtendedSigned = 0x11,
  kDefineCfaSigned = 0x12,
  kDefineCfaOffsetSigned = 0x13,
  kValueOffset = 0x14,
  kValueOffsetSigned = 0x15,
  kValueExpression = 0x16,
  kAdvance8 = 0x1D,
  kArgumentsSize = 0x2E,
  kNegativeOffsetExtended = 0x2F
};
constexpr std::uint8_t kPrimaryBits = 0xC0;
constexpr std::uint8_t kOperandBits = 0x3F;

/// Compilers keep one state at a time, hand-written code a few.
constexpr std::size_t kMostStates = 8;

class Program {
 public:
  /// For the rows from `start` to `wanted`.
  Program(const CallFrameTable& table, const CallFrameCommon& common, const OwnMemory& memory, std::uint64_t start,
          std::uint64_t wanted, CallFrameRow& row) noexcept
      : table_(table), common_(common), memory_(memory), row_(row), location_(start), wanted_(wanted) {}

  bool run(ByteCursor& cursor) noexcept {
    while (!cursor.done() && !passed_) {
      if (!execute(cursor)) {
        return false;
      }
    }
    return !cursor.failed();
  }

  /// Once run, where the next row starts, if there is one.
  bool hasNext() const noexcept { return passed_; }
  std::uint64_t nextLocation() const noexcept { return location_; }
  /// Lets run() go on to the end of the next row.
  void goOn() noexcept {
    wanted_ = location_;
    passed_ = false;
  }

 private:
  bool execute(ByteCursor& cursor) noexcept {
    const std::uint8_t instruction = cursor.byte();
    const std::uint8_t operand = instruction & kOperandBits;
    switch (instruction & kPrimaryBits) {
      case kAdvance:
        return advance(operand);
      case kOffset:
        return set(operand, RegisterRule::kSavedAtOffset, factored(cursor.unsignedLeb()));
      case kRestore:
        return restore(operand);
      default:
        return executeExtended(cursor, instruction);
    }
  }

  bool executeExtended(ByteCursor& cursor, std::uint8_t instruction) noexcept {
    switch (instruction) {
      case kNop:
        return true;
      case kSetLocation:
        return setLocation(takePointer(cursor, common_.pointerEncoding, {.data = table_.anchor}, memory_));
      case kAdvance1:
        return advance(cursor.byte());
      case kAdvance2:
        return advance(cursor.take<std::uint16_t>());
      case kAdvance4:
        return advance(cursor.take<std::uint32_t>());
      case kAdvance8:
        return advance(cursor.take<std::uint64_t>());
      case kRememberState:
        return remember();
      case kRestoreState:
        return recall();
      case kArgumentsSize:
        cursor.unsignedLeb();
        return true;
      case kDefineCfa:
      case kDefineCfaSigned:
      case kDefineCfaRegister:
      case kDefineCfaOffset:
      case kDefineCfaOffsetSigned:
      case kDefineCfaExpression:
        return defineCfa(cursor, instruction);
      default:
        return defineRegister(cursor, instruction);
    }
  }

  bool defineCfa(ByteCursor& cursor, std::uint8_t instruction) noexcept {
    if (instruction == kDefineCfaExpression) {
      row_.cfaIsComputed = true;
      row_.cfaOffset = takeExpression(cursor);
      return true;
    }
    const bool isWhole = instruction == kDefineCfa || instruction == kDefineCfaSigned;
    if (row_.cfaIsComputed && !isWhole) {
      return false;  // half of a rule that is not there
    }
    if (isWhole || instruction == kDefineCfaRegister) {
      const std::uint64_t number = cursor.unsignedLeb();
      if (number >= Registers::kGeneral) {
        return false;
      }
      row_.cfaRegister = static_cast<std::uint8_t>(number);
    }
    if (instruction == kDefineCfa || instruction == kDefineCfaOffset) {
      row_.cfaOffset = static_cast<std::int64_t>(cursor.unsignedLeb());
    } else if (instruction != kDefineCfaRegister) {
      row_.cfaOffset = factored(static_cast<std::uint64_t>(cursor.signedLeb()));
    }
    row_.cfaIsComputed = false;
    return true;
  }

  bool defineRegister(ByteCursor& cursor, std::uint8_t instruction) noexcept {
    const std::uint64_t number = cursor.unsignedLeb();
    switch (instruction) {
      case kOffsetExtended:
        return set(number, RegisterRule::kSavedAtOffset, factored(cursor.unsignedLeb()));
      case kOffsetExtendedSigned:
        return set(number, RegisterRule::kSavedAtOffset, factored(static_cast<std::uint64_t>(cursor.signedLeb())));
      case kNegativeOffsetExtended:
        return set(number, RegisterRule::kSavedAtOffset, factored(-cursor.unsignedLeb()));
      case kValueOffset:
        return set(number, RegisterRule::kOffset, factored(cursor.unsignedLeb()));
      case kValueOffsetSigned:
        return set(number, RegisterRule::kOffset, factored(static_cast<std::uint64_t>(cursor.signedLeb())));
      case kUndefined:
        return set(number, RegisterRule::kUndefined, 0);
      case kSameValue:
        return set(number, RegisterRule::kSame, 0);
      case kRegister: {
        const std::uint64_t holder = cursor.unsignedLeb();
        return holder < Registers::kGeneral && set(number, RegisterRule::kRegister, static_cast<std::int64_t>(holder));
      }
      case kExpression:
        return set(number, RegisterRule::kSavedAtComputed, takeExpression(cursor));
      case kValueExpression:
        return set(number, RegisterRule::kComputed, takeExpression(cursor));
      case kRestoreExtended:
        return restore(number);
      default:
        return false;
    }
  }

  /// Columns beyond the general ones (vector registers) are of no use to a walk.
  bool set(std::uint64_t number, RegisterRule rule, std::int64_t value) noexcept {
    const std::uint64_t column = columnOf(number);
    if (column < CallFrameRow::kColumns) {
      row_.rules[column] = rule;
      row_.values[column] = value;
    }
    return true;
  }

  bool restore(std::uint64_t number) noexcept {
    const std::uint64_t column = columnOf(number);
    return column >= CallFrameRow::kColumns ||
           set(number, common_.initial.rules[column], common_.initial.values[column]);
  }

  std::uint64_t columnOf(std::uint64_t number) const noexcept {
    return number == common_.returnColumn ? Registers::kReturnAddress : number;
  }

  bool advance(std::uint64_t units) noexcept {
    const std::uint64_t distance = units * common_.codeFactor;
    passed_ = distance > wanted_ - location_;
    location_ += distance;
    return true;
  }

  bool setLocation(std::uint64_t location) noexcept {
    passed_ = location > wanted_;
    location_ = location;
    return true;
  }

  bool remember() noexcept {
    if (kept_ == kMostStates) {
      return false;
    }
    states_[kept_++] = row_;
    return true;
  }

  bool recall() noexcept {
    if (kept_ == 0) {
      return false;
    }
    row_ = states_[--kept_];
    return true;
  }

  /// The address of an expression, which begins with its length.
  std::int64_t takeExpression(ByteCursor& cursor) noexcept {
    const std::uint64_t address = cursor.address();
    cursor.skip(cursor.unsignedLeb());
    return static_cast<std::int64_t>(address);
  }

  std::int64_t factored(std::uint64_t value) const noexcept {
    return static_cast<std::int64_t>(value * common_.dataFactor);
  }

  const CallFrameTable& table_;
  const CallFrameCommon& common_;
  const OwnMemory& memory_;
  CallFrameRow& row_;
  std::uint64_t location_;
  std::uint64_t wanted_;
  bool passed_ = false;
  std::size_t kept_ = 0;
  std::array<CallFrameRow, kMostStates> states_;
};

}  // namespace

bool computeInitialRow(const CallFrameTable& table, CallFrameCommon& common, const OwnMemory& memory,
                       ByteCursor& cursor) noexcept {
  common.initial = CallFrameRow();
  CallFrameRow row{};
  const bool isRun = Program(table, common, memory, 0, ~std::uint64_t{0}, row).run(cursor);
  common.initial = row;
  return isRun;
}

bool computeRow(const CallFrameTable& table, const CallFrameCommon& common, const CallFrameEntry& entry,
                const OwnMemory& memory, std::uint64_t address, CallFrameRow& row) noexcept {
  TableBlock block;
  ByteCursor cursor = table.entries.cursor(memory, block, entry.program);
  cursor.endAt(entry.programEnd);
  row = common.initial;
  return Program(table, common, memory, entry.start, address, row).run(cursor);
}

void computeRows(const CallFrameTable& table, const CallFrameCommon& common, const CallFrameEntry& entry,
                 const OwnMemory& memory, RowReceiver receiver) noexcept {
  TableBlock block;
  ByteCursor cursor = table.entries.cursor(memory, block, entry.program);
  cursor.endAt(entry.programEnd);
  CallFrameRow row = common.initial;
  Program program(table, common, memory, entry.start, entry.start, row);
  const std::uint64_t end = entry.start + entry.size;
  for (std::uint64_t start = entry.start; start < end && program.run(cursor);) {
    const std::uint64_t next = program.nextLocation();
    const bool isLast = !program.hasNext() || next <= start || next > end;  // an advance may run over
    receiver.take(receiver.object, row, start, isLast ? end : next);
    start = isLast ? end : next;
    program.goOn();
  }
}

}  // namespace core

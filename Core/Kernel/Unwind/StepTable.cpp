#include "Core/Kernel/Unwind/StepTable.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "Core/Kernel/Unwind/CallFrameProgram.h"

namespace core {
namespace {

constexpr std::uint16_t kNone = 0;

/// Numbers rules, each once, from 1 on.
class RuleNumbers {
 public:
  RuleNumbers() noexcept : slots_(static_cast<std::uint16_t*>(core::allocate(kSlots * sizeof(std::uint16_t)))) {
    std::fill_n(slots_, kSlots, kNone);
    rules_.append(StepRule());
  }
  RuleNumbers(const RuleNumbers&) = delete;
  RuleNumbers& operator=(const RuleNumbers&) = delete;
  ~RuleNumbers() { core::deallocate(slots_); }

  /// kNone for more different rules than have ever been seen in one image.
  std::uint16_t of(StepRule rule) noexcept {
    constexpr std::uint64_t kMixer = 0x9E3779B97F4A7C15;
    std::size_t slot = rule.bits() * kMixer >> (64 - kSlotBits);
    while (slots_[slot] != kNone && rules_[slots_[slot]].bits() != rule.bits()) {
      slot = (slot + 1) % kSlots;
    }
    if (slots_[slot] == kNone && rules_.size() <= kMost) {
      slots_[slot] = static_cast<std::uint16_t>(rules_.size());
      rules_.append(rule);
    }
    return slots_[slot];
  }

  const Array<StepRule>& rules() const noexcept { return rules_; }

 private:
  static constexpr unsigned kSlotBits = 16;
  static constexpr std::size_t kSlots = std::size_t{1} << kSlotBits;
  static constexpr std::size_t kMost = kSlots / 2;

  std::uint16_t* slots_;
  Array<StepRule> rules_;
};

}  // namespace

/// Goes through an image's functions in the order of their code and lays down the rules.
class StepTable::Maker {
 public:
  Maker(const CallFrameTable& table, AddressRange code) noexcept : table_(table), code_(code) {}

  StepTable make(std::size_t room) noexcept {
    const std::size_t count = table_.functionCount();
    CallFrameTable::Function next;
    if (leastSize() > room) {
      return {};
    }
    table_.entries.makeCopy(memory_);
    table_.index.makeCopy(memory_);
    if (count == 0 || !table_.function(memory_, 0, next)) {
      return {};
    }
    for (std::size_t i = 0; i < count && made_.size() <= room; ++i) {
      const CallFrameTable::Function function = next;
      next.start = code_.end;
      if (i + 1 < count && (!table_.function(memory_, i + 1, next) || next.start < function.start)) {
        return {};
      }
      addFunction(function, next.start);
    }
    finish();
    return made_.size() <= room ? std::move(made_) : StepTable();
  }

 private:
  /// Rows hardly ever come to less than half of what they are told by.
  std::size_t leastSize() const noexcept {
    return std::max(code_.size() / kPiece * sizeof(std::uint32_t), (table_.entries.end - table_.entries.start) / 2);
  }

  /// The index sends those to the function who look for code below `limit`.
  void addFunction(const CallFrameTable::Function& function, std::uint64_t limit) noexcept {
    CallFrameEntry entry;
    if (entry.read(table_, memory_, function.entry, common_) && !common_.isSignalFrame) {
      start_ = std::max(function.start, code_.start);
      end_ = std::min({limit, code_.end, entry.start + entry.size - 1});
      computeRows(table_, common_, entry, memory_,
                  {this, [](void* self, const CallFrameRow& row, std::uint64_t from, std::uint64_t to) noexcept {
                     static_cast<Maker*>(self)->take(row, from, to);
                   }});
    }
  }

  void take(const CallFrameRow& row, std::uint64_t start, std::uint64_t end) noexcept {
    start = std::max(start, start_);
    end = std::min(end, end_);
    if (start < end) {
      const std::optional<StepRule> rule = StepRule::of(row);
      put(start, rule ? numbers_.of(*rule) : kNone);
      put(end, kNone);
    }
  }

  /// From `address` on `rule` holds, unless the next one starts there too.
  void put(std::uint64_t address, std::uint16_t rule) noexcept {
    if (address - code_.start != pendingStart_) {
      settle();
      pendingStart_ = address - code_.start;
    }
    pendingRule_ = rule;
  }

  void settle() noexcept {
    if (pendingRule_ != lastRule_) {
      openPieces(pendingStart_ / kPiece + 1);
      const auto start = static_cast<std::uint8_t>(pendingStart_ % kPiece);
      if (start == 0) {
        made_.numbers_.back() = pendingRule_;
      } else {
        append(start, pendingRule_);
      }
      lastRule_ = pendingRule_;
    }
  }

  void append(std::uint8_t start, std::uint16_t rule) noexcept {
    made_.starts_.append(start);
    made_.numbers_.append(rule);
  }

  void openPieces(std::size_t count) noexcept {
    while (made_.pieces_.size() < count) {
      made_.pieces_.append(static_cast<std::uint32_t>(made_.starts_.size()));
      append(0, lastRule_);
    }
  }

  void finish() noexcept {
    settle();
    openPieces((code_.size() + kPiece - 1) / kPiece);
    made_.pieces_.append(static_cast<std::uint32_t>(made_.starts_.size()));
    made_.codeStart_ = code_.start;
    made_.rules_ = numbers_.rules();
    for (std::uint32_t i = 1; i < kAtOnce; ++i) {
      made_.starts_.append(0);
    }
    made_.pieces_ = Array(made_.pieces_);  // without the room for growth
    made_.starts_ = Array(made_.starts_);
    made_.numbers_ = Array(made_.numbers_);
  }

  CallFrameTable table_;
  const AddressRange code_;
  const OwnMemory memory_;
  CallFrameCommon common_;
  RuleNumbers numbers_;
  StepTable made_;
  std::uint64_t start_ = 0;  // of the code whose rows are being taken
  std::uint64_t end_ = 0;
  std::uint64_t pendingStart_ = 0;
  std::uint16_t pendingRule_ = kNone;
  std::uint16_t lastRule_ = kNone;
};

StepTable StepTable::of(const CallFrameTable& table, AddressRange code, std::size_t room) noexcept {
  return Maker(table, code).make(room);
}

}  // namespace core

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <span>

#include "Core/Kernel/DynamicSection.h"
#include "Core/Kernel/Unwind/CallFrame.h"
#include "Core/Kernel/Unwind/CallFrameProgram.h"
#include "Core/Kernel/Unwind/TableLoader.h"

namespace {

using core::CallFrame;
using core::Registers;

constexpr std::size_t kRoom = 1 << 16;

void require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

/// Pages of which the bytes of a run are the first ones; nothing can be read behind them.
std::uint8_t* pages() {
  static auto* const made = static_cast<std::uint8_t*>(
      mmap(nullptr, 2 * kRoom, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
  static const int opened = mprotect(made, kRoom, PROT_READ | PROT_WRITE);
  require(opened == 0);
  return made;
}

std::uint64_t addressOf(const void* place) {
  return reinterpret_cast<std::uint64_t>(place);
}

Registers registersOn(std::span<const std::uint8_t> stack) {
  Registers registers;
  for (std::uint64_t& value : registers.general) {
    value = addressOf(stack.data()) + stack.size() / 4;
  }
  registers.instructionPointer = addressOf(stack.data());
  return registers;
}

/// A rule must lead where the row leads that it was made of.
void follow(const core::CallFrameTable& table, const core::CallFrameRow& row, std::span<const std::uint8_t> stack,
            bool isSignalFrame) {
  static std::array<std::uint8_t, 4096> block;
  const core::OwnMemory memory;
  core::StackWindow window(memory, block);
  CallFrame byRow(registersOn(stack), window);
  const bool isFollowed = byRow.follow(row, isSignalFrame, table);
  const auto rule = core::StepRule::of(row);
  if (!isFollowed || isSignalFrame || !rule || rule->kind() != core::StepRule::kCommon) {
    return;
  }
  core::StackWindow sameWindow(memory, block);
  CallFrame byRule(registersOn(stack), sameWindow);
  require(byRule.follow(*rule));
  require(byRule.address() == byRow.address() && byRule.stackPointer() == byRow.stackPointer());
  for (const Registers::Number number : core::StepRule::kKept) {
    std::uint64_t expected = 0;
    std::uint64_t got = 0;
    require(byRule.registerValue(number, got) == byRow.registerValue(number, expected) && got == expected);
  }
}

/// Bytes as the entries of a table, out of a copy and out of memory, which must not differ.
void readEntries(std::span<const std::uint8_t> bytes) {
  const core::OwnMemory memory;
  std::uint8_t* const place = pages();
  std::memcpy(place, bytes.data(), bytes.size());
  core::CallFrameTable table;
  table.anchor = addressOf(place);
  table.entries = {table.anchor, table.anchor + bytes.size(), {}};
  core::CallFrameTable copied = table;
  copied.entries.copy = core::Data(bytes);
  core::TableBlock block;
  core::ByteCursor cursor = copied.entries.cursor(memory, block, table.anchor);
  core::EntryHead head;
  for (std::uint64_t at = cursor.address(); core::EntryHead::take(cursor, head); at = cursor.address()) {
    core::CallFrameCommon common;
    core::CallFrameCommon copiedCommon;
    core::CallFrameEntry entry;
    core::CallFrameEntry copiedEntry;
    const bool isRead = entry.read(table, memory, at, common);
    require(isRead == copiedEntry.read(copied, memory, at, copiedCommon));
    for (const std::uint64_t offset : {std::uint64_t{0}, entry.size / 2, entry.size - 1}) {
      core::CallFrameRow row;
      core::CallFrameRow copiedRow;
      const std::uint64_t wanted = entry.start + offset;
      const bool isKnown = isRead && entry.covers(wanted) && computeRow(table, common, entry, memory, wanted, row);
      require(isKnown == (isRead && copiedEntry.covers(wanted) &&
                          computeRow(copied, copiedCommon, copiedEntry, memory, wanted, copiedRow)));
      if (isKnown) {
        require(row.rules == copiedRow.rules && row.cfaOffset == copiedRow.cfaOffset);
        follow(copied, copiedRow, {place, bytes.size()}, common.isSignalFrame);
        follow(table, row, {place, bytes.size()}, common.isSignalFrame);
      }
    }
    cursor.moveTo(head.end);
  }
}

/// Bytes as an image.
void readImage(std::span<const std::uint8_t> bytes) {
  const core::OwnMemory memory;
  std::memcpy(pages(), bytes.data(), bytes.size());
  std::memset(pages() + bytes.size(), 0, kRoom - bytes.size());
  core::ImageHeaders headers;
  if (!headers.read(addressOf(pages()))) {
    return;
  }
  headers.buildId();
  core::DynamicSection::read(headers, memory);
  core::CallFrameTable table = core::TableLoader(kRoom).load(headers, core::String());
  core::CallFrameTable uncopied = core::TableLoader(0).load(headers, core::String());
  for (std::uint64_t address = headers.base(); address < headers.base() + kRoom; address += 1021) {
    core::CallFrameCommon common;
    core::CallFrameEntry entry;
    const std::uint64_t place = table.find(memory, address);
    require(uncopied.find(memory, address) == place);
    if (place != 0) {
      entry.read(table, memory, place, common);
    }
  }
}

/// Bytes as an expression, and as the stack that it looks at.
void evaluate(std::span<const std::uint8_t> bytes) {
  static std::array<std::uint8_t, 4096> block;
  const core::OwnMemory memory;
  core::StackWindow window(memory, block);
  CallFrame frame(registersOn(bytes), window);
  const std::uint64_t cfa = addressOf(bytes.data());
  std::uint64_t value = 0;
  evaluateExpression(core::ByteCursor(bytes, cfa), frame, &cfa, value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2 || size > kRoom) {
    return 0;
  }
  const std::span<const std::uint8_t> bytes(data + 1, size - 1);
  switch (data[0] % 3) {
    case 0:
      readEntries(bytes);
      break;
    case 1:
      readImage(bytes);
      break;
    default:
      evaluate(bytes);
  }
  return 0;
}

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "Core/Kernel/Unwind/CallFrame.h"
#include "Core/Kernel/Unwind/CallFrameProgram.h"
#include "Core/Kernel/Unwind/CodeBytes.h"
#include "Core/Kernel/Unwind/EncodedPointer.h"

namespace {

using core::CallFrameRow;
using core::RegisterRule;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint64_t kCode = 0x400000;

struct Case {
  std::string name;
  Bytes bytes;
  std::uint64_t number = 0;
  std::string answer;
};

/// Reads "name: hexadecimal bytes @number = answer ;" again and again.
std::vector<Case> casesIn(const std::string& text) {
  std::vector<Case> cases;
  std::istringstream rest(text);
  for (Case made; std::getline(rest >> std::ws, made.name, ':'); made = Case()) {
    std::string word;
    while (rest >> word && word != "=") {
      if (word[0] == '@') {
        made.number = std::stoul(word.substr(1), nullptr, 16);
      } else {
        made.bytes.push_back(static_cast<std::uint8_t>(std::stoul(word, nullptr, 16)));
      }
    }
    while (rest >> word && word != ";") {
      made.answer += (made.answer.empty() ? "" : " ") + word;
    }
    cases.push_back(made);
  }
  return cases;
}

std::string inHex(std::uint64_t value) {
  std::ostringstream text;
  text << std::uppercase << std::hex << value;
  return text.str();
}

/// Entries with their call-frame table, read out of a copy or where they stand.
struct Entries {
  explicit Entries(Bytes content) : bytes(std::move(content)) {
    table.entries.start = reinterpret_cast<std::uint64_t>(bytes.data());
    table.entries.end = table.entries.start + bytes.size();
    table.anchor = table.entries.start;
  }
  void copy() { table.entries.copy = core::Data(bytes.data(), bytes.size()); }

  Bytes bytes;
  core::CallFrameTable table;
  core::OwnMemory memory;
};

void append(Bytes& bytes, const Bytes& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

/// "rsp+8 6:c-16 16:c-8": the CFA and the columns that are not the same.
std::string describe(const CallFrameRow& row, std::uint64_t tableStart) {
  const auto number = [&](std::int64_t value) { return (value < 0 ? "" : "+") + std::to_string(value); };
  const auto place = [&](std::int64_t value) { return std::to_string(static_cast<std::uint64_t>(value) - tableStart); };
  std::string text =
      row.cfaIsComputed ? "@" + place(row.cfaOffset) : std::to_string(row.cfaRegister) + number(row.cfaOffset);
  for (std::size_t column = 0; column < CallFrameRow::kColumns; ++column) {
    const std::int64_t value = row.values[column];
    const std::string name = " " + std::to_string(column) + ":";
    switch (row.rules[column]) {
      case RegisterRule::kSame:
        break;
      case RegisterRule::kUndefined:
        text += name + "u";
        break;
      case RegisterRule::kSavedAtOffset:
        text += name + "c" + number(value);
        break;
      case RegisterRule::kOffset:
        text += name + "v" + number(value);
        break;
      case RegisterRule::kRegister:
        text += name + "r" + std::to_string(value);
        break;
      case RegisterRule::kSavedAtComputed:
        text += name + "c@" + place(value);
        break;
      case RegisterRule::kComputed:
        text += name + "v@" + place(value);
        break;
    }
  }
  return text;
}

/// The row at `address` by the entry at `place`, "" where the table does not tell.
std::string rowAt(const Entries& entries, std::uint64_t place, std::uint64_t address) {
  core::CallFrameCommon common;
  core::CallFrameEntry entry;
  CallFrameRow row;
  if (!entry.read(entries.table, entries.memory, entries.table.entries.start + place, common) ||
      !entry.covers(address) || !computeRow(entries.table, common, entry, entries.memory, address, row)) {
    return "";
  }
  return describe(row, entries.table.entries.start);
}

/// The same out of a copy and without one, which must not differ.
std::string rowBothWays(Entries& entries, std::uint64_t place, std::uint64_t address) {
  const std::string uncopied = rowAt(entries, place, address);
  entries.copy();
  EXPECT_EQ(rowAt(entries, place, address), uncopied);
  return uncopied;
}

// Version 1, "", factors 1 and -8, return column 16; CFA = rsp + 8, return address at CFA - 8.
const Bytes kCommon = {20, 0, 0, 0, 0, 0, 0, 0, 1, 0, 1, 0x78, 16, 0x0C, 7, 8, 0x90, 1, 0, 0, 0, 0, 0, 0};
constexpr std::uint64_t kEntryPlace = 24;

/// One function of 0x100000 bytes at kCode with that program.
Entries entriesOf(const Bytes& program) {
  Bytes bytes = kCommon;
  append(bytes, {static_cast<std::uint8_t>(20 + program.size()), 0, 0, 0, kEntryPlace + 4, 0, 0, 0});
  append(bytes, {0, 0, 0x40, 0, 0, 0, 0, 0, 0, 0, 0x10, 0, 0, 0, 0, 0});
  append(bytes, program);
  return Entries(bytes);
}

// Each after "@" the distance from the function's start at which the row is asked for. Where
// that is not 0, the row right before must still be the first.
TEST(CallFrameProgram, everyInstruction) {
  const char* const kCases = R"(
      nothing: = 7+8 16:c-8 ; nop: 00 00 00 @5 = 7+8 16:c-8 ; advance: 41 0E 10 @1 = 7+16 16:c-8 ;
      advance1: 02 C8 0E 10 @C8 = 7+16 16:c-8 ; advance2: 03 00 02 0E 10 @200 = 7+16 16:c-8 ;
      advance4: 04 00 00 01 00 0E 10 @10000 = 7+16 16:c-8 ;
      advance8: 1D 00 00 01 00 00 00 00 00 0E 10 @10000 = 7+16 16:c-8 ;
      set_loc: 01 10 00 40 00 00 00 00 00 0E 10 @10 = 7+16 16:c-8 ; offset: 86 02 = 7+8 6:c-16 16:c-8 ;
      restore: 86 02 C6 = 7+8 16:c-8 ; restore of the common part's: 07 10 D0 = 7+8 16:c-8 ;
      offset_extended: 05 0C 03 = 7+8 12:c-24 16:c-8 ; restore_extended: 05 0C 03 06 0C = 7+8 16:c-8 ;
      undefined: 07 10 = 7+8 16:u ; same_value: 83 02 08 03 = 7+8 16:c-8 ; register: 09 10 02 = 7+8 16:r2 ;
      remember and restore: 0A 0E 10 86 02 0A 83 03 0B = 7+16 6:c-16 16:c-8 ;
      restore twice: 0A 0E 10 86 02 0A 83 03 0B 0B = 7+8 16:c-8 ; def_cfa: 0C 06 90 01 = 6+144 16:c-8 ;
      def_cfa_register: 0D 0A = 10+8 16:c-8 ; def_cfa_expression: 0F 03 77 08 06 = @49 16:c-8 ;
      def_cfa after it: 0F 03 77 08 06 0C 07 10 = 7+16 16:c-8 ;
      expression: 10 06 02 77 08 83 02 = 7+8 3:c-16 6:c@50 16:c-8 ;
      offset_extended_sf: 11 03 7E = 7+8 3:c+16 16:c-8 ; def_cfa_sf: 12 06 7C = 6+32 16:c-8 ;
      def_cfa_offset_sf: 13 7D = 7+24 16:c-8 ; val_offset: 14 07 01 = 7+8 7:v-8 16:c-8 ;
      val_offset_sf: 15 07 7F = 7+8 7:v+8 16:c-8 ; val_expression: 16 07 01 9C = 7+8 7:v@50 16:c-8 ;
      GNU_args_size: 2E 80 01 0E 10 = 7+16 16:c-8 ; GNU_negative_offset_extended: 2F 03 02 = 7+8 3:c+16 16:c-8 ;
      vector register: 05 11 03 06 11 = 7+8 16:c-8 ; outside the function: @100000 = ; unknown: 3F = ;
      restore without remember: 0B = ; too many states: 0A 0A 0A 0A 0A 0A 0A 0A 0A = ;
      CFA from a vector register: 0D 11 = ; half a CFA after an expression: 0F 03 77 08 06 0E 10 = ;
      value from a vector register: 09 10 11 = ; cut operand: 0C 06 = ; cut expression: 10 06 7F 00 = ;
      endless number: 0E 80 80 80 80 80 80 80 80 80 80 80 = ;)";
  for (const Case& wanted : casesIn(kCases)) {
    Entries entries = entriesOf(wanted.bytes);
    EXPECT_EQ(rowBothWays(entries, kEntryPlace, kCode + wanted.number), wanted.answer) << wanted.name;
    if (wanted.number != 0 && !wanted.answer.empty()) {
      EXPECT_EQ(rowBothWays(entries, kEntryPlace, kCode + wanted.number - 1), "7+8 16:c-8") << wanted.name;
    }
  }
}

// Functions at kCode of 0x10 bytes, entries as compilers and assemblers of all ages write them.
TEST(CallFrameEntry, everyShape) {
  struct Shape {
    const char* name;
    Bytes common;
    Bytes entry;  // from the start of the function on
    const char* row;
  };
  const Bytes plain = {0, 0, 0x40, 0, 0, 0, 0, 0, 0x10, 0, 0, 0, 0, 0, 0, 0};
  const Bytes plainWithData = {0, 0, 0x40, 0, 0, 0, 0, 0, 0x10, 0, 0, 0, 0, 0, 0, 0, 2, 0xAA, 0xBB};
  const Shape kShapes[] = {
      {"version 1", {1, 0, 1, 0x78, 16, 0x0C, 7, 8}, plain, "7+8"},
      {"version 3, long column", {3, 0, 1, 0x78, 0x90, 0, 0x0C, 7, 8, 0x90, 1}, plain, "7+8 16:c-8"},
      {"version 4", {4, 0, 8, 0, 1, 0x78, 16, 0x0C, 7, 8}, plain, "7+8"},
      {"another return column", {1, 0, 1, 0x78, 12, 0x0C, 7, 8, 0x8C, 1}, plain, "7+8 16:c-8"},
      {"eh", {1, 'e', 'h', 0, 1, 2, 3, 4, 5, 6, 7, 8, 1, 0x78, 16, 0x0C, 7, 8}, plain, "7+8"},
      {"zR unsigned 4", {1, 'z', 'R', 0, 1, 0x78, 16, 1, 3, 0x0C, 7, 8}, {0, 0, 0x40, 0, 0x10, 0, 0, 0, 0}, "7+8"},
      {"zPLR", {1, 'z', 'P', 'L', 'R', 0, 1, 0x78, 16, 7, 0x9B, 1, 2, 3, 4, 0x1B, 4, 0x0C, 7, 8}, plainWithData, "7+8"},
      {"zSB", {1, 'z', 'S', 'B', 0, 1, 0x78, 16, 0, 0x0C, 7, 8}, plainWithData, "7+8"},
      {"zP left out", {1, 'z', 'P', 'R', 0, 1, 0x78, 16, 2, 0xFF, 4, 0x0C, 7, 8}, plainWithData, "7+8"},
      {"z and unknown", {1, 'z', '?', 0, 1, 0x78, 16, 3, 9, 9, 9, 0x0C, 7, 8}, plainWithData, "7+8"},
      {"unknown alone", {1, '?', 0, 1, 0x78, 16, 0x0C, 7, 8}, plain, ""},
      {"version 2", {2, 0, 1, 0x78, 16, 0x0C, 7, 8}, plain, ""},
      {"version 4, 4-byte addresses", {4, 0, 4, 0, 1, 0x78, 16, 0x0C, 7, 8}, plain, ""},
      {"data beyond the end", {1, 'z', 0, 1, 0x78, 16, 0x70, 0x0C, 7, 8}, plainWithData, ""},
      {"endless letters", Bytes(40, 'z'), plain, ""},
      {"unknown encoding", {1, 'z', 'R', 0, 1, 0x78, 16, 1, 0x07, 0x0C, 7, 8}, plainWithData, ""},
  };
  for (const Shape& each : kShapes) {
    const auto commonSize = static_cast<std::uint8_t>(each.common.size() + 4);
    Bytes bytes = {commonSize, 0, 0, 0, 0, 0, 0, 0};
    append(bytes, each.common);
    const auto place = static_cast<std::uint8_t>(bytes.size());
    append(bytes, {static_cast<std::uint8_t>(each.entry.size() + 4), 0, 0, 0, static_cast<std::uint8_t>(place + 4)});
    append(bytes, {0, 0, 0});
    append(bytes, each.entry);
    Entries entries(bytes);
    EXPECT_EQ(rowBothWays(entries, place, kCode + 0xF), each.row) << each.name;
  }
}

TEST(CallFrameEntry, refusesWhatLeadsOutOfTheTable) {
  // The lengths of both parts, what tells them apart, and the way from one to the other.
  for (const std::uint64_t place : {std::uint64_t{0}, std::uint64_t{4}, kEntryPlace, kEntryPlace + 4}) {
    for (const int value : {0x00, 0x05, 0x7F, 0xFF}) {
      Entries broken = entriesOf({});
      if (broken.bytes[place] != value) {
        broken.bytes[place] = static_cast<std::uint8_t>(value);
        EXPECT_EQ(rowBothWays(broken, kEntryPlace, kCode), "") << place << " " << value;
      }
    }
  }
  Entries entries = entriesOf({});
  EXPECT_EQ(rowBothWays(entries, 4096, kCode), "");
}

TEST(CallFrameTable, findsTheLastStartBeforeOrAt) {
  Entries entries({});
  entries.table.anchor = kCode;
  std::vector<std::array<std::int32_t, 2>> pairs;
  for (std::int32_t i = 0; i < 100; ++i) {
    pairs.push_back({(i - 10) * 64, i * 24});
  }
  auto& index = entries.table.index;
  index.start = reinterpret_cast<std::uint64_t>(pairs.data());
  index.end = index.start + pairs.size() * sizeof pairs[0];
  for (const bool isCopied : {false, true}) {
    if (isCopied) {
      index.copy = core::Data(pairs.data(), pairs.size() * sizeof pairs[0]);
    }
    const auto find = [&](std::int64_t distance) {
      return entries.table.find(entries.memory, kCode + static_cast<std::uint64_t>(distance));
    };
    EXPECT_EQ(find(-641), 0U);
    for (std::int32_t i = 0; i < 100; ++i) {
      EXPECT_EQ(find((i - 10) * 64), kCode + static_cast<std::uint64_t>(i) * 24);
      EXPECT_EQ(find((i - 10) * 64 + 63), kCode + static_cast<std::uint64_t>(i) * 24);
    }
    EXPECT_EQ(find(std::int64_t{1} << 40), kCode + 99 * 24);
  }
}

TEST(StepRule, tellsWhatItHasRoomFor) {
  // CFA = rsp + 64; below the return address rbx.
  const Entries entries = entriesOf({0x0E, 64, 0x83, 3});
  core::CallFrameCommon common;
  core::CallFrameEntry entry;
  CallFrameRow row;
  ASSERT_TRUE(entry.read(entries.table, entries.memory, entries.table.entries.start + kEntryPlace, common));
  ASSERT_TRUE(computeRow(entries.table, common, entry, entries.memory, kCode, row));
  const auto canTell = [&row](std::int64_t savedAt, std::int64_t cfaOffset) {
    row.values[core::Registers::kRbx] = savedAt;
    row.cfaOffset = cfaOffset;
    return core::StepRule::of(row).has_value();
  };
  EXPECT_TRUE(canTell(-128, std::int64_t{1} << 39));
  EXPECT_FALSE(canTell(-136, 64) || canTell(-12, 64) || canTell(-8, 64) || canTell(8, 64));
  EXPECT_FALSE(canTell(-24, 60) || canTell(-24, -8) || canTell(-24, std::int64_t{1} << 40));
}

TEST(StackWindow, readsWhatIsThereAndNoMore) {
  constexpr std::size_t kPage = 4096;
  auto* const stack =
      static_cast<std::uint8_t*>(mmap(nullptr, 8 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  munmap(stack + 7 * kPage, kPage);
  for (std::size_t i = 0; i < 7 * kPage; ++i) {
    stack[i] = static_cast<std::uint8_t>(i * 31 >> 3);
  }
  const core::OwnMemory memory;
  std::array<std::uint8_t, 3 * kPage> block;
  core::StackWindow window(memory, block);
  const auto reads = [&](std::size_t offset) {
    std::uint64_t value = 0;
    return window.word(reinterpret_cast<std::uint64_t>(stack + offset), value) &&
           std::memcmp(&value, stack + offset, sizeof value) == 0;
  };
  // Inside the first copy and around its end, back behind it, and around the end of the stack.
  for (const std::size_t offset : {100U, 8184U, 8185U, 8192U, 50U, 20470U, 20480U, 100U, 28663U, 28664U}) {
    EXPECT_TRUE(reads(offset)) << offset;
  }
  for (std::size_t offset = 7 * kPage - 7; offset < 7 * kPage + 9; ++offset) {
    EXPECT_FALSE(reads(offset)) << offset;
    EXPECT_TRUE(reads(7 * kPage - 8)) << offset;
  }
  munmap(stack, 7 * kPage);
}

TEST(CodeBytes, knowsCallInstructions) {
  const char* const kCases = R"(
      near: E8 01 02 03 04 = yes ; register: FF D0 = yes ; high register: 41 FF D3 = yes ; memory: FF 10 = yes ;
      memory and 8: FF 50 08 = yes ; and 32: FF 90 01 02 03 04 = yes ; indexed: FF 14 C8 = yes ;
      indexed and 8: FF 54 24 08 = yes ; and 32: FF 94 24 01 02 03 04 = yes ; from here: FF 15 01 02 03 04 = yes ;
      absolute: FF 14 25 01 02 03 04 = yes ; jump: E9 01 02 03 04 = no ; jump by register: FF E0 = no ;
      one too many: FF D0 90 = no ; one too few: E8 01 02 03 = no ; none: 90 90 90 = no ;)";
  const core::OwnMemory memory;
  for (const Case& wanted : casesIn(kCases)) {
    Bytes code(16, 0x90);
    append(code, wanted.bytes);
    EXPECT_EQ(followsCall(memory, reinterpret_cast<std::uint64_t>(code.data() + code.size())), wanted.answer == "yes")
        << wanted.name;
  }
  EXPECT_FALSE(followsCall(memory, 3));
}

/// Registers hold 100 times their number, but the third, which points to memory.
struct Frame final : core::ExpressionFrame {
  bool registerValue(std::uint64_t number, std::uint64_t& into) noexcept override {
    into = number == 3 ? reinterpret_cast<std::uint64_t>(&stored) : number * 100;
    return number <= 16;
  }
  bool memoryValue(std::uint64_t address, std::size_t size, std::uint64_t& into) noexcept override {
    into = 0;
    return reader.read(address, &into, size);
  }
  const core::OwnMemory& memory() const noexcept override { return reader; }

  std::uint64_t stored = 0x8877665544332211;
  core::OwnMemory reader;
};

// Values in hexadecimal digits; none where an expression must be refused.
TEST(CallFrameExpression, everyOperation) {
  const char* const kCases = R"(
      addr: 03 01 02 00 00 00 00 00 80 = 8000000000000201 ; deref: 73 00 06 = 8877665544332211 ;
      const1u: 08 FF = FF ; const1s: 09 FF = FFFFFFFFFFFFFFFF ; const2u: 0A FE FF = FFFE ;
      const2s: 0B FE FF = FFFFFFFFFFFFFFFE ; const4u: 0C FE FF FF FF = FFFFFFFE ;
      const4s: 0D FE FF FF FF = FFFFFFFFFFFFFFFE ; const8u: 0E 01 00 00 00 00 00 00 80 = 8000000000000001 ;
      const8s: 0F 01 00 00 00 00 00 00 80 = 8000000000000001 ; constu: 10 80 01 = 80 ;
      consts: 11 80 7F = FFFFFFFFFFFFFF80 ; dup: 35 12 1E = 19 ; drop: 35 36 13 = 5 ; over: 35 36 14 1C = 1 ;
      pick: 35 36 37 15 02 = 5 ; swap: 35 36 16 1C = 1 ; rot puts the top third: 31 32 33 17 13 13 = 3 ;
      rot, the new top: 31 32 33 17 = 2 ; abs: 09 FB 19 = 5 ; and: 3C 36 1A = 4 ;
      div is signed: 09 F9 32 1B = FFFFFFFFFFFFFFFD ;
      div of the least by -1: 0F 00 00 00 00 00 00 00 80 09 FF 1B = 8000000000000000 ; minus: 35 32 1C = 3 ;
      mod: 37 34 1D = 3 ; mul: 37 34 1E = 1C ; neg: 35 1F = FFFFFFFFFFFFFFFB ; not: 35 20 = FFFFFFFFFFFFFFFA ;
      or: 35 32 21 = 7 ; plus: 35 32 22 = 7 ; plus_uconst: 35 23 80 01 = 85 ; shl: 35 32 24 = 14 ;
      shl by all: 35 08 40 24 = 0 ; shr: 09 F0 08 3C 25 = F ; shra: 09 F0 32 26 = FFFFFFFFFFFFFFFC ;
      shra by all: 09 F0 08 63 26 = FFFFFFFFFFFFFFFF ; xor: 36 33 27 = 5 ; bra taken: 35 31 28 01 00 36 = 5 ;
      bra not taken: 35 30 28 01 00 36 = 6 ; eq: 35 35 29 = 1 ; ge: 09 FF 30 2A = 0 ; gt: 35 34 2B = 1 ;
      le: 09 FF 30 2C = 1 ; lt: 35 35 2D = 0 ; ne: 35 34 2E = 1 ; skip: 35 2F 01 00 36 = 5 ;
      skip back: 33 31 1C 12 28 FA FF 37 = 7 ; lit31: 4F = 1F ; reg16: 60 = 640 ; breg7: 77 78 = 2B4 ;
      regx: 90 0C = 4B0 ; bregx: 92 0C 08 = 4B8 ; deref_size: 73 00 94 03 = 332211 ; nop: 35 96 = 5 ;
      call_frame_cfa: 9C = 7000 ; GNU_encoded_addr: F1 02 34 12 = 1234 ; the CFA lies there first: = 7000 ;
      stub of a linker: 77 08 80 00 3F 1A 3B 2A 33 24 22 = 2C4 ; too little: 13 13 = ; nothing left: 13 = ;
      div by 0: 35 30 1B = ; mod by 0: 35 30 1D = ; pick too deep: 15 01 = ; rot of two: 31 17 = ;
      deref of null: 30 06 = ; deref_size 9: 73 00 94 09 = ; no such register: 90 11 = ; endless: 2F FD FF = ;
      ever more: 31 2F FC FF = ; out of it: 2F 64 00 = ; cut: 0A 01 = ; piece: 93 08 = ;)";
  Frame frame;
  const std::uint64_t cfa = 0x7000;
  for (const Case& wanted : casesIn(kCases)) {
    Bytes bytes = {static_cast<std::uint8_t>(wanted.bytes.size())};
    append(bytes, wanted.bytes);
    std::uint64_t value = 0;
    const bool isKnown = evaluateExpression(core::ByteCursor(bytes, 0x1000), frame, &cfa, value);
    EXPECT_EQ(isKnown ? inHex(value) : "", wanted.answer) << wanted.name;
  }
}

// The encodings' own numbers for names. Relative ones: to place 10001, text 2000, data 3000, function 4000.
TEST(EncodedPointer, everyEncoding) {
  const char* const kCases = R"(
      00: 01 00 00 00 00 00 00 80 = 8000000000000001 ; 01: 80 01 = 80 ; 02: FF FF = FFFF ;
      03: FF FF FF FF = FFFFFFFF ; 04: 01 00 00 00 00 00 00 80 = 8000000000000001 ;
      08: 01 00 00 00 00 00 00 80 = 8000000000000001 ; 0C: 01 00 00 00 00 00 00 80 = 8000000000000001 ;
      1B: F0 FF FF FF = FFF1 ; 1B: 00 00 00 00 = 0 ; 23: 01 00 00 00 = 2001 ; 3B: FF FF FF FF = 2FFF ;
      4A: 01 00 = 4001 ; 50: 09 09 09 09 09 09 09 01 00 00 00 00 00 00 80 = 8000000000000001 ; 83: 01 00 00 00 = ;
      FF: = 0 ; 05: 01 02 03 04 = ; 63: 01 02 03 04 = ; 03: 01 02 03 = ;)";
  const core::PointerBases bases{.text = 0x2000, .data = 0x3000, .function = 0x4000};
  const core::OwnMemory memory;
  const auto taken = [&](std::uint8_t encoding, const Bytes& bytes) {
    core::ByteCursor cursor(bytes, 0x10001);
    const std::uint64_t value = takePointer(cursor, encoding, bases, memory);
    return cursor.failed() ? "" : inHex(value);
  };
  for (const Case& wanted : casesIn(kCases)) {
    EXPECT_EQ(taken(static_cast<std::uint8_t>(std::stoul(wanted.name, nullptr, 16)), wanted.bytes), wanted.answer)
        << wanted.name;
  }
  const std::uint64_t target = 0x1234567812345678;
  const std::uint64_t* const pointer = &target;
  Bytes bytes(sizeof pointer);
  std::memcpy(bytes.data(), &pointer, sizeof pointer);
  EXPECT_EQ(taken(0x80, bytes), inHex(target)) << "indirect";
}

}  // namespace

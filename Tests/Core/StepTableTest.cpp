#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "Core/Kernel/ImageList.h"
#include "Core/Kernel/Unwind/CallFrameProgram.h"
#include "Core/Kernel/Unwind/StepTable.h"
#include "Core/Kernel/Unwind/TableLoader.h"

namespace {

constexpr std::size_t kRoom = std::size_t{1} << 22;

/// What a walk would find without a step table, for the code at one address after the other.
class ByRows {
 public:
  explicit ByRows(const core::CallFrameTable& table) : table_(table) {}

  std::uint64_t bitsAt(std::uint64_t address) {
    core::CallFrameEntry entry;
    core::CallFrameRow row;
    const std::uint64_t place = table_.find(memory_, address);
    if (place == 0 || !entry.read(table_, memory_, place, common_) || common_.isSignalFrame || !entry.covers(address) ||
        !entry.covers(address + 1) || !computeRow(table_, common_, entry, memory_, address, row)) {
      return 0;
    }
    const auto rule = core::StepRule::of(row);
    return rule ? rule->bits() : 0;
  }

 private:
  const core::CallFrameTable& table_;
  core::OwnMemory memory_;
  core::CallFrameCommon common_;
};

/// Compares all addresses, and some beyond; answers how many have a rule.
std::size_t expectSame(const core::StepTable& steps, const core::CallFrameTable& table, core::AddressRange code) {
  ByRows rows(table);
  std::size_t known = 0;
  for (std::uint64_t address = code.start; address < code.end && !testing::Test::HasFailure(); ++address) {
    const std::uint64_t bits = steps.find(address).bits();
    EXPECT_EQ(bits, rows.bitsAt(address)) << address - code.start;
    known += bits != 0;
  }
  for (const std::uint64_t beyond : {code.start - 1, code.end + 256, std::uint64_t{0}, ~std::uint64_t{0}}) {
    EXPECT_EQ(steps.find(beyond).bits(), 0U);
  }
  return known;
}

TEST(StepTable, tellsOfTheCLibraryWhatItsRowsTell) {
  const auto images = core::readLoadedImages();
  const auto isLibrary = [](const core::LoadedImage& image) {
    return std::string_view(image.path).find("/libc.so") != std::string_view::npos;
  };
  const auto* const library = std::find_if(images.begin(), images.end(), isLibrary);
  ASSERT_NE(library, images.end());
  core::ImageHeaders headers;
  ASSERT_TRUE(headers.read(library->base));
  const core::CallFrameTable table = core::TableLoader(kRoom).load(headers, library->path);
  const core::AddressRange code{headers.codeStart(), headers.codeEnd()};
  EXPECT_GT(expectSame(core::StepTable::of(table, code, kRoom), table, code), code.size() / 10 * 9);
}

/// A table of functions by hand, of code that is not there.
struct Functions {
  using Bytes = std::vector<std::uint8_t>;

  Functions() {
    bytes.reserve(4096);
    append({20, 0, 0, 0, 0, 0, 0, 0, 1, 0, 1, 0x78, 16, 0x0C, 7, 8, 0x90, 1, 0, 0, 0, 0, 0, 0});
    signalCommon = bytes.size();
    append({24, 0, 0, 0, 0, 0, 0, 0, 1, 'z', 'S', 0, 1, 0x78, 16, 0, 0x0C, 7, 8, 0x90, 1, 0, 0, 0, 0, 0, 0, 0});
    code = {start() + 0x10000, start() + 0x11000};
  }

  void add(std::uint64_t offset, std::uint64_t size, const Bytes& program, bool isSignalFrame = false) {
    const std::size_t place = bytes.size();
    append({static_cast<std::uint8_t>(21 + program.size()), 0, 0, 0});
    appendNumber<std::uint32_t>(bytes.size() - (isSignalFrame ? signalCommon : 0));
    appendNumber<std::uint64_t>(code.start + offset);
    appendNumber<std::uint64_t>(size);
    append({0});  // of augmentation data, or a nop
    append(program);
    index.push_back({static_cast<std::int32_t>(0x10000 + offset), static_cast<std::int32_t>(place)});
  }

  core::CallFrameTable table() const {
    core::CallFrameTable made;
    made.anchor = start();
    made.entries = {start(), start() + bytes.size(), {}};
    const core::Data pairs(index.data(), index.size() * sizeof index[0]);
    made.index = {0, pairs.size(), pairs};
    return made;
  }

  std::uint64_t start() const { return reinterpret_cast<std::uint64_t>(bytes.data()); }
  void append(const Bytes& more) { bytes.insert(bytes.end(), more.begin(), more.end()); }
  template <class T>
  void appendNumber(std::uint64_t number) {
    const auto value = static_cast<T>(number);
    bytes.resize(bytes.size() + sizeof value);
    std::memcpy(&bytes[bytes.size() - sizeof value], &value, sizeof value);
  }

  Bytes bytes;
  std::size_t signalCommon;
  core::AddressRange code;
  std::vector<std::pair<std::int32_t, std::int32_t>> index;
};

TEST(StepTable, keepsToWhatTheTableSays) {
  Functions functions;
  Functions::Bytes many;
  for (int i = 0; i < 20; ++i) {
    many.insert(many.end(), {0x43, 0x0E, static_cast<std::uint8_t>(16 + i % 7 * 8)});
  }
  functions.add(0x10, 0x20, {0x41, 0x0E, 16, 0x86, 2, 0x43, 0x0D, 6, 0x5A, 0x0C, 7, 8});
  functions.add(0x30, 0x50, {0x44, 0x0F, 3, 0x77, 8, 6, 0x44, 0x0C, 7, 16, 0x04, 0xFF, 0xFF, 0xFF, 0xFF});
  functions.add(0x100, 0x240, many);
  functions.add(0x400, 0x40, {0x44, 0x0E, 16, 0x44, 0x3F});    // makes no sense from the fifth byte on
  functions.add(0x420, 0x60, {0x44, 0x0E, 24});                // begins inside the one before
  functions.add(0x500, 0x20, {}, true);                        // a signal frame
  functions.add(0x600, 0x20, {0x07, 16});                      // the outermost
  functions.add(0x700, 0, {});                                 // empty
  functions.add(0x800, 0x20, {0x01, 8, 8, 8, 8, 8, 8, 8, 8});  // goes to a place that is far beyond
  functions.add(0xFF0, 0x100, {0x48, 0x0E, 32});               // longer than the code
  const core::CallFrameTable table = functions.table();
  const core::StepTable steps = core::StepTable::of(table, functions.code, kRoom);
  EXPECT_GT(expectSame(steps, table, functions.code), 700U);
  const auto cfaAt = [&](std::uint64_t offset) { return steps.find(functions.code.start + offset).cfaOffset(); };
  const std::vector<std::uint64_t> found = {cfaAt(0xF),   cfaAt(0x10),  cfaAt(0x11),  cfaAt(0x2E),  cfaAt(0x2F),
                                            cfaAt(0x34),  cfaAt(0x38),  cfaAt(0x13B), cfaAt(0x33E), cfaAt(0x405),
                                            cfaAt(0x408), cfaAt(0x424), cfaAt(0x500), cfaAt(0xFFF)};
  EXPECT_EQ(found, std::vector<std::uint64_t>({0, 8, 16, 8, 0, 0, 16, 48, 56, 16, 0, 24, 0, 32}));
  EXPECT_EQ(steps.find(functions.code.start + 0x600).kind(), core::StepRule::kOutermost);

  EXPECT_NE(core::StepTable::of(table, functions.code, steps.size()).size(), 0U);
  EXPECT_EQ(core::StepTable::of(table, functions.code, steps.size() - 1).size(), 0U);
  std::swap(functions.index[0], functions.index[1]);
  EXPECT_EQ(core::StepTable::of(functions.table(), functions.code, kRoom).size(), 0U) << "not sorted";
}

}  // namespace

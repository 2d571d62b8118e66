#include "Core/PropertyList/BinaryPropertyList.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <limits>
#include <string>
#include <vector>

namespace {

using core::Value;
using core::ValueArray;
using core::ValueDictionary;
using Bytes = std::vector<std::uint8_t>;

Bytes hex(std::string digits) {
  std::erase(digits, ' ');
  Bytes bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

/// A file of objects, the first one the root, with references of `referenceSize` bytes.
Bytes fileOf(const std::vector<Bytes>& objects, std::size_t referenceSize = 1) {
  Bytes file = hex("62706c6973743030");
  std::vector<std::size_t> offsets;
  for (const Bytes& object : objects) {
    offsets.push_back(file.size());
    file.insert(file.end(), object.begin(), object.end());
  }
  const auto append = [&](std::size_t number, std::size_t size) {
    while (size-- != 0) {
      file.push_back(static_cast<std::uint8_t>(number >> (8 * size)));
    }
  };
  const std::size_t table = file.size();
  const std::size_t offsetSize = offsets.back() > 255 ? 2 : 1;
  for (const std::size_t offset : offsets) {
    append(offset, offsetSize);
  }
  for (const std::size_t field : {offsetSize << 8 | referenceSize, objects.size(), std::size_t{0}, table}) {
    append(field, 8);
  }
  return file;
}

Bytes encoded(const Value& value) {
  const core::Data data = core::encodeBinaryPropertyList(value);
  return {data.data(), data.data() + data.size()};
}

/// `inner` in that many arrays and dictionaries in turn.
Value nested(int levels, Value inner) {
  for (int level = levels; level > 0; --level) {
    inner = level % 2 == 0 ? Value(ValueArray{inner}) : Value(ValueDictionary{{"k", inner}});
  }
  return inner;
}

TEST(BinaryPropertyList, WritesAndReadsEveryKindOfObject) {
  const std::pair<Value, const char*> cases[] = {
      {Value(), "00"},
      {false, "08"},
      {true, "09"},
      {0, "10 00"},
      {255, "10 ff"},
      {256, "11 0100"},
      {65535, "11 ffff"},
      {65536, "12 00010000"},
      {std::int64_t{1} << 32, "13 0000000100000000"},
      {-1, "13 ffffffffffffffff"},
      {std::numeric_limits<std::uint64_t>::max(), "14 0000000000000000 ffffffffffffffff"},
      {-0.0, "23 8000000000000000"},
      {core::Date{-2.0}, "33 c000000000000000"},
      {core::Data("\1\2\3", 3), "43 010203"},
      {"", "50"},
      {"0123456789abcde", "5f 10 0f 303132333435363738396162636465"},
      {"\u00e9", "61 00e9"},
      {"\U0001F600!", "63 d83d de00 0021"},
      {core::Uid{7}, "80 07"},
      {core::Uid{0x10000}, "83 00010000"},
      {ValueArray(), "a0"},
      {ValueDictionary(), "d0"}};
  for (const auto& [value, object] : cases) {
    EXPECT_EQ(encoded(value), fileOf({hex(object)})) << object;
    const auto read = core::decodeBinaryPropertyList(fileOf({hex(object)}));
    ASSERT_TRUE(read) << object << ": " << read.error().reason;
    EXPECT_TRUE(*read == value) << object;
  }
}

TEST(BinaryPropertyList, WritesEqualLeavesOnceInTheOrderOfTheWalk) {
  const Value value = ValueDictionary{{"a", ValueArray{1, 1, "a", 1.0}}, {"b", 1}};
  EXPECT_EQ(encoded(value), hex("62706c6973743030"
                                "d2 0102 0304  51 61  51 62  a4 04040105  10 01  23 3ff0000000000000  08 0d 0f 11 16 18"
                                "000000000000 01 01 0000000000000006 0000000000000000 0000000000000021"));
}

TEST(BinaryPropertyList, ReadsFormsThatOthersWrite) {
  const std::pair<const char*, Value> cases[] = {{"14 ffffffffffffffff fffffffffffffffe", -2},
                                                 {"22 3fc00000", 1.5},
                                                 {"82 000102", core::Uid{258}},
                                                 {"5f 12 00000002 6869", "hi"},
                                                 {"63 d800 0041 dc00", "\uFFFDA\uFFFD"},
                                                 {"62 d83d d83d", "\uFFFD\uFFFD"},
                                                 {"c2 01 01", ValueArray{"x", "x"}}};
  for (const auto& [object, value] : cases) {
    const auto read = core::decodeBinaryPropertyList(fileOf({hex(object), hex("51 78")}));
    EXPECT_TRUE(read && *read == value) << object;
  }
  EXPECT_EQ(encoded("\xff\xed\xa0\x80\xc0\x80"), encoded("\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD"));
}

TEST(BinaryPropertyList, RefusesMalformedFilesWithReasonAndPlace) {
  const Bytes good = fileOf({hex("a1 01"), hex("51 78")});
  const std::size_t trailer = good.size() - 32;
  const auto expect = [](const Bytes& bytes, const std::string& reason, std::size_t offset) {
    const auto read = core::decodeBinaryPropertyList(bytes);
    ASSERT_FALSE(read) << reason;
    EXPECT_EQ(read.error().reason, reason);
    EXPECT_EQ(read.error().offset, offset) << reason;
  };
  expect({}, "not a binary property list", 0);
  expect(hex("62706c6973743030 00"), "the trailer is missing", 9);
  const auto expectPatched = [&](std::size_t at, const char* patch, const char* reason) {
    Bytes bytes = good;
    std::ranges::copy(hex(patch), bytes.begin() + static_cast<std::ptrdiff_t>(at));
    expect(bytes, reason, at);
  };
  expectPatched(trailer + 6, "09", "offsets of an impossible size");
  expectPatched(trailer + 7, "00", "references of an impossible size");
  expectPatched(trailer + 8, "8000000000000001", "more objects than the file has room for");
  expectPatched(trailer + 8, "0000000000000003", "more objects than the file has room for");
  expect(hex("62706c6973743030 00 0808 000000000000 01 01 0000000000000002 0000000000000000 0000000000000009"),
         "more objects than the file has room for", 19);
  expectPatched(trailer + 16, "0000000000000002", "the root object does not exist");
  expectPatched(trailer + 24, "ffffffffffffffff", "the offset table lies outside the file");
  expectPatched(trailer + 24, "0000000000000007", "the offset table lies outside the file");
  expectPatched(trailer - 2, "07", "an offset outside the objects");
  expectPatched(trailer - 1, "0c", "an offset outside the objects");
  expect(fileOf({hex("a1 02"), hex("00")}), "a reference to an object that does not exist", 9);
  expect(fileOf({hex("a1 01"), hex("a1 00")}), "an object contains itself", 11);
  expect(fileOf({hex("d1 01 01"), hex("10 00")}), "a key is not a string", 9);
  expect(fileOf({hex("d1 00 00")}), "a key is not a string", 9);
  expect(fileOf({hex("51 80")}), "a string that is not ASCII", 8);
  expect(fileOf({hex("14 0000000000000001 0000000000000000")}), "an integer beyond 64 bits", 8);
  expect(fileOf({hex("84 0100000000")}), "a UID beyond 32 bits", 8);
  expect(fileOf({hex("21 0000")}), "a real of unknown size", 8);
  expect(fileOf({hex("32 00000000")}), "a date of unknown size", 8);
  for (const char* object : {"af 13 ffffffffffffffff", "d8 00 00 00", "6f 13 8000000000000001", "5f 13 00", "13 00"}) {
    expect(fileOf({hex(object)}), "an object longer than the bytes left", 8);
  }
  for (const char* object : {"5f 51 61", "5f 14 00", "df"}) {
    expect(fileOf({hex(object)}), "a count that is no integer", 8);
  }
  for (const char* object : {"0f", "71 61", "e0"}) {
    expect(fileOf({hex(object)}), "an object of unknown kind", 8);
  }
}

TEST(BinaryPropertyList, SharedObjectsAreCheapAndBombsEnd) {
  // Each array holds the next one twice.
  const auto doubling = [](std::uint8_t levels) {
    std::vector<Bytes> objects;
    for (std::uint8_t next = 1; next <= levels; ++next) {
      objects.push_back({0xa2, next, next});
    }
    objects.push_back(hex("51 78"));
    return core::decodeBinaryPropertyList(fileOf(objects));
  };
  const Value pair = ValueArray{"x", "x"};
  EXPECT_TRUE(*doubling(2) == Value(ValueArray{pair, pair}));
  const auto bomb = doubling(60);
  ASSERT_FALSE(bomb);
  EXPECT_STREQ(bomb.error().reason, "shared objects multiply beyond measure");
  // Objects that are one and the same array in the file.
  Bytes overlapping = fileOf({hex("a2 01 01"), hex("a0")});
  overlapping[overlapping.size() - 33] = 8;
  const auto read = core::decodeBinaryPropertyList(overlapping);
  ASSERT_FALSE(read);
  EXPECT_STREQ(read.error().reason, "objects overlap");
}

TEST(BinaryPropertyList, NestsToItsLimit) {
  const Value deepest = nested(core::kPropertyListDepth - 1, ValueArray());
  EXPECT_TRUE(*core::decodeBinaryPropertyList(encoded(deepest)) == deepest);
  EXPECT_EQ(encoded(nested(core::kPropertyListDepth, ValueArray())),
            encoded(nested(core::kPropertyListDepth, Value())));
  // Arrays in arrays that others made; also where the lower half was met before, on a short way.
  for (const std::size_t levels : {512U, 513U}) {
    std::vector<Bytes> objects;
    for (std::size_t i = 1; i < levels; ++i) {
      objects.push_back({0xa1, static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)});
    }
    objects.push_back({0xa0});
    EXPECT_EQ(static_cast<bool>(core::decodeBinaryPropertyList(fileOf(objects, 2))), levels == 512);
    objects[0] = {0xa2, 0x01, 0x00, 0x00, 0x01};
    EXPECT_EQ(static_cast<bool>(core::decodeBinaryPropertyList(fileOf(objects, 2))), levels == 512);
  }
}

TEST(BinaryPropertyList, NumbersAndOffsetsGrowWithTheFile) {
  using Case = std::array<int, 3>;
  for (const auto& [items, offsetSize, referenceSize] : {Case{255, 2, 1}, Case{256, 2, 2}, Case{66000, 4, 4}}) {
    ValueArray numbers;
    for (int i = 0; i < items; ++i) {
      numbers.append(Value(i * 3));
    }
    const Bytes bytes = encoded(numbers);
    EXPECT_EQ(bytes[bytes.size() - 26], offsetSize) << items;
    EXPECT_EQ(bytes[bytes.size() - 25], referenceSize) << items;
    EXPECT_TRUE(*core::decodeBinaryPropertyList(bytes) == Value(numbers)) << items;
  }
}

}  // namespace

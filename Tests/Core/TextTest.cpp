#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "Core/Kernel/SystemCall.h"
#include "Core/Memory/String.h"
#include "Core/PropertyList/Value.h"
#include "Core/Text/LocalTime.h"
#include "Core/Text/Uuid.h"

namespace core {
namespace {

using Fields = std::array<int, 7>;

Fields fieldsOf(const CivilTime& time) {
  return {time.year, time.month, time.day, time.hour, time.minute, time.second, time.weekday};
}

TEST(LocalTime, AgreesWithTheCLibrary) {
  std::mt19937_64 random(20180305);
  std::uniform_int_distribution<std::int64_t> moments(-377705116800, 253402300799);  // years -9999 to 9999
  std::uniform_int_distribution<int> offsets(-14 * 3600, 14 * 3600);
  std::vector<std::int64_t> all = {0,          -1,         951782400,  951868799,    951868800,
                                   1520258589, 4107542399, 4107542400, -62135596800, -62167219201};
  for (int i = 0; i < 20000; ++i) {
    all.push_back(moments(random));
  }
  for (const std::int64_t moment : all) {
    const int offset = offsets(random);
    const std::int64_t shown = std::clamp<std::int64_t>(moment + offset, -377705116800, 253402300799);
    std::tm expected{};
    gmtime_r(&shown, &expected);
    const CivilTime time = civilTime(moment, offset);
    ASSERT_EQ(fieldsOf(time), (Fields{expected.tm_year + 1900, expected.tm_mon + 1, expected.tm_mday, expected.tm_hour,
                                      expected.tm_min, expected.tm_sec, expected.tm_wday}))
        << moment << ' ' << offset;
    ASSERT_EQ(secondsSince1970(time, offset), shown - offset);
  }
}

TEST(LocalTime, StopsAtTheFirstAndLastYear) {
  using Limits = std::numeric_limits<std::int64_t>;
  for (const int offset : {0, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
    EXPECT_EQ(fieldsOf(civilTime(Limits::min(), offset)), (Fields{-9999, 1, 1, 0, 0, 0, 1}));
    EXPECT_EQ(fieldsOf(civilTime(Limits::max(), offset)), (Fields{9999, 12, 31, 23, 59, 59, 5}));
  }
}

long failRandom(long number) noexcept {
  return number == SYS_getrandom ? -EAGAIN : 0;
}

/// h stands for a hexadecimal digit, v for a variant digit.
bool hasShape(std::string_view text, std::string_view shape) {
  return std::equal(text.begin(), text.end(), shape.begin(), shape.end(), [](char byte, char kind) {
    const std::string_view allowed = kind == 'h'   ? "0123456789ABCDEF"
                                     : kind == 'v' ? "89AB"
                                                   : std::string_view(&kind, 1);
    return allowed.find(byte) != std::string_view::npos;
  });
}

TEST(Uuid, IsDistinctWithAndWithoutTheKernelsGenerator) {
  for (const SystemCallProbe probe : {SystemCallProbe{nullptr}, SystemCallProbe{failRandom}}) {
    const SystemCallProbe before = setSystemCallProbe(probe);
    std::set<std::string> seen;
    for (int i = 0; i < 500; ++i) {
      const std::string uuid = generateUuid().str();
      EXPECT_TRUE(hasShape(uuid, "hhhhhhhh-hhhh-4hhh-vhhh-hhhhhhhhhhhh")) << uuid;
      seen.insert(uuid);
    }
    setSystemCallProbe(before);
    EXPECT_EQ(seen.size(), 500U);
  }
}

TEST(Uuid, WritesHexHighNibbleFirst) {
  const std::uint8_t bytes[] = {0x00, 0x1f, 0xa0, 0xff};
  EXPECT_EQ(lowerHex(bytes), "001fa0ff");
  EXPECT_EQ(upperHex(bytes), "001FA0FF");
  EXPECT_EQ(lowerHex({}), "");
}

TEST(Value, ConvertsToNumbersAndBooleans) {
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
  const std::optional<std::int64_t> noNumber;
  const struct {
    Value value;
    std::optional<std::int64_t> integer;
    std::optional<bool> boolean;
  } cases[] = {
      {Value(), noNumber, std::nullopt},
      {Value(true), 1, true},
      {Value(0), 0, false},
      {Value(kLeast), kLeast, true},
      {Value(std::uint64_t{7}), 7, true},
      {Value(std::uint64_t{1} << 63), kMost, true},
      {Value(-2.9), -2, true},
      {Value(0.5), 0, true},
      {Value(0x1p63), kMost, true},
      {Value(-1e30), kLeast, true},
      {Value(std::nan("")), noNumber, true},
      {Value("YES"), noNumber, true},
      {Value("true"), noNumber, true},
      {Value("1"), noNumber, true},
      {Value("NO"), noNumber, false},
      {Value("false"), noNumber, false},
      {Value("0"), noNumber, false},
      {Value("maybe"), noNumber, std::nullopt},
      {Value(Date{1}), noNumber, std::nullopt},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(each.value.asInteger(), each.integer) << each.value.description().view();
    EXPECT_EQ(each.value.asBoolean(), each.boolean) << each.value.description().view();
  }
  EXPECT_NE(Value(std::uint64_t{7}).integer(), nullptr);
  EXPECT_NE(Value(std::uint64_t{1} << 63).largeInteger(), nullptr);
}

Value sample(double last) {
  return ValueDictionary{
      {"text", "a b"},
      {"list", ValueArray{true, -3, std::uint64_t{1} << 63, ValueArray{}, ValueDictionary{{"k", Value()}}}},
      {"data", Data("\x01\xAB", 2)},
      {"when", Date{541951389.25}},
      {"early", Date{-978307200.5}},
      {"uid", Uid{9}},
      {"last", last},
  };
}

TEST(Value, DescribesItself) {
  EXPECT_EQ(sample(2.5).description(),
            "{\n"
            "    text = a b;\n"
            "    list = (\n"
            "        1,\n"
            "        -3,\n"
            "        9223372036854775808,\n"
            "        (\n"
            "        ),\n"
            "        {\n"
            "            k = (null);\n"
            "        }\n"
            "    );\n"
            "    data = <01ab>;\n"
            "    when = 2018-03-05 14:03:09 +0000;\n"
            "    early = 1969-12-31 23:59:59 +0000;\n"
            "    uid = 9;\n"
            "    last = 2.5;\n"
            "}");
  EXPECT_EQ(Value("plain").description(), "plain");
}

TEST(Value, IsEqualByTypeAndContent) {
  EXPECT_TRUE(sample(1) == sample(1));
  EXPECT_FALSE(sample(1) == sample(2));
  const Value ones[] = {
      Value(1),       Value(true),   Value(1.0), Value("1"),           Value(Data("1", 1)),
      Value(Date{1}), Value(Uid{1}), Value(),    Value(ValueArray{1}), Value(ValueDictionary{{"1", 1}})};
  for (const Value& left : ones) {
    for (const Value& right : ones) {
      EXPECT_EQ(left == right, &left == &right);
    }
  }
}

}  // namespace
}  // namespace core

#include <gtest/gtest.h>

#include <functional>

#include "Core/Memory/CrashHeap.h"
#include "Core/Memory/CrashOwner.h"
#include "Kiv/common/model/zem/ExceptionUpload.h"
#include "Kiv/common/wex/WexDecodeException.h"
#include "Tests/Kiv/WexBytes.h"

namespace {

using analyticsyut::WexDecodeException;
using analyticsyut::WexInputStream;
using analyticsyut::WexOutputStream;
using test::fromHex;
using test::hex;
using Texts = core::SortedMap<core::String>;

std::string warnings;

/// Collects what is told about faults inside skipToTag.
class WexStream : public testing::Test {
 protected:
  WexStream() {
    warnings.clear();
    WexInputStream::setWarningSink([](std::string_view line) { warnings += line; });
  }
  ~WexStream() override { WexInputStream::setWarningSink(nullptr); }
};

template <class Value>
std::string written(const Value& value, std::uint8_t tag) {
  WexOutputStream out;
  out.write(value, tag);
  return hex(out.span());
}

template <class Value>
Value readFrom(const std::string& bytes, std::uint8_t tag) {
  const auto input = fromHex(bytes);
  WexInputStream in(input);
  Value value{};
  in.read(value, tag, true);
  EXPECT_EQ(in.left(), 0U) << bytes;
  return value;
}

/// What reading a required field with tag 1 throws.
template <class Value>
std::string fault(const std::string& bytes) {
  const auto input = fromHex(bytes);
  return test::messageOf<WexDecodeException>([&] {
    WexInputStream in(input);
    Value value{};
    in.read(value, 1, true);
  });
}

/// Does `work` on a thread that owns a crash, where what core::allocate gives can be counted.
void expectAllocated(std::size_t most, const std::function<void()>& work) {
  const auto crash = [&] {
    if (!core::CrashHeap::reserve() || core::CrashOwner::claim() != core::CrashOwner::Claim::kFirst) {
      _exit(2);
    }
    const std::size_t before = core::CrashHeap::used();
    work();
    _exit(core::CrashHeap::used() - before <= most ? 0 : 1);
  };
  EXPECT_EXIT(crash(), testing::ExitedWithCode(0), "");
}

TEST_F(WexStream, WritesNumbersInTheLeastWidthThatHoldsThem) {
  using Case = std::tuple<std::int64_t, std::uint8_t, std::string>;
  const Case cases[] = {
      {0, 3, "3C"},
      {1, 14, "E0 01"},
      {1, 15, "F0 0F 01"},
      {0, 255, "FC FF"},
      {127, 1, "10 7F"},
      {-128, 1, "10 80"},
      {128, 1, "11 00 80"},
      {-129, 1, "11 FF 7F"},
      {32767, 1, "11 7F FF"},
      {-32768, 1, "11 80 00"},
      {32768, 1, "12 00 00 80 00"},
      {-32769, 1, "12 FF FF 7F FF"},
      {2147483647, 1, "12 7F FF FF FF"},
      {-2147483648, 1, "12 80 00 00 00"},
      {2147483648, 1, "13 00 00 00 00 80 00 00 00"},
      {-2147483649, 1, "13 FF FF FF FF 7F FF FF FF"},
      {INT64_MIN, 16, "F3 10 80 00 00 00 00 00 00 00"},
  };
  // Each width writes and reads what it holds; what is wider on the wire is refused by a narrower one.
  const auto check = [](const Case& one, auto narrow, const std::string& name) {
    const auto& [value, tag, bytes] = one;
    using Number = decltype(narrow);
    narrow = static_cast<Number>(value);
    if (narrow == value) {
      EXPECT_EQ(written(narrow, tag), bytes);
      EXPECT_EQ(readFrom<Number>(bytes, tag), narrow) << bytes;
    } else if (tag == 1) {
      EXPECT_EQ(fault<Number>(bytes), "read '" + name + "' type mismatch, tag: 1, get type: " + bytes[1] + ".");
    }
  };
  for (const Case& one : cases) {
    check(one, std::int8_t{}, "Char");
    check(one, std::int16_t{}, "Short");
    check(one, std::int32_t{}, "Int32");
    check(one, std::int64_t{}, "Int64");
  }
  EXPECT_EQ(written(true, 2) + " " + written(false, 2), "20 01 2C");
  EXPECT_TRUE(readFrom<bool>("20 01", 2));
}

TEST_F(WexStream, WritesAndReadsEveryKindOfValue) {
  const auto check = [](const auto& value, std::uint8_t tag, const std::string& bytes) {
    EXPECT_EQ(written(value, tag), bytes);
    EXPECT_EQ(readFrom<std::remove_cvref_t<decltype(value)>>(bytes, tag), value) << bytes;
  };
  const auto text = [](std::size_t size) { return core::String(std::string(size, 'x')); };
  const auto repeated = [](std::size_t count) { return hex(std::vector<std::uint8_t>(count, 'x')); };
  const std::uint8_t two[] = {1, 2};
  check(core::String("abc"), 1, "16 03 61 62 63");
  check(core::String(), 15, "F6 0F 00");
  for (const std::size_t size : {7U, 8U, 15U, 16U, 31U, 32U, 33U}) {
    check(text(size), 0, hex(std::vector<std::uint8_t>{6, static_cast<std::uint8_t>(size)}) + " " + repeated(size));
  }
  check(text(255), 0, "06 FF " + repeated(255));
  check(text(256), 0, "07 00 00 01 00 " + repeated(256));
  check(core::Data(), 2, "2D 00 0C");
  check(core::Data(two), 2, "2D 00 00 02 01 02");
  check(core::Data(text(128).data(), 128), 0, "0D 00 01 00 80 " + repeated(128));
  check(Texts{}, 4, "48 0C");
  check(Texts{{"b", "2"}, {"a", "1"}}, 0, "08 00 02 06 01 61 16 01 31 06 01 62 16 01 32");
  check(core::SortedMap<core::SortedMap<core::Data>>{{"n", {{"t", core::Data(two)}}}}, 0,
        "08 00 01 06 01 6E 18 00 01 06 01 74 1D 00 00 02 01 02");
  check(core::Array<core::String>{"a", "bc"}, 3, "39 00 02 06 01 61 06 02 62 63");
  check(core::Array<core::String>(), 3, "39 0C");
  kiv::Attachment file;
  file.fileName = "f";
  check(file, 0, "0A 0C 16 01 66 2D 00 0C 0B");
  check(core::Array<kiv::Attachment>{file}, 17, "F9 11 00 01 0A 0C 16 01 66 2D 00 0C 0B");
  EXPECT_EQ(readFrom<core::Data>("19 00 02 00 01 00 02", 1), core::Data(two)) << "the list form of bytes";
  EXPECT_EQ(readFrom<Texts>("08 00 03 06 01 62 16 01 32 06 01 61 16 01 31 06 01 62 16 01 33", 0),
            (Texts{{"a", "1"}, {"b", "2"}}))
      << "the first of equal keys stays";
}

TEST_F(WexStream, RefusesTextsBeyondTheLimitBeforeWritingThem) {
  const std::string text(104857601, 'x');
  WexOutputStream out;
  out.write(std::string_view(text).substr(1), 1);
  EXPECT_EQ(hex(out.span().first(6)), "17 06 40 00 00 78");
  EXPECT_EQ(out.length(), 5U + 104857600U);
  EXPECT_EQ(test::messageOf<WexDecodeException>([&] { out.write(text, 2); }),
            "invalid string size, tag: 2, size: 104857601");
  EXPECT_EQ(out.length(), 5U + 104857600U);
}

TEST_F(WexStream, TellsWhatIsWrong) {
  using Byte = std::int8_t;
  using List = core::Array<core::String>;
  const std::tuple<std::string (*)(const std::string&), const char*, const char*> cases[] = {
      {fault<Byte>, "20 01", "require field not exist, tag: 1."},
      {fault<std::int16_t>, "0B", "require field not exist, tag: 1"},
      {fault<core::String>, "", "require field not exist, tag: 1"},
      {fault<Byte>, "10", "buffer overflow when peekBuf, over 1."},
      {fault<std::int64_t>, "16 00", "read 'Int64' type mismatch, tag: 1, get type: 6."},
      {fault<core::String>, "1C", "read 'string' type mismatch, tag: 1, get type: 12."},
      {fault<core::String>, "16 05 61", "buffer overflow when peekBuf, over 3."},
      {fault<core::String>, "17 06 40 00 00 61", "buffer overflow when peekBuf, over 6."},
      {fault<core::String>, "17 06 40 00 01", "invalid string size, tag: 1, size: 104857601"},
      {fault<core::String>, "17 FF FF FF FF", "invalid string size, tag: 1, size: -1"},
      {fault<core::Data>, "16 00", "type mismatch, tag: 1, type: 6"},
      {fault<core::Data>, "1D 01", "type mismatch, tag: 1, type: 13, 1"},
      {fault<core::Data>, "1D 10", "type mismatch, tag: 1, type: 13, 0"},
      {fault<core::Data>, "1D 00 00 FF", "invalid size, tag: 1, type: 13, 0, size: -1"},
      {fault<core::Data>, "1D 00 00 05 01", "buffer overflow when peekBuf, over 5."},
      {fault<core::Data>, "1D 00 06 00", "read 'Int32' type mismatch, tag: 0, get type: 6."},
      {fault<core::Data>, "19 00 FF", "invalid size, tag: 1, type: 9, size: -1"},
      {fault<core::Data>, "19 00 01 01 00 01", "read 'Char' type mismatch, tag: 0, get type: 1."},
      {fault<Texts>, "19 0C", "read 'map' type mismatch, tag: 1, get type: 9."},
      {fault<Texts>, "18 00 80", "invalid map, tag: 1, size: -128"},
      {fault<Texts>, "18 00 01 06 00 26 00", "require field not exist, tag: 1"},
      {fault<List>, "18 0C", "read 'vector' type mismatch, tag: 1, get type: 8."},
      {fault<List>, "19 00 02 06 00", "require field not exist, tag: 0"},
      {fault<kiv::Attachment>, "10 01", "read 'struct' type mismatch, tag: 1, get type: 0."},
      {fault<kiv::Attachment>, "1A 0B", "read 'Char' type mismatch, tag: 0, get type: 11."},
      {fault<kiv::Attachment>, "1A 00 01", "buffer overflow when peekBuf with offset, over 3."},
  };
  for (const auto& [faultOf, bytes, message] : cases) {
    EXPECT_EQ(faultOf(bytes), message) << bytes;
  }
  const std::string longText(200, 'x');
  EXPECT_EQ(test::messageOf<WexDecodeException>([&] { WexDecodeException::raise("%s", longText); }).size(), 63U);
  EXPECT_EQ(test::messageOf<WexDecodeException>([&] { WexDecodeException::raiseLong("%s", longText); }).size(), 127U);
}

TEST_F(WexStream, PassesOverFieldsThatItDoesNotKnow) {
  const char* const fields[] = {"00 01", "01 00 01", "02 00 00 00 01", "03 00 00 00 00 00 00 00 01", "04 00 00 00 00",
                                "05 00 00 00 00 00 00 00 00", "06 02 61 62", "07 00 00 00 01 61",
                                "08 00 01 06 01 6B 1A 0A 0B 0B", "09 00 02 0C 0A F6 10 00 0B",
                                "0A 16 01 61 28 00 01 0C 1C 0B", "0C", "0D 00 00 02 01 02", "09 0C", "0A 0B",
                                // Counts below zero hold nothing.
                                "08 00 FF", "09 00 FF"};
  for (const std::string field : fields) {
    const auto input = fromHex(field + " 10 07");
    WexInputStream in(input);
    std::int8_t value = 0;
    in.read(value, 1, true);
    EXPECT_EQ(value, 7) << field;
  }
  EXPECT_EQ(warnings, "");
}

TEST_F(WexStream, TakesAFaultOnTheWayToAFieldForItsAbsence) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "buffer overflow when peekBuf with offset, over 0."},
      {"0C", "buffer overflow when peekBuf with offset, over 1."},
      {"0C F0", "buffer overflow when peekBuf with offset, over 2."},
      {"06 05 61", "buffer overflow when skip, over 3."},
      {"07 FF FF FF FF", "buffer overflow when skip, over 5."},
      {"0D 00 00 FF", "buffer overflow when skip, over 4."},
      {"0E", "skipField with invalid type, type value:14."},
      {"0F", "skipField with invalid type, type value:15."},
      {"0D 01", "skipField with invalid type, type value: 13, 1."},
      {"0D 10", "skipField with invalid type, type value: 13, 256."},
      {"09 06 00", "read 'Int32' type mismatch, tag: 0, get type: 6."},
  };
  for (const auto& [bytes, message] : cases) {
    const auto input = fromHex(bytes);
    WexInputStream in(input);
    std::int32_t value = 5;
    warnings.clear();
    in.read(value, 1, false);
    EXPECT_EQ(value, 5);
    EXPECT_EQ(warnings, std::string("WARN: skipToTag '1' occur a WexDecodeException[") + message + "]. \n") << bytes;
  }
  WexInputStream::setWarningSink(nullptr);
  testing::internal::CaptureStdout();
  WexInputStream().skipToTag(2);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "WARN: skipToTag '2' occur a WexDecodeException[buffer overflow when peekBuf with offset, over 0.]. \n");
}

TEST_F(WexStream, EndsNestingBeforeTheStackDoes) {
  const auto nested = [](std::size_t levels, const char* begin, const char* end) {
    std::string bytes;
    for (std::size_t i = 0; i < 2 * levels; ++i) {
      bytes += i < levels ? begin : end;
    }
    return fromHex(bytes);
  };
  for (const auto& [begin, end] : {std::pair("0A ", "0B "), {"08 00 01 0C ", ""}, {"09 00 01 ", ""}}) {
    auto good = nested(64, begin, end);
    good.push_back(0x0C);  // what the innermost list or value holds
    WexInputStream(good).skipField();
    for (const std::size_t levels : {65U, 100000U}) {
      const auto bomb = nested(levels, begin, end);
      EXPECT_EQ(test::messageOf<WexDecodeException>([&] { WexInputStream(bomb).skipField(); }),
                "invalid nesting, over 64 levels.");
    }
  }
}

TEST_F(WexStream, TakesNoMoreMemoryThanTheBytesAreWorth) {
  for (const char* bytes :
       {"17 06 40 00 00 61", "1D 00 02 7F FF FF FF", "19 02 7F FF FF FF 0C", "18 02 7F FF FF FF 0C"}) {
    const auto input = fromHex(bytes);
    expectAllocated(4096, [&] {
      fault<core::String>(bytes);
      fault<core::Data>(bytes);
      fault<Texts>(bytes);
      fault<core::Array<kiv::ExceptionUpload>>(bytes);
    });
  }
}

TEST_F(WexStream, AllocatesNothingPerField) {
  kiv::ExceptionUpload record;
  record.allStacks = {{"0", "stack"}, {"1", "another"}};
  record.appInfoList = {kiv::AppInfo(), kiv::AppInfo()};
  WexOutputStream out;
  out.reserve(4096);
  expectAllocated(0, [&] { out.write(record, 0); });
}

TEST_F(WexStream, DoublesWhatIsAskedFor) {
  WexOutputStream out;
  out.reserve(10);
  out.writeBuf("0123456789", 10);
  EXPECT_EQ(out.capacity(), 20U);
  out.reserve(20);
  EXPECT_EQ(out.capacity(), 20U);
  out.reserve(21);
  EXPECT_EQ(out.capacity(), 42U);
  EXPECT_EQ(hex(out.span()), "30 31 32 33 34 35 36 37 38 39");
}

}  // namespace

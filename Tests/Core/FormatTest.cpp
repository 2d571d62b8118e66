#include "Core/Text/Format.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "Core/Memory/Array.h"
#include "Core/Memory/Dictionary.h"

namespace core {
namespace {

struct Case {
  String shown;
  const char* expected;
};

void expectAll(const std::vector<Case>& cases) {
  for (const Case& each : cases) {
    EXPECT_EQ(each.shown.view(), each.expected);
  }
}

struct Described {
  String description() const noexcept { return kiv_format("<%d>", number); }
  int number;
};

TEST(Format, ShowsIntegersByTheirOwnSize) {
  const std::uint64_t all = ~std::uint64_t{0};
  expectAll({
      {kiv_format("%lu %zu %u", std::size_t{18}, all, all), "18 18446744073709551615 18446744073709551615"},
      {kiv_format("%lli %d %qi", std::int64_t{-5}, std::numeric_limits<std::int64_t>::min(), 7),
       "-5 -9223372036854775808 7"},
      {kiv_format("%d %u %x", 0xFFFFFFFEU, -2, -2), "-2 4294967294 fffffffe"},
      {kiv_format("%d %d %d %d", std::uint8_t{200}, std::int8_t{-56}, true, 'A'), "200 -56 1 65"},
      {kiv_format("%hhx %hd %hu", 0x1FF, 70000, -1), "ff 4464 65535"},
      {kiv_format("%d %u %x %#x %o %.0d", 0, 0U, 0, 0, 0, 0), "0 0 0 0x0 0 "},
      {kiv_format("%#018llx %#018qx %#10llx", std::uint64_t{0}, std::uint64_t{0xa8}, std::uint64_t{0x1000}),
       "0x0000000000000000 0x00000000000000a8     0x1000"},
      {kiv_format("%-2d|%05d|%+05d|%+05d|% d|%02X", 7, 42, 100, -800, 3, 10), "7 |00042|+0100|-0800| 3|0A"},
      {kiv_format("%c%c|%3c|%-3c|", 'k', 0x76, 'a', 'b'), "kv|  a|b  |"},
  });
}

TEST(Format, ShowsTexts) {
  const char* const missing = nullptr;
  char fixed[8] = {'n', 'a', 'm', 'e', '1', '2', '3', '4'};
  expectAll({
      {kiv_format("%@%s%@%s", "a", String("b"), std::string("c"), std::string_view("d")), "abcd"},
      {kiv_format("%@ %s %@", missing, missing, nullptr), "(null) (null) (null)"},
      {kiv_format("[%-30s]", " "), "[                              ]"},
      {kiv_format("[%6s] [%6s] [%-4s] [%.2s] [%4.1s]", "rax", "longname", "ab", "abc", "xyz"),
       "[   rax] [longname] [ab  ] [ab] [   x]"},
      {kiv_format("[%-37s] [%8@]", missing, "ab"), "[(null)                               ] [      ab]"},
      {kiv_format("%s", fixed), "name1234"},
      {kiv_format("100%% %@%%", std::string_view{}), "100% %"},
  });
}

TEST(Format, ShowsObjects) {
  const Described object{4};
  const std::shared_ptr<Described> none;
  const String* noText = nullptr;
  const Array<String> lines = {"first", "second"};
  const Array<Array<String>> nested = {lines, {}};
  const Dictionary<String> map = {{"k", "v"}, {"l", "w"}};
  expectAll({
      {kiv_format("%@ %@ %@ %@", object, &object, std::make_unique<Described>(Described{5}), none),
       "<4> <4> <5> (null)"},
      {kiv_format("%@ %@ %s", std::optional<String>(), std::optional<String>("t"), noText), "(null) t (null)"},
      {kiv_format("%@ %@", std::optional<int>(3), std::optional<bool>(false)), "3 0"},
      {kiv_format("%@ %@ %@ %@", true, std::int8_t{-1}, std::numeric_limits<std::uint64_t>::max(), 'c'),
       "1 -1 18446744073709551615 c"},
      {kiv_format("%@", lines), "(\n    first,\n    second\n)"},
      {kiv_format("%@", Array<String>()), "(\n)"},
      {kiv_format("%@", nested), "(\n    (\n        first,\n        second\n    ),\n    (\n    )\n)"},
      {kiv_format("%@", std::vector<std::optional<int>>{1, std::nullopt}), "(\n    1,\n    (null)\n)"},
      {kiv_format("%@", map), "{\n    k = v;\n    l = w;\n}"},
  });
}

TEST(Format, ShowsPointersAndReals) {
  const auto* address = reinterpret_cast<const void*>(0x7F00ABCDEF01);
  void (*const handler)(int) = reinterpret_cast<void (*)(int)>(0x1);  // SIG_IGN
  const double nan = std::nan("");
  const double infinity = std::numeric_limits<double>::infinity();
  expectAll({
      {kiv_format("%p %p %p", address, handler, nullptr), "0x7f00abcdef01 0x1 0x0"},
      {kiv_format("%@ %@ %@ %@ %@", 100000.0, 0.1, 10.13F, -2.5, -0.0), "100000 0.1 10.13 -2.5 -0"},
      {kiv_format("%@ %@ %@", 1e300, 0.00001, 99999999999999991.0), "1e+300 1e-05 99999999999999984"},
      {kiv_format("%f %5.1f %@ %@ %05f", -nan, -infinity, nan, infinity, infinity), "nan  -inf nan inf   inf"},
      {kiv_format("%f %.0f %.0f %.0f", -0.0, 0.5, 1.5, 541951389.5), "-0.000000 0 2 541951390"},
  });
}

/// Random flags, width and precision in front of `conversion`; "#" only where C means the same.
std::string randomDirective(std::mt19937& random, const char* length, char conversion, bool alternate) {
  std::string text = "%";
  for (const char flag : {'-', '+', ' ', '0', '#'}) {
    if (random() % 3 == 0 && (flag != '#' || alternate)) {
      text += flag;
    }
  }
  if (random() % 2 == 0) {
    text += std::to_string(random() % 30 + 1);
  }
  if (random() % 2 == 0) {
    text += '.' + std::to_string(random() % 25);
  }
  return text + length + conversion;
}

template <class Value>
void expectAsInC(const std::string& format, Value value) {
  char expected[1500];
  std::snprintf(expected, sizeof expected, format.c_str(), value);
  ASSERT_EQ(kiv_format(UncheckedFormat{format}, value).view(), expected) << format << ' ' << value;
}

TEST(Format, AgreesWithTheCLibraryOnNumbers) {
  std::mt19937 random(20180305);
  std::mt19937_64 wide(20180305);
  for (int i = 0; i < 40000; ++i) {
    const auto integer = static_cast<long long>(wide()) >> (random() % 64);
    const char conversion = "diuxXo"[random() % 6];
    const bool isDecimal = conversion == 'd' || conversion == 'i' || conversion == 'u';
    expectAsInC(randomDirective(random, "ll", conversion, conversion == 'o' || (integer != 0 && !isDecimal)), integer);

    const double plain = std::ldexp(static_cast<double>(wide() % 2000001) - 1e6, static_cast<int>(random() % 40) - 30);
    const double real = random() % 3 == 0 ? std::bit_cast<double>(wide()) : plain;
    if (!std::isnan(real)) {
      expectAsInC(random() % 50 == 0 ? "%.1074f" : randomDirective(random, "", 'f', false), real);
    }
  }
}

TEST(Format, ShowsNothingForeignWhereARunTimeFormatDoesNotFit) {
  const auto show = [](std::string_view text, const auto&... values) {
    return kiv_format(UncheckedFormat{text}, values...);
  };
  const int number = 5;
  expectAll({
      {show("%@ %s %d %x %p %c|", number), "5 (null) 0 0 0x0 (null)|"},
      {show("%s %f %p", number, number, number), "(null) 0.000000 0x0"},
      {show("%d %u %f %p", "text", String("text"), "text", "text"), "0 0 0.000000 0x0"},
      {show("%@ %d", static_cast<const void*>(&number), 2.5), "(null) 0"},
      {show("%d", number, number), "5"},
      {show("%y %d%", number), "%y 5%"},
      {show("%-0+ #5", number), "%-0+ #5"},
      {show(std::string_view{}, number), ""},
  });
  EXPECT_EQ(show("%99999999999999999999d", number).size(), 9999U);
  EXPECT_EQ(show("%.99999999999999999999f", 0.5).size(), 1076U);
}

TEST(Format, FindsFaultsOfALiteral) {
  using format_detail::FormatFault;
  const struct {
    const char* text;
    std::vector<FormatKind> kinds;
    FormatFault fault;
  } cases[] = {
      {"%@ %-30s %#018llx %%", {FormatKind::kObject, FormatKind::kText, FormatKind::kInteger}, FormatFault::kNone},
      {"%d %d", {FormatKind::kInteger}, FormatFault::kMoreDirectives},
      {"%d", {FormatKind::kInteger, FormatKind::kInteger}, FormatFault::kFewerDirectives},
      {"%s", {FormatKind::kInteger}, FormatFault::kUnfit},
      {"%d", {FormatKind::kReal}, FormatFault::kUnfit},
      {"%f", {FormatKind::kInteger}, FormatFault::kUnfit},
      {"%@", {FormatKind::kPointer}, FormatFault::kUnfit},
      {"%p", {FormatKind::kText}, FormatFault::kUnfit},
      {"%y", {FormatKind::kInteger}, FormatFault::kUnknown},
      {"5 %", {}, FormatFault::kUnknown},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(format_detail::faultOf(each.text, each.kinds.data(), each.kinds.size()), each.fault) << each.text;
  }
}

TEST(Format, JoinsLongTextsWithoutAGap) {
  for (std::size_t size = 500; size < 520; ++size) {
    const std::string text(size, 'x');
    const std::string wide = "%" + std::to_string(size) + "d";
    EXPECT_EQ(kiv_format("a%@b%dc%@", text, 1234567, text).view(), "a" + text + "b1234567c" + text);
    EXPECT_EQ(kiv_format(UncheckedFormat{wide + "%s"}, 7, "end").view(), std::string(size - 1, ' ') + "7end");
  }
  StringBuilder out;
  kiv_append(out, "%@", "first ");
  kiv_append(out, "%@%d", std::string(2000, 'y'), 2);
  EXPECT_EQ(out.view(), "first " + std::string(2000, 'y') + "2");
}

}  // namespace
}  // namespace core

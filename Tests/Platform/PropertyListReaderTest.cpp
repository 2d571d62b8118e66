#include "Platform/Foundation/PropertyListReader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "Core/PropertyList/BinaryPropertyList.h"
#include "Platform/Foundation/Bundle.h"
#include "Tests/Support/Subprocess.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

using core::Value;
using core::ValueArray;
using core::ValueDictionary;
using test::writeFile;

core::Result<Value> read(std::string_view text) {
  return platform::readPropertyList({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

std::string plist(std::string_view inner) {
  return "<plist version=\"1.0\">" + std::string(inner) + "</plist>";
}

std::string nestedArrays(int levels) {
  std::string arrays;
  for (int i = 0; i < levels; ++i) {
    arrays.insert(arrays.size() / 15 * 7, "<array></array>");
  }
  return plist(arrays);
}

TEST(PropertyListReader, ReadsXml) {
  const std::pair<const char*, Value> cases[] = {
      {"<false></false>", false},
      {"<integer>42</integer>", 42},
      {"<integer> -9223372036854775808\n</integer>", std::numeric_limits<std::int64_t>::min()},
      {"<integer>18446744073709551615</integer>", std::numeric_limits<std::uint64_t>::max()},
      {"<integer>0xFf</integer>", 255},
      {"<real>-1.25e2</real>", -125.0},
      {"<real>+infinity</real>", std::numeric_limits<double>::infinity()},
      {"<date>2001-01-01T00:00:10Z</date>", core::Date{10}},
      {"<date>2024-02-29T12:00:00Z</date>", core::Date{730900800}},
      {"<data>\n\tAAEC\n\t/w==\n</data>", core::Data("\0\1\2\xff", 4)},
      {"<string/>", ""},
      {"<string> </string>", " "},
      {"<string> two\r\nlines </string>", " two\nlines "},
      {"<string>&lt;&amp;&gt;&quot;&apos;&#65;&#x1F600;</string>", "<&>\"'A\U0001F600"},
      {"<string>a<!-- not -->b<![CDATA[<&amp;>]]></string>", "ab<&amp;>"},
      {"<array> <integer>1</integer> <!-- --> <array/></array>", ValueArray{1, ValueArray()}},
      {"<dict><key>a &amp; b</key><string>x</string><key/><dict/></dict>",
       ValueDictionary{{"a & b", "x"}, {"", ValueDictionary()}}},
  };
  for (const auto& [xml, value] : cases) {
    const auto result = read(
        "\xef\xbb\xbf<?xml version='1.0'?>\n<!DOCTYPE plist PUBLIC 'x' 'y' [<!ENTITY lt 'no'>]>\n" + plist(xml) + "\n");
    ASSERT_TRUE(result) << xml << ": " << result.error().reason;
    EXPECT_TRUE(*result == value) << xml;
  }
}

TEST(PropertyListReader, RefusesMalformedXmlWithReasonAndPlace) {
  const auto expect = [](const std::string& xml, const std::string& reason, std::size_t offset) {
    const auto result = read(xml);
    ASSERT_FALSE(result) << xml;
    EXPECT_EQ(result.error().reason, reason) << xml;
    EXPECT_EQ(result.error().offset, offset) << xml;
  };
  expect("", "No document element found", 0);
  expect("bplist01", "not a binary property list", 0);
  expect("<plist><dict>", "Start-end tags mismatch", 12);
  expect("<array/>", "not one plist element", 1);
  expect(plist("<true/>") + plist("<true/>"), "not one plist element", 1);
  expect(plist(""), "no value", 1);
  expect(plist("<true/><true/>"), "more than one value", 29);
  expect(plist("<true/>\xC2\xA0"), "text between elements", 28);
  expect(plist("<dict><key>a</key>x<true/></dict>"), "text between elements", 39);
  expect(plist("<dict><true/></dict>"), "a value without a key", 28);
  expect(plist("<dict><key>&x;</key><true/></dict>"), "an unknown entity", 32);
  expect(plist("<dict><key>a</key><null/></dict>"), "an element of unknown kind", 40);
  expect(plist(std::string_view("<string>\0</string>", 18)), "a NUL byte", 29);
  expect(plist("<string><true/></string>"), "an element inside of text", 30);
  for (const int levels : {513, 100'000}) {
    expect(nestedArrays(levels), "too deeply nested", 22 + 512 * 7);
  }
  EXPECT_TRUE(read(nestedArrays(512)));
  const struct {
    std::string element;
    const char* reason;
    std::vector<std::string> texts;
  } cases[] = {
      {"null", "an element of unknown kind", {""}},
      {"true", "an element of unknown kind", {"no"}},
      {"string", "text that is not UTF-8", {"\xff", "a\xed\xa0\x80"}},
      {"integer",
       "not an integer of 64 bits",
       {"18446744073709551616", "-9223372036854775809", "--1", "0x", "1.0", ""}},
      {"real", "not a real number", {"1,5", "+-1", "1e999", ""}},
      {"date", "not a date such as 2001-01-01T00:00:00Z", {"2023-02-29T12:00:00Z", "2023-01-01 12:00:00Z", "2023"}},
      {"data", "not Base64", {"AAE", "AA=E", "A===", "A$=="}},
  };
  for (const auto& [element, reason, texts] : cases) {
    for (const std::string& text : texts) {
      expect(plist("<" + element + ">" + text + "</" + element + ">"), reason, 22);
    }
  }
  for (const char* entity : {"&nbsp;", "&#0;", "&#xD800;", "&#99999999999;", "& b"}) {
    expect(plist("<string>" + std::string(entity) + "</string>"), "an unknown entity", 29);
  }
}

TEST(PropertyListReader, AgreesWithAnIndependentProgram) {
  const test::TemporaryDirectory directory;
  const auto convert = [&](const char* format, std::string_view content) {
    writeFile(directory.file("in"), content);
    const std::string out = directory.file("out");
    const test::Outcome outcome =
        test::Subprocess::run({"plistutil", "-i", directory.file("in"), "-f", format, "-o", out});
    EXPECT_EQ(outcome.exitStatus, 0) << "plistutil (package libplist-utils) is needed here. " << outcome.errors;
    return test::contentOf(out);
  };
  const Value value = ValueDictionary{{"caf\u00e9 \U0001F600", ValueArray{0, -1, std::int64_t{1} << 40, "x", "x"}},
                                      {"large", std::numeric_limits<std::uint64_t>::max()},
                                      {"moment", core::Date{86400}},
                                      {std::string(300, 'k'), core::Data("\0\xff", 2)},
                                      {"rest", ValueArray{true, false, 0.1, ValueDictionary(), ValueArray()}}};
  const core::Data binary = core::encodeBinaryPropertyList(value);
  const std::string xml = convert("xml", {reinterpret_cast<const char*>(binary.data()), binary.size()});
  for (const char* piece : {"<key>caf\u00e9 \U0001F600</key>", "<integer>-1</integer>", "<integer>1099511627776<",
                            "<integer>18446744073709551615<", "<date>2001-01-02T00:00:00Z</date>", "AP8="}) {
    EXPECT_NE(xml.find(piece), std::string::npos) << piece << " in " << xml;
  }
  for (const std::string& converted : {xml, convert("bin", xml)}) {
    const auto back = read(converted);
    ASSERT_TRUE(back) << back.error().reason;
    EXPECT_TRUE(*back == value);
  }
}

TEST(Bundle, ReadsItsDescriptionAndFindsResources) {
  const test::TemporaryDirectory directory;
  writeFile(directory.file("Info.plist"),
            plist("<dict><key>CFBundleIdentifier</key><string>com.example.demo</string><key>CFBundleVersion</key>"
                  "<integer>77</integer><key>On</key><string>YES</string><key>Off</key><false/></dict>"));
  writeFile(directory.file("Resources/Feed.xml"), "x");
  writeFile(directory.file("Resources/plain"), "x");
  const platform::Bundle bundle(directory.path());
  EXPECT_FALSE(bundle.infoProblem());
  EXPECT_EQ(bundle.identifier(), "com.example.demo");
  EXPECT_EQ(bundle.infoString("CFBundleVersion"), std::nullopt);
  EXPECT_EQ(*bundle.info("CFBundleVersion")->integer(), 77);
  EXPECT_EQ(bundle.info("CFBundleName"), nullptr);
  EXPECT_TRUE(bundle.infoBoolean("On"));
  EXPECT_FALSE(bundle.infoBoolean("Off") || bundle.infoBoolean("Missing"));
  EXPECT_EQ(bundle.resourcePath("Feed", "xml"), core::String(directory.file("Resources/Feed.xml")));
  EXPECT_EQ(bundle.resourcePath("plain", ""), core::String(directory.file("Resources/plain")));
  EXPECT_EQ(bundle.resourcePath("embedded", "mobileprovision"), std::nullopt);
}

TEST(Bundle, TellsWhatIsWrongWithItsDescription) {
  const test::TemporaryDirectory directory;
  const std::string file = directory.file("Info.plist");
  EXPECT_FALSE(platform::Bundle(directory.path()).infoProblem());
  EXPECT_EQ(platform::Bundle(directory.path()).identifier(), platform::Bundle::executableName());
  const std::string comment = "<!--" + std::string(platform::Bundle::kInfoLimit, ' ') + "-->";
  const std::pair<std::string, std::string> cases[] = {
      {plist("<dict><key>a</key></dict>"), ": a key without a value (at byte 28)"},
      {plist("<array/>"), ": is not a dictionary"},
      {comment + plist("<dict/>"), ": is too large (at byte 1048576)"},
  };
  for (const auto& [content, problem] : cases) {
    writeFile(file, content);
    const platform::Bundle bundle(directory.path());
    EXPECT_EQ(bundle.infoProblem(), core::String(file + problem));
    EXPECT_TRUE(bundle.infoDictionary().empty());
  }
  std::filesystem::remove(file);
  std::filesystem::create_directory(file);
  EXPECT_EQ(platform::Bundle(directory.path()).infoProblem(), core::String(file + ": cannot be read (at byte 0)"));
}

// In processes of their own: the main bundle is made once.
TEST(BundleDeathTest, MainIsTheProgramsFolderUnlessSetBefore) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto status = [](bool right) { return right ? 0 : 1; };
  const std::string folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  EXPECT_EXIT(_exit(status(platform::Bundle::main().path().str() == folder)), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(_exit(status(platform::Bundle::setMainForTesting("/x") && platform::Bundle::main().path() == "/x" &&
                           !platform::Bundle::setMainForTesting("/"))),
              testing::ExitedWithCode(0), "");
}

}  // namespace

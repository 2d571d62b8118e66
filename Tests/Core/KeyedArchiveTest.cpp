#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "Core/PropertyList/ArchivedProperties.h"
#include "Core/PropertyList/BinaryPropertyList.h"
#include "Tests/Support/Subprocess.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

using core::Uid;
using core::Value;
using core::ValueArray;
using core::ValueDictionary;
using core::archive::property;

struct Box {
  static constexpr std::string_view kClassName = "Box";
  std::int32_t count = 0;
  friend bool operator==(const Box&, const Box&) = default;
  static constexpr auto kProperties = core::archive::properties(property("count", &Box::count));
};

/// Every kind of property, and a superclass.
struct Crate : Box {
  using Superclass = Box;
  static constexpr std::string_view kClassName = "Crate";
  std::optional<core::String> label;
  core::String place;
  std::optional<core::Data> data;
  std::int8_t tiny = 0;
  std::int64_t large = 0;
  bool full = false;
  std::optional<Box> lid;
  core::Array<Box> boxes;
  core::Array<core::String> texts;
  core::Dictionary<core::String> names;
  ValueDictionary values;
  Value any;
  friend bool operator==(const Crate&, const Crate&) = default;
  static constexpr auto kProperties = core::archive::properties(
      property("label", &Crate::label), property("place", &Crate::place), property("data", &Crate::data),
      property("tiny", &Crate::tiny), property("large", &Crate::large), property("full", &Crate::full),
      property("lid", &Crate::lid), property("boxes", &Crate::boxes), property("texts", &Crate::texts),
      property("names", &Crate::names), property("values", &Crate::values), property("any", &Crate::any));
};

Crate fullCrate() {
  Crate crate;
  crate.count = -7;
  crate.label = "caf\u00e9";
  crate.place = "";
  crate.data = core::Data("\0\xff", 2);
  crate.tiny = -128;
  crate.large = std::int64_t{1} << 40;
  crate.full = true;
  crate.lid = Box{3};
  crate.boxes = {Box{1}, Box{2}, Box{1}};
  crate.texts = {"x", "$null", "x"};
  crate.names = {{"a", "x"}, {"b", "y"}};
  crate.values = {{"B1", true},
                  {"deep", ValueDictionary{{"items", ValueArray{1, 2.5, "x", Value(), core::Date{86400}}}}},
                  {"most", ~std::uint64_t{0}}};
  crate.any = ValueArray{};
  return crate;
}

Value classOf(std::initializer_list<Value> names) {
  return ValueDictionary{{"$classname", *names.begin()}, {"$classes", ValueArray(names)}};
}

/// An archive as another program would write it; UID 1 is the root object, UID 0 nil.
core::Data archiveOf(std::initializer_list<Value> objects) {
  ValueArray all{"$null"};
  for (const Value& object : objects) {
    all.append(object);
  }
  return core::encodeBinaryPropertyList(ValueDictionary{{"$archiver", "NSKeyedArchiver"},
                                                        {"$version", 100000},
                                                        {"$top", ValueDictionary{{"root", Uid{1}}}},
                                                        {"$objects", all}});
}

std::string hexOf(std::span<const std::uint8_t> bytes) {
  std::string digits;
  for (const std::uint8_t byte : bytes) {
    digits += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]};
  }
  return digits;
}

TEST(KeyedArchive, WritesAnObjectToTheByte) {
  std::string expected =
      "62706c6973743030"
      "55 246e756c6c  1005  55 636f756e74  8002"                                // 0-3: $null, 5, count, UID 2
      "a2 0506  53 426f78  58 4e534f626a656374  d2 0809 0504"                   // 4-7: class names, class
      "5a 24636c6173736e616d65  58 24636c6173736573"                            // 8, 9: $classname, $classes
      "56 24636c617373  8003  d2 020a 030b"                                     // 10-12: $class, UID 3, the box
      "a4 000c0107  d1 0f 10  54 726f6f74  8001"                                // 13-16: $objects, $top, root, UID 1
      "d4 14151617 12130e0d  5f100f 4e534b657965644172636869766572"             // 17, 18: the file, NSKeyedArchiver
      "12 000186a0  59 246172636869766572  58 2476657273696f6e"                 // 19-21: 100000, $archiver, $version
      "54 24746f70  58 246f626a65637473"                                        // 22, 23: $top, $objects
      "080e101618 1b1f282d38 41484a4f54 575c5e6779 7e889196"                    // offsets
      "000000000000 01 01 0000000000000018 0000000000000011 000000000000009f";  // trailer: 24 objects, root 17
  std::erase(expected, ' ');
  EXPECT_EQ(hexOf(core::archive::archived(Box{5}).span()), expected);
}

TEST(KeyedArchive, BringsBackEveryKindOfProperty) {
  const Crate crate = fullCrate();
  const core::Data bytes = core::archive::archived(crate);
  const auto read = core::archive::unarchived<Crate>(bytes.span());
  ASSERT_TRUE(read) << read.error().reason;
  EXPECT_EQ(*read, crate);
  // As plain values: names of classes, nil left out, inherited properties last.
  const auto shown = core::archive::readKeyedArchive(bytes.span());
  ASSERT_TRUE(shown) << shown.error().reason;
  const ValueDictionary& top = *shown->dictionary();
  EXPECT_EQ(*top.find("$class"), Value("Crate"));
  EXPECT_EQ(*top.find("lid"), Value(ValueDictionary{{"$class", "Box"}, {"count", 3}}));
  EXPECT_EQ(*top.find("values"), Value(crate.values));
  EXPECT_EQ((top.end() - 1)->key, "count");
  EXPECT_FALSE(core::archive::readKeyedArchive(core::archive::archived(Crate()).span())->dictionary()->contains("lid"));
  // What the archive does not hold stays.
  const auto kept = core::archive::unarchived(core::archive::archived(Crate()).span(), crate);
  EXPECT_EQ(kept->label, crate.label);
  EXPECT_EQ(kept->lid, crate.lid);
  EXPECT_EQ(kept->any, crate.any);
  EXPECT_TRUE(kept->boxes.empty());
}

TEST(KeyedArchive, ReadsWhatOthersWrite) {
  const Value crateClass = classOf({"BigCrate", "Crate", "Box", "NSObject"});
  const core::Data bytes = archiveOf({
      ValueDictionary{{"$class", Uid{2}},
                      {"label", Uid{3}},
                      {"data", Uid{5}},
                      {"tiny", true},
                      {"full", 1},
                      {"large", Uid{7}},
                      {"texts", Uid{8}},
                      {"names", Uid{10}},
                      {"any", Uid{12}},
                      {"unknown", 1}},
      crateClass,
      ValueDictionary{{"$class", Uid{4}}, {"NS.string", "soft"}},
      classOf({"NSMutableString", "NSString", "NSObject"}),
      ValueDictionary{{"$class", Uid{6}}, {"NS.data", core::Data("d", 1)}},
      classOf({"NSMutableData", "NSData", "NSObject"}),
      -1,
      ValueDictionary{{"$class", Uid{9}}, {"NS.objects", ValueArray{Uid{3}, "inline"}}},
      classOf({"NSMutableArray", "NSArray", "NSObject"}),
      ValueDictionary{{"$class", Uid{11}}, {"NS.keys", ValueArray{"k"}}, {"NS.objects", ValueArray{Uid{3}}}},
      classOf({"NSMutableDictionary", "NSDictionary", "NSObject"}),
      ValueDictionary{{"$class", Uid{13}}, {"NS.objects", ValueArray{Uid{14}, Uid{0}}}},
      classOf({"NSSet", "NSObject"}),
      ValueDictionary{{"$class", classOf({"NSNull", "NSObject"})}},
  });
  const auto read = core::archive::unarchived<Crate>(bytes.span());
  ASSERT_TRUE(read) << read.error().reason;
  Crate expected;
  expected.label = "soft";
  expected.data = core::Data("d", 1);
  expected.tiny = 1;
  expected.full = true;
  expected.large = -1;
  expected.texts = {"soft", "inline"};
  expected.names = {{"k", "soft"}};
  expected.any = ValueArray{Value(), Value()};
  EXPECT_EQ(*read, expected);
}

TEST(KeyedArchive, RefusesWhatItCannotTrust) {
  const auto reasonOf = [](std::span<const std::uint8_t> bytes) -> std::string {
    const auto read = core::archive::unarchived<Crate>(bytes);
    return read ? "" : read.error().reason;
  };
  const auto file = [](ValueDictionary entries) { return core::encodeBinaryPropertyList(std::move(entries)); };
  const std::pair<const char*, core::Data> files[] = {
      {"not a binary property list", core::Data("<plist/>", 8)},
      {"not a keyed archive", core::encodeBinaryPropertyList("NSKeyedArchiver")},
      {"not a keyed archive", file({{"$archiver", "NSArchiver"}})},
      {"a keyed archive of unknown version", file({{"$archiver", "NSKeyedArchiver"}, {"$version", 99999}})},
      {"the archive has no objects", file({{"$archiver", "NSKeyedArchiver"}, {"$version", 100000}})},
      {"the archive has no root object",
       file({{"$archiver", "NSKeyedArchiver"}, {"$version", 100000}, {"$objects", ValueArray{"$null"}}})},
      {"a reference to an object that does not exist", archiveOf({})},
      {"a reference to a reference", archiveOf({Uid{1}})},
      {"an object of the wrong type", archiveOf({"text"})},
      {"an object without a class", archiveOf({ValueDictionary{{"$class", Uid{0}}}})},
      {"an object of the wrong class", archiveOf({ValueDictionary{{"$class", Uid{2}}}, classOf({"Box", "NSObject"})})},
  };
  for (const auto& [reason, bytes] : files) {
    EXPECT_EQ(reasonOf(bytes.span()), reason);
  }
  // Each array holds the next one twice: few bytes, 2^30 items.
  ValueArray bomb{"$null", ValueDictionary{{"$class", classOf({"Crate", "NSObject"})}, {"any", Uid{2}}}};
  for (std::uint32_t next = 3; next < 33; ++next) {
    bomb.append(ValueDictionary{{"$class", classOf({"NSArray"})}, {"NS.objects", ValueArray{Uid{next}, Uid{next}}}});
  }
  bomb.append("x");
  EXPECT_EQ(reasonOf(file({{"$archiver", "NSKeyedArchiver"},
                           {"$version", 100000},
                           {"$top", ValueDictionary{{"root", Uid{1}}}},
                           {"$objects", bomb}})
                         .span()),
            "shared objects multiply beyond measure");
  // One property of a crate that is wrong.
  const Value arrayClass = classOf({"NSArray", "NSObject"});
  const Value mapClass = classOf({"NSDictionary", "NSObject"});
  const struct {
    const char* reason;
    const char* name;
    Value content;
  } properties[] = {
      {"a value that is no text", "label", 5},
      {"an object of the wrong class", "label", ValueDictionary{{"$class", arrayClass}}},
      {"an object without its content", "label", ValueDictionary{{"$class", classOf({"NSMutableString", "NSString"})}}},
      {"a value that is no data", "data", "text"},
      {"a value that is no integer", "large", 0.5},
      {"an integer out of range", "tiny", 128},
      {"an integer out of range", "full", 2},
      {"an object of the wrong type", "texts", ValueArray{"raw"}},
      {"a value that is no array", "texts", ValueDictionary{{"$class", arrayClass}, {"NS.objects", "x"}}},
      {"a value that is no text", "texts", ValueDictionary{{"$class", arrayClass}, {"NS.objects", ValueArray{Uid{0}}}}},
      {"a dictionary with a key too many", "names",
       ValueDictionary{{"$class", mapClass}, {"NS.keys", ValueArray{"k"}}, {"NS.objects", ValueArray{}}}},
      {"a value that is no text", "values",
       ValueDictionary{{"$class", mapClass}, {"NS.keys", ValueArray{1}}, {"NS.objects", ValueArray{1}}}},
      {"objects are too deeply nested, or contain themselves", "any",
       ValueDictionary{{"$class", arrayClass}, {"NS.objects", ValueArray{Uid{3}}}}},
  };
  for (const auto& [reason, name, content] : properties) {
    const core::Data bytes = archiveOf(
        {ValueDictionary{{"$class", Uid{2}}, {name, Uid{3}}}, classOf({"Crate", "Box", "NSObject"}), content});
    EXPECT_EQ(reasonOf(bytes.span()), reason) << name;
  }
}

TEST(KeyedArchive, CutsWhatNestsTooDeeply) {
  Crate crate;
  crate.any = "core";
  for (int level = 0; level < 100; ++level) {
    crate.any = ValueArray{crate.any};
  }
  const auto read = core::archive::unarchived<Crate>(core::archive::archived(crate).span());
  ASSERT_TRUE(read) << read.error().reason;
  const Value* inner = &read->any;
  int levels = 0;
  for (; inner->array() != nullptr; ++levels) {
    inner = &(*inner->array())[0];
  }
  EXPECT_TRUE(inner->isNull());
  EXPECT_EQ(levels, core::archive::kDepth - 1);  // the crate is a level too
}

TEST(KeyedArchive, AnIndependentProgramReadsAndWritesIt) {
  const test::TemporaryDirectory directory;
  const Crate crate = fullCrate();
  const core::Data bytes = core::archive::archived(crate);
  std::ofstream(directory.file("in"), std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  const auto convert = [&](const char* from, const char* format, const char* to) {
    const test::Outcome outcome =
        test::Subprocess::run({"plistutil", "-i", directory.file(from), "-f", format, "-o", directory.file(to)});
    EXPECT_EQ(outcome.exitStatus, 0) << "plistutil (package libplist-utils) is needed here. " << outcome.errors;
    std::ifstream file(directory.file(to), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  const std::string xml = convert("in", "xml", "xml");
  for (const char* piece :
       {"<string>NSKeyedArchiver</string>", "<integer>100000</integer>", "<key>CF$UID</key>",
        "<string>Crate</string>\n\t\t\t\t<string>Box</string>\n\t\t\t\t<string>NSObject</string>"}) {
    EXPECT_NE(xml.find(piece), std::string::npos) << piece << " in " << xml;
  }
  const std::string back = convert("xml", "bin", "back");
  const auto read = core::archive::unarchived<Crate>({reinterpret_cast<const std::uint8_t*>(back.data()), back.size()});
  ASSERT_TRUE(read) << read.error().reason;
  EXPECT_EQ(*read, crate);
}

}  // namespace

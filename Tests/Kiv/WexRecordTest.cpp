#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "Core/Text/Format.h"
#include "Kiv/common/model/zem/ExceptionUpload.h"
#include "Kiv/common/model/zem/KivStrategy.h"
#include "Kiv/common/model/zem/RequestPkg.h"
#include "Kiv/common/model/zem/ResponsePkg.h"
#include "Kiv/common/model/zem/UserInfoPackage.h"
#include "Kiv/common/wex/RequestPacket.h"
#include "Kiv/common/wex/WexDecodeException.h"
#include "Kiv/common/wex/WexFieldReader.h"
#include "Tests/Kiv/WexBytes.h"

namespace {

using namespace analyticsyut;
using test::fromHex;
using test::hex;

/// A visitor that writes one line a field.
class Lines : public WexFieldVisitor {
 public:
  void value(const WexFieldEvent& field) override {
    add("", field);
    core::kiv_append(text_, " %lld %.1f %s\n", field.integer, field.real, hex(field.bytes));
  }
  void begin(const WexFieldEvent& field) override {
    add("", field);
    core::kiv_append(text_, " %lld {\n", field.integer);
  }
  void end(const WexFieldEvent& field) override {
    add("} ", field);
    text_.append("\n");
  }
  std::string text() const { return std::string(text_.view()); }

 private:
  void add(const char* before, const WexFieldEvent& field) {
    core::kiv_append(text_, "%d@%d %s%d:%d", field.depth, field.offset, before, field.head.tag, field.head.type);
  }
  core::StringBuilder text_;
};

/// Fills records with random values, short and long.
class Filler {
 public:
  explicit Filler(unsigned seed) : random_(seed) {}

  template <class T>
  void operator()(T& value) {
    if constexpr (WexRecord<T>) {
      forEachField(value, [this](std::string_view, std::uint8_t, auto& field) { (*this)(field); });
    } else if constexpr (std::is_same_v<T, bool>) {
      value = pick(2) == 1;
    } else {
      value = static_cast<T>(random_() >> pick(64));
    }
  }
  void operator()(core::String& text) { text = core::String(bytes()); }
  void operator()(core::Data& data) {
    const std::string filled = bytes();
    data = core::Data(filled.data(), filled.size());
  }
  template <class T>
  void operator()(core::Array<T>& list) {
    for (std::size_t left = pick(4); left != 0; --left) {
      (*this)(list.emplace());
    }
  }
  template <class V>
  void operator()(core::SortedMap<V>& map) {
    for (std::size_t left = pick(4); left != 0; --left) {
      (*this)(map[bytes()]);
    }
  }
  std::size_t pick(std::size_t below) { return static_cast<std::size_t>(random_() % below); }

 private:
  std::string bytes() {
    std::string text(pick(8) == 0 ? pick(600) : pick(20), '\0');
    std::generate(text.begin(), text.end(), [this] { return static_cast<char>(random_()); });
    return text;
  }
  std::mt19937_64 random_;
};

/// Calls `work` with a new record of each kind.
template <class Work>
void withEachRecord(Work work) {
  work(kiv::RequestPkg());
  work(kiv::ResponsePkg());
  work(kiv::UserInfoPackage());
  work(kiv::SummaryInfo());
  work(kiv::ExceptionUpload());
  work(kiv::AppInfo());
  work(kiv::Attachment());
  work(kiv::AppSession());
  work(kiv::KivStrategy());
  work(kiv::KivSecurity());
  work(RequestPacket());
}

TEST(WexRecord, WritesEveryFieldUnderItsTag) {
  const std::string app = "06 00 16 00 26 00 36 00 46 00 58 0C 0B";
  const std::map<std::string, std::string> defaults = {
      {"kiv.RequestPkg",
       "0A 0C 16 00 26 00 36 00 46 00 56 00 6C 7D 00 0C 86 00 96 00 A8 0C B6 00 CC D6 00 E6 00 F6 0F 00 FC 10 F6 11 00 "
       "F6 12 00 F6 13 00 F6 14 00 F6 15 00 F6 16 00 F6 17 00 0B"},
      {"kiv.ResponsePkg", "0A 0C 1C 2D 00 0C 36 00 4C 56 00 66 00 0B"},
      {"kiv.UserInfoPackage", "0A 0C 16 00 26 00 39 0C 48 0C 0B"},
      {"kiv.SummaryInfo", "0A 0C 1C 26 00 36 00 46 00 58 0C 66 00 70 01 0B"},
      {"kiv.ExceptionUpload",
       "0A 06 00 1C 26 00 36 00 46 00 56 00 66 00 78 0C 86 00 9A 06 00 19 0C 0B AC B6 00 C6 00 DA " + app +
           " E9 0C F9 0F 0C F9 10 0C F8 11 0C F8 12 0C F6 13 00 FC 14 0B"},
      {"kiv.AppInfo", "0A " + app},
      {"kiv.Attachment", "0A 0C 16 00 2D 00 0C 0B"},
      {"kiv.AppSession", "0A 06 00 19 0C 0B"},
      {"kiv.KivStrategy", "0A 0C 1C 2C 36 00 46 00 5A 06 00 16 00 0B 68 0C 7C 86 00 96 00 0B"},
      {"kiv.KivSecurity", "0A 06 00 16 00 0B"},
      {"analyticsyut.RequestPacket", "0A 1C 2C 3C 4C 56 00 66 00 7D 00 0C 8C 98 0C A8 0C 0B"},
  };
  withEachRecord([&](auto record) {
    const std::string name(record.kTypeName);
    WexOutputStream out;
    out.write(record, 0);
    EXPECT_EQ(hex(out.span()), defaults.at(name)) << name;
    const auto untouched = record;
    Filler filler(1);
    filler(record);
    EXPECT_FALSE(record == untouched) << name;
    record.resetDefautlt();
    EXPECT_TRUE(record == untouched) << name;
  });
}

TEST(WexRecord, ReadsWhatIsThereAndPassesOverWhatIsNewer) {
  // Tag 2 and 6 missing, tags 9 and 20 unknown.
  const auto input = fromHex("0A 00 FF 11 01 FE 36 01 67 43 00 00 01 8B CF E5 68 00 56 02 4F 4B 9A 0C 0B FC 14 0B");
  kiv::ResponsePkg response;
  response.vorin = "kept";
  WexInputStream stream(input);
  stream.read(response, 0, true);
  EXPECT_EQ(stream.left(), 0U);
  EXPECT_EQ(response.result, -1);
  EXPECT_EQ(response.cmd, 510);
  EXPECT_TRUE(response.sBuffer.empty());
  EXPECT_EQ(response.gateWayIp, "g");
  EXPECT_EQ(response.serverTime, 1700000000000);
  EXPECT_EQ(response.status, "OK");
  EXPECT_EQ(response.vorin, "kept");

  const auto missing = fromHex("0A 1C 0B");
  EXPECT_EQ(test::messageOf<WexDecodeException>([&] { WexInputStream(missing).read(response, 0, true); }),
            "require field not exist, tag: 0.");
}

TEST(WexRecord, ComesBackFromItsBytes) {
  WexInputStream::setWarningSink([](std::string_view) {});
  for (unsigned seed = 0; seed < 60; ++seed) {
    withEachRecord([seed](auto record) {
      SCOPED_TRACE(std::string(record.kTypeName) + " " + std::to_string(seed));
      Filler filler(seed);
      filler(record);
      WexOutputStream out;
      out.write(record, 200);
      decltype(record) back;
      WexInputStream in(out.span());
      in.read(back, 200, true);
      EXPECT_TRUE(back == record);
      Lines lines;
      const WexFieldReader::Outcome outcome = WexFieldReader::read(out.span(), lines);
      EXPECT_EQ(outcome.error, "");
      EXPECT_EQ(outcome.offset, out.length());

      const auto cut = out.span().first(filler.pick(out.length()));
      EXPECT_NE(test::messageOf<WexDecodeException>([&] { WexInputStream(cut).read(back, 200, true); }), "");
      EXPECT_EQ(WexFieldReader::read(cut, lines).error.empty(), cut.empty());
    });
  }
  WexInputStream::setWarningSink(nullptr);
}

TEST(WexFieldReader, TellsWhatIsInAnyStream) {
  const auto input = fromHex(
      "00 FF 11 80 00 22 00 01 00 00 33 80 00 00 00 00 00 00 00 44 3F 80 00 00 55 C0 00 00 00 00 00 00 00 "
      "66 01 61 77 00 00 00 01 62 88 00 01 06 01 6B 1A 0C 0B 99 00 02 0C 00 05 DC ED 00 00 01 FF");
  Lines lines;
  const WexFieldReader::Outcome outcome = WexFieldReader::read(input, lines);
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.offset, input.size());
  EXPECT_EQ(lines.text(),
            "0@0 0:0 -1 0.0 \n0@2 1:1 -32768 0.0 \n0@5 2:2 65536 0.0 \n0@10 3:3 -9223372036854775808 0.0 \n"
            "0@19 4:4 0 1.0 \n0@24 5:5 0 -2.0 \n0@33 6:6 0 0.0 61\n0@36 7:7 0 0.0 62\n"
            "0@42 8:8 1 {\n1@45 0:6 0 0.0 6B\n1@48 1:10 0 {\n2@49 0:12 0 0.0 \n1@48 } 1:10\n0@42 } 8:8\n"
            "0@51 9:9 2 {\n1@54 0:12 0 0.0 \n1@55 0:0 5 0.0 \n0@51 } 9:9\n0@57 13:12 0 0.0 \n0@58 14:13 0 0.0 FF\n");
}

TEST(WexFieldReader, TellsWhereAndWhyABrokenStreamEnds) {
  std::string deep;
  for (int i = 0; i < 65; ++i) {
    deep += "0A ";
  }
  const std::tuple<std::string, std::size_t, const char*> cases[] = {
      {"0C", 1, ""},
      {"0C 16 05 61", 3, "buffer overflow when peekBuf, over 4."},
      {"0A 0C", 2, "buffer overflow when peekBuf with offset, over 2."},
      {"1C 0B", 2, "struct end without a struct."},
      {"0E", 1, "skipField with invalid type, type value:14."},
      {"09 00 02 0C 0B", 5, "struct end among the elements, 1 of 2."},
      {"09 00 FF", 3, "invalid size, size: -1"},
      {"09 10 01", 1, "require field not exist, tag: 0"},
      {"08 03", 1, "read 'Int32' type mismatch, tag: 0, get type: 3."},
      {"0D 01", 1, "type mismatch, tag: 0, type: 13, 1"},
      {"0D 00 02 7F FF FF FF 00", 7, "buffer overflow when peekBuf, over 8."},
      {deep, 65, "invalid nesting, over 64 levels."},
  };
  for (const auto& [bytes, offset, error] : cases) {
    Lines lines;
    const auto input = fromHex(bytes);
    const WexFieldReader::Outcome outcome = WexFieldReader::read(input, lines);
    EXPECT_EQ(outcome.offset, offset) << bytes;
    EXPECT_EQ(outcome.error, error) << bytes;
  }
}

TEST(SortedMap, IsAnOrderedMapThatKeepsTheFirst) {
  std::mt19937 random(7);
  core::SortedMap<int> map;
  std::map<std::string, int> expected;
  core::Array<core::SortedMap<int>::Entry> entries;
  for (int i = 0; i < 500; ++i) {
    const std::string key(random() % 3, static_cast<char>(random()));
    EXPECT_EQ(map.insert(key, i), expected.emplace(key, i).second);
    entries.append({key, i});
  }
  const auto same = [](const auto& a, const auto& b) { return a.key == b.first && a.value == b.second; };
  EXPECT_TRUE(std::equal(map.begin(), map.end(), expected.begin(), expected.end(), same));
  EXPECT_TRUE(map == core::SortedMap<int>(std::move(entries)));
  for (const auto& [key, value] : expected) {
    EXPECT_EQ(*map.find(key), value);
    EXPECT_EQ(map.find(key + "???"), nullptr);
  }
  core::Dictionary<int> dictionary = {{"b", 2}, {"\xff", 3}, {"a", 1}};
  EXPECT_EQ(map = core::SortedMap<int>(dictionary), (core::SortedMap<int>{{"a", 1}, {"b", 2}, {"\xff", 3}}));
  map["b"] = 5;
  EXPECT_EQ(*map.find("b"), 5);
}

}  // namespace

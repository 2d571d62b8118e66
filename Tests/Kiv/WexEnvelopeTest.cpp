#include <gtest/gtest.h>

#include "Kiv/common/model/zem/RequestPkg.h"
#include "Kiv/common/model/zem/ResponsePkg.h"
#include "Kiv/common/wex/UniPacket.h"
#include "Kiv/common/wex/WexDecodeException.h"
#include "Tests/Kiv/WexBytes.h"

namespace {

using analyticsyut::WexDecodeException;
using analyticszem::UniPacket;
using test::fromHex;
using test::hex;

UniPacket& decode(UniPacket& packet, const std::string& text) {
  const auto bytes = fromHex(text);
  packet.decode(bytes.data(), bytes.size());
  return packet;
}

/// A response whose attributes are `attributes`, of less than 128 bytes. The length in front is wrong.
std::string response(const std::string& attributes) {
  const std::uint8_t size[] = {static_cast<std::uint8_t>(fromHex(attributes).size())};
  return "FF FF FF FF 10 01 2C 3C 41 12 34 56 01 73 66 01 66 7D 00 00 " + hex(size) + " " + attributes +
         " 8C 98 00 01 06 01 63 16 01 64 A8 0C";
}

const std::string kTypeName = "06 0F 6B 69 76 2E 52 65 73 70 6F 6E 73 65 50 6B 67 ";  // "kiv.ResponsePkg"
const std::string kDetail = "08 00 01 06 06 64 65 74 61 69 6C 18 ";                   // one attribute, "detail"
const std::string kRecord = "1D 00 00 0B 0A 0C 11 01 FE 66 03 56 2D 31 0B";           // command 510, vorin "V-1"

TEST(UniPacket, WritesARequest) {
  kiv::RequestPkg record;
  record.platformId = 4;
  record.productId = "p";
  record.cmd = 630;
  const std::uint8_t payload[] = {0xAA};
  record.sBuffer = core::Data(payload);
  record.reserved = {{"k", "v"}};
  UniPacket packet;
  packet.servantName = "s";
  packet.funcName = "f";
  packet.requestId = 1;
  packet.put("detail", record);
  const std::string expected =
      "00 00 00 80 "                                               // 128 bytes
      "10 02 2C 3C 40 01 56 01 73 66 01 66 7D 00 00 67 "           // version to function; 103 bytes of attributes
      "08 00 01 06 06 64 65 74 61 69 6C "                          // one attribute, "detail"
      "18 00 01 06 0E 6B 69 76 2E 52 65 71 75 65 73 74 50 6B 67 "  // of one type, "kiv.RequestPkg"
      "1D 00 00 45 "                                               // 69 bytes of record
      "0A 00 04 16 01 70 26 00 36 00 46 00 56 00 61 02 76 7D 00 00 01 AA 86 00 96 00 A8 00 01 06 01 6B 16 01 76 "
      "B6 00 CC D6 00 E6 00 F6 0F 00 FC 10 F6 11 00 F6 12 00 F6 13 00 F6 14 00 F6 15 00 F6 16 00 F6 17 00 0B "
      "8C 98 0C A8 0C";
  EXPECT_EQ(hex(packet.encode().span()), expected);
  EXPECT_EQ(hex(packet.encode().span()), expected) << "once more";

  UniPacket back;
  EXPECT_TRUE(decode(back, expected).get<kiv::RequestPkg>("detail") == record);
}

TEST(UniPacket, ReadsAResponse) {
  for (const std::string& type : {kTypeName, std::string("06 01 3F ")}) {
    UniPacket packet;
    packet.put("old", kiv::RequestPkg());
    const auto record = decode(packet, response(kDetail + "00 01 " + type + kRecord)).get<kiv::ResponsePkg>("detail");
    EXPECT_EQ(record.cmd, 510);
    EXPECT_EQ(record.vorin, "V-1");
    EXPECT_EQ(packet.version, 1);
    EXPECT_EQ(packet.requestId, 0x1234);
    EXPECT_EQ(*packet.context.find("c"), "d");
    EXPECT_EQ(packet.attributes().size(), 1U);
    packet.put("detail", kiv::RequestPkg());
    EXPECT_EQ(packet.attributes().find("detail")->size(), 2U) << "the other type stays";
  }
}

TEST(UniPacket, TellsWhyThereIsNoRecord) {
  const std::string other = "06 01 61 ";  // "a"
  const std::pair<std::string, const char*> cases[] = {
      {"00 00 00", "packet length too short"},
      {"00 00 00 04", "require field not exist, tag: 1"},
      {"00 00 00 06 10 02", "require field not exist, tag: 4"},
      {response(""), "require field not exist, tag: 0"},
      {response("08 0C"), "UniAttribute not found key:detail,type:kiv.ResponsePkg"},
      {response(kDetail + "0C"), "UniAttribute type match fail,key:detail,type:kiv.ResponsePkg,"},
      {response(kDetail + "00 02 " + other + "1D 00 0C 06 01 3F " + kRecord), ""},
      {response(kDetail + "00 02 06 01 62 " + kRecord + " " + other + "1D 00 0C"),
       "UniAttribute type match fail,key:detail,type:kiv.ResponsePkg,may be:a"},
      {response(kDetail + "00 01 " + kTypeName + "1D 00 0C"), "require field not exist, tag: 0"},
  };
  analyticsyut::WexInputStream::setWarningSink([](std::string_view) {});
  for (const auto& [bytes, message] : cases) {
    UniPacket packet;
    EXPECT_EQ(test::messageOf<std::runtime_error>(
                  [&, text = bytes] { decode(packet, text).get<kiv::ResponsePkg>("detail"); }),
              message)
        << bytes;
  }
  analyticsyut::WexInputStream::setWarningSink(nullptr);
}

TEST(UniPacket, WantsServantAndFunction) {
  UniPacket packet;
  EXPECT_EQ(test::messageOf<std::runtime_error>([&] { packet.encode(); }), "ServantName must not be empty");
  packet.servantName = "s";
  EXPECT_EQ(test::messageOf<std::runtime_error>([&] { packet.encode(); }), "FuncName must not be empty");
}

}  // namespace

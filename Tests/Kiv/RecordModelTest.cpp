#include <gtest/gtest.h>
#include <stdlib.h>

#include "Core/Text/Format.h"
#include "Kiv/common/KivProtocolDataRegister.h"
#include "Kiv/common/model/KivExceptionUploadPackage.h"
#include "Kiv/common/model/KivLocalStrategy.h"
#include "Kiv/common/model/KivRequestPackage.h"
#include "Kiv/common/model/KivResponsePackage.h"
#include "Kiv/common/model/KivUserInfoPackage.h"
#include "Kiv/common/network/KivCollectEndpoint.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/persist/KivCrashMetaData.h"
#include "Tests/Kiv/WexBytes.h"
#include "Tests/Support/LogCapture.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

using core::Value;
using core::ValueDictionary;
using Map = core::SortedMap<core::String>;

/// The library's log at a level while it lives.
class RecordModel : public testing::Test {
 protected:
  RecordModel() { kiv_log_level = 4; }
  ~RecordModel() override { kiv_log_level = 0; }
  test::LogCapture log_;
};

/// The default model, with files of its own for this program.
KivModelBase& model() {
  static const test::TemporaryDirectory home;
  static const bool isolated =
      ::setenv("HOME", home.path().c_str(), 1) == 0 && ::setenv("XDG_DATA_HOME", home.path().c_str(), 1) == 0;
  EXPECT_TRUE(isolated);
  return KivModelBase::getDefualtAnaModel();
}

KivAppInfo sampleApp() {
  return {"probe", "x86_64", "ABCD", "0x1000", "1.0(1)", "0x2fff", "/bin/probe"};
}

KivExpObj sampleCrash() {
  KivExpObj crash;
  crash.time = 1520000000123;
  crash.setHash("0123ABCD");
  crash.crashType = "100";
  crash.cashTime = 1520000000456;
  crash.exceptionType = "SIGSEGV";
  crash.causedBy = "nil";
  crash.excepitonAddress = "0x10";
  crash.threadName = "0";
  crash.callStack = "0 probe\n";
  crash.allStacks = {{"1|b", "two"}, {"0|a", "one"}};
  crash.expUid = "U-1";
  crash.sessionInfo = KivAppSession{"S-1", {"start", "click"}};
  crash.userId = "user";
  crash.deviceId = "device";
  crash.appInfo = sampleApp();
  crash.appInfoList = {sampleApp(), KivAppInfo{"libc", {}, {}, {}, {}, {}, {}}};
  crash.attachmentList = {{KivExpAttachment::kLogType, "crash.log", core::Data("log", 3)}};
  crash.valueMap = {{"A24", "6.1"}};
  crash.userMap = {{"k", "v"}};
  crash.gatewayIp = "10.0.0.1";
  return crash;
}

KivSummaryInfo sampleSummary() {
  KivSummaryInfo summary;
  summary.startTime = 128;
  summary.startType = 2;
  summary.userid = "u";
  summary.proc = "p";
  summary.sessionId = "128";
  summary.valueMap = {{"F07", "1"}};
  summary.gatewayIp = "g";
  summary.coldStart = 0;
  return summary;
}

core::Data strategyPayload(const kiv::KivStrategy& record) {
  analyticsyut::WexOutputStream out;
  out.write(record, 0);
  return out.data();
}

kiv::KivStrategy sampleStrategy() {
  kiv::KivStrategy record;
  record.enable = true;
  record.queryEnable = true;
  record.url = "http://a";
  record.expUrl = "http://b";
  record.security.encKey = "12345678";
  record.security.encPubKey = "abcdefgh";
  record.valueMap["B2"] = "1";
  record.strategylastUpdateTime = 77;
  record.httpsUrl = "https://c";
  record.httpsExpUrl = "https://d";
  return record;
}

KivLocalStrategy read(const core::Data& payload) {
  KivLocalStrategy strategy;
  analyticsyut::WexInputStream reader(payload.span());
  strategy.initLocalObjWithZemBuffer(reader);
  return strategy;
}

template <class Model>
void expectKept(Model model) {
  const core::Data data = model.encodeData();
  Model back;
  EXPECT_TRUE(back.setEncodeData(data.span())) << testing::PrintToString(test::LogCapture::take());
  EXPECT_TRUE(back == model) << Model::kClassName;
}

TEST_F(RecordModel, StoredModelsComeBackWhole) {
  KivExpObj crash = sampleCrash();
  const core::Data data = crash.encodeData();
  EXPECT_EQ(crash.encLen, static_cast<std::int64_t>(data.size()));
  KivExpObj back;
  EXPECT_TRUE(back.setEncodeData(data.span()));
  EXPECT_EQ(back, crash);  // encLen among them: the length of what was read
  EXPECT_EQ(back.hash(), "0123ABCD");
  expectKept(sampleCrash());
  expectKept(sampleSummary());
  expectKept(KivExpObj());
  expectKept(KivCrashMetaData{"H", ".crash_2018-03-05-14-03-09.data", 1520000000123, true, true});
  KivLocalStrategy strategy = read(strategyPayload(sampleStrategy()));
  strategy.valueMap.set("B1", ValueDictionary{{"deep", true}});
  expectKept(strategy);
  EXPECT_EQ(test::LogCapture::take().size(), 1U);  // the strategy's own line
}

TEST_F(RecordModel, ArchivesBearTheNamesOfClassesAndProperties) {
  const auto shown =
      core::archive::readKeyedArchive(KivCrashMetaData{"H", std::nullopt, 5, true, false}.encodeData().span());
  EXPECT_EQ(*shown,
            Value(ValueDictionary{
                {"$class", "KivCrashMetaData"}, {"md5", "H"}, {"time", 5}, {"hasNew", true}, {"uplaoded", false}}));
  const auto summary = core::archive::readKeyedArchive(KivSummaryInfo().encodeData().span());
  EXPECT_EQ(*summary, Value(ValueDictionary{{"$class", "KivSummaryInfo"},
                                            {"startTime", 0},
                                            {"startType", 0},
                                            {"valueMap", ValueDictionary()},
                                            {"coldStart", 1},
                                            {"time", 0},
                                            {"dcount", 0},
                                            {"encLen", 0}}));
}

TEST_F(RecordModel, BrokenArchivesChangeNothingAndAreLogged) {
  KivExpObj crash = sampleCrash();
  const KivExpObj before = crash;
  EXPECT_FALSE(crash.setEncodeData({}));
  EXPECT_TRUE(test::LogCapture::tookOne("<WARN> <KIV> data is nil, can not instance KivExpObj"));
  KivCrashMetaData entry;
  EXPECT_FALSE(entry.setEncodeData({}));
  EXPECT_TRUE(test::LogCapture::tookOne("<WARN> <KIV> data is nil, can not instance KivCrashMetaData"));
  const core::Data other = sampleSummary().encodeData();
  EXPECT_FALSE(crash.setEncodeData(other.span()));
  EXPECT_TRUE(
      test::LogCapture::tookOne("<ERROR> <KIV> got NSInvalidUnarchiveOperationException in KivPersistObject "
                                "setEncodeData for an object of the wrong class"));
  EXPECT_FALSE(entry.setEncodeData(other.span().first(40)));
  EXPECT_TRUE(
      test::LogCapture::tookOne("<ERROR> <KIV> got NSInvalidUnarchiveOperationException in KivCrashMetaData "
                                "setEncodeData for "));
  const core::Data good = sampleCrash().encodeData();
  for (std::size_t size = 1; size < good.size(); ++size) {
    EXPECT_FALSE(crash.setEncodeData(good.span().first(size))) << size;
    EXPECT_TRUE(test::LogCapture::tookOne("<ERROR> <KIV> got ")) << size;
  }
  EXPECT_EQ(crash, before);
  std::vector<std::uint8_t> damaged(good.data(), good.data() + good.size());
  for (std::uint8_t& byte : damaged) {
    const auto held = std::exchange(byte, static_cast<std::uint8_t>(~byte));
    KivExpObj any;
    const bool taken = any.setEncodeData(damaged);
    EXPECT_NE(test::LogCapture::tookOne("<ERROR> <KIV> got "), taken);
    byte = held;
  }
}

TEST_F(RecordModel, CrashesFillTheirRecords) {
  kiv::AppInfo app;
  app.processName = "probe";
  app.cpuArchVersion = "x86_64";
  app.processUUID = "ABCD";
  app.processBaseAddr = "0x1000";
  app.version = "1.0(1)";
  app.valueMap["A39"] = "0x2fff";
  app.valueMap["A40"] = "/bin/probe";
  kiv::AppInfo library;
  library.processName = "libc";
  kiv::Attachment log;
  log.type = 11;
  log.fileName = "crash.log";
  log.data = core::Data("log", 3);
  kiv::ExceptionUpload expected;
  expected.crashType = "100";
  expected.cashTime = 1520000000456;
  expected.exceptionType = "SIGSEGV";
  expected.causedBy = "nil";
  expected.excepitonAddress = "0x10";
  expected.threadName = "0";
  expected.callStack = "0 probe\n";
  expected.allStacks = Map({{"0|a", "one"}, {"1|b", "two"}});
  expected.expUid = "U-1";
  expected.sessionInfo.sessionId = "S-1";
  expected.sessionInfo.events = {"start", "click"};
  expected.dcount = 1;
  expected.userId = "user";
  expected.deviceId = "device";
  expected.appInfo = app;
  expected.appInfoList = {app, library};
  expected.attachmentList = {log};
  expected.valueMap = Map({{"A24", "6.1"}});
  expected.userMap = Map({{"k", "v"}});
  expected.gatewayIp = "10.0.0.1";
  kiv::ExceptionUpload record;
  sampleCrash().createZEMModel(record);
  EXPECT_EQ(record, expected);
  EXPECT_EQ(sampleApp().description(), "0x1000 probe x86_64 <ABCD> /bin/probe");
}

TEST_F(RecordModel, UploadPackagesWriteTheirRecords) {
  KivUserInfoPackage package;
  package.type = 1;
  package.deviceId = "d";
  package.summaryInfos = {KivSummaryInfo(), sampleSummary()};
  package.valueMap = {{"A2", "9"}};
  analyticsyut::WexOutputStream out;
  package.setDataToBuffer(&out);
  EXPECT_EQ(test::hex(out.span()),
            "0A 00 01 16 01 64 26 00 39 00 02 "
            "0A 0C 1C 26 00 36 00 46 00 58 0C 66 00 70 01 0B "
            "0A 01 00 80 10 02 26 01 75 36 01 70 46 03 31 32 38 58 00 01 06 03 46 30 37 16 01 31 66 01 67 7C 0B "
            "48 00 01 06 02 41 32 16 01 39 0B");
  KivExceptionUploadPackage crashes;
  crashes.list = {KivExpObj()};
  out.clear();
  crashes.setDataToBuffer(&out);
  EXPECT_EQ(test::hex(out.span()),
            "09 00 01 0A 06 00 1C 26 00 36 00 46 00 56 00 66 00 78 0C 86 00 9A 06 00 19 0C 0B A0 01 B6 00 C6 00 "
            "DA 06 00 16 00 26 00 36 00 46 00 58 0C 0B E9 0C F9 0F 0C F9 10 0C F8 11 0C F8 12 0C F6 13 00 FC 14 0B");
  package.setDataToBuffer(nullptr);
  EXPECT_TRUE(test::LogCapture::tookOne("<ERROR> <KIV> KivUserInfoPackage setDataToBuffer meet nil jout"));
  crashes.setDataToBuffer(nullptr);
  EXPECT_TRUE(test::LogCapture::tookOne("<ERROR> <KIV> KivExceptionUploadPackage setDataToBuffer meet nil jout"));
  const std::string summary =
      "Summary :\nuser id : u \nprocess : p \nstarttype : 2 \nstarttime : 128 \ncolodstart: 0\nValueMap:{\n"
      "    F07 = 1;\n}\n";
  EXPECT_EQ(sampleSummary().description(), summary);
  package.summaryInfos = {};
  EXPECT_EQ(package.description(),
            "UserInfo :\ndevice id : d \nprocess : (null) \nvalueMap : {\n    A2 = 9;\n} \nsummary : (\n)");
}

TEST_F(RecordModel, RequestsTellWhoReports) {
  KivModelBase& facts = model();
  facts.setAppId("APP");
  facts.setBundleId("com.example.app");
  facts.setAppVersion("2.0(7)");
  facts.setChannel("store");
  facts.setSdkVersion("2.2.1.5");
  facts.setHardwareModel("Desktop1,1");
  facts.setOsVer("Mac OS X 6.1.0");
  facts.addExtraValue(core::String("v"), core::String("k"));
  facts.setSessionId("S-1");
  facts.setOpenudid("OPEN");
  facts.setVorin("VORIN");
  facts.setIdfv("IDFV");
  KivRequestPackage::setStrategyTimeSource([]() noexcept { return std::int64_t{1234567}; });
  auto payload = std::make_shared<KivExceptionUploadPackage>();
  payload->list = {KivExpObj()};
  kiv::RequestPkg record;
  KivRequestPackage::createPackageForBlockData(payload).createZEMModel(record);
  KivRequestPackage::setStrategyTimeSource(nullptr);
  kiv::RequestPkg expected;
  expected.platformId = 4;
  expected.productId = "APP";
  expected.bundleId = "com.example.app";
  expected.productVersion = "2.0(7)";
  expected.channel = "store";
  expected.sdkVersion = "2.2.1.5";
  expected.cmd = 630;
  analyticsyut::WexOutputStream encoded;
  payload->setDataToBuffer(&encoded);
  expected.sBuffer = encoded.data();
  expected.model = "Desktop1,1";
  expected.hardwareOs = "Mac OS X 6.1.0";
  expected.reserved = Map({{"C04_SDK_k", "v"}});
  expected.sessionId = "S-1";
  expected.strategylastUpdateTime = 1234567;
  expected.deviceId = "OPEN";
  expected.apn = "unknown";
  expected.vorin = "VORIN";
  expected.idfv = "IDFV";
  EXPECT_EQ(record, expected);
  kiv::RequestPkg bare;
  KivRequestPackage::initWithData(facts, 640, nullptr).createZEMModel(bare);
  EXPECT_EQ(bare.cmd, 640);
  EXPECT_TRUE(bare.sBuffer.empty());
  EXPECT_EQ(bare.strategylastUpdateTime, 0);
}

TEST_F(RecordModel, ResponsesBringTheObjectOfTheirCommand) {
  auto& registry = KivProtocolDataRegister::sharedInstance();
  kiv::ResponsePkg record;
  record.result = -3;
  record.cmd = 510;
  record.gateWayIp = "10.0.0.2";
  record.serverTime = 1520000000000;
  record.vorin = "V";
  record.sBuffer = strategyPayload(sampleStrategy());
  // No class yet; then one that responses cannot bring, which leaves the registry as it was.
  EXPECT_EQ(KivResponsePackage::responsePackageWithZEMModel(record).sBuffer, nullptr);
  EXPECT_EQ(test::LogCapture::take().back(),
            "<ERROR> <KIV> SDK internal err, not regist response analyze for type 510");
  registry.registResponseObjectType(KivModelClass::of<KivSummaryInfo>(), 510);
  EXPECT_TRUE(
      test::LogCapture::tookOne("<ERROR> <KIV> KivProtocolDataRegister::: clazz KivSummaryInfo did not "
                                "implemnt protocol KivLocalObjInitWithZemProtocol"));
  registry.registResponseObjectType(std::nullopt, 510);
  EXPECT_FALSE(registry.getResponseObjectType(510));
  registry.registResponseObjectType(KivModelClass::of<KivLocalStrategy>(), 510);
  EXPECT_EQ(registry.getResponseObjectType(510)->name, "KivLocalStrategy");
  test::LogCapture::take();

  const KivResponsePackage response = KivResponsePackage::responsePackageWithZEMModel(record);
  const std::vector<std::string> lines = test::LogCapture::take();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0], "<INFO> <KIV> ResponsePackage: result=-3, cmd=510, vorin=V, status=");
  EXPECT_EQ(lines[1],
            "<INFO> <KIV> ResponsePackage.sBuffer: [1, 0, 1], 77, url=http://a, expUrl=http://b, "
            "httpsUrl=https://c, httpsExpUrl=https://d");
  EXPECT_EQ(response.result, -3);
  EXPECT_EQ(response.cmd, 510);
  EXPECT_EQ(response.gateWayIp, "10.0.0.2");
  EXPECT_EQ(response.serverTime, 1520000000000);
  EXPECT_EQ(response.status, std::nullopt);
  EXPECT_EQ(response.vorin, "V");
  const auto* strategy = dynamic_cast<const KivLocalStrategy*>(response.sBuffer.get());
  ASSERT_NE(strategy, nullptr);
  EXPECT_TRUE(strategy->isEqual(read(record.sBuffer)));

  record.sBuffer = {};
  EXPECT_EQ(KivResponsePackage::responsePackageWithZEMModel(record).sBuffer, nullptr);
  record.cmd = 0;
  record.sBuffer = strategyPayload(sampleStrategy());
  EXPECT_EQ(KivResponsePackage::responsePackageWithZEMModel(record).sBuffer, nullptr);
}

TEST_F(RecordModel, StrategiesReplaceTheDefaultsWhole) {
  const auto textOf = [](const KivLocalStrategy& of) {
    return core::kiv_format("%@%@%@ [%@] [%@] %@ %@ %@ %@ %@ %@", of.enable, of.userInfoEnable, of.queryEnable, of.url,
                            of.expUrl, of.encKey, of.encPubKey, of.valueMap, of.strategylastUpdateTime, of.httpsUrl,
                            of.httpsExpUrl);
  };
  const KivLocalStrategy fresh;
  EXPECT_EQ(textOf(fresh), core::kiv_format("111 [] [] Q7#v!Kp2 M(&T#T&) {\n    B1 = 1;\n} 0 %@ %@",
                                            KivCollectEndpoint::url(), KivCollectEndpoint::url()));
  const KivLocalStrategy received = read(strategyPayload(sampleStrategy()));
  EXPECT_EQ(textOf(received), "101 [http://a] [http://b] 12345678 abcdefgh {\n    B2 = 1;\n} 77 https://c https://d");
  EXPECT_FALSE(received.isEqual(fresh));
  KivLocalStrategy stored = received;
  stored.time = 5;
  EXPECT_TRUE(stored.isEqual(received));
  analyticsyut::WexOutputStream bare;
  sampleStrategy().writeTo(bare);
  EXPECT_TRUE(read(bare.data()).isEqual(received));

  // Without its second flag, and with nothing at all.
  test::LogCapture::take();
  EXPECT_TRUE(read(core::Data("\x0a\x0c\x2c\x0b", 4)).isEqual(fresh));
  EXPECT_TRUE(
      test::LogCapture::tookOne("<ERROR> <KIV> strategy processing occur error: require field not exist, tag: 1."));
  EXPECT_TRUE(read({}).isEqual(fresh));
  EXPECT_TRUE(test::LogCapture::tookOne("<ERROR> <KIV> strategy processing occur error: buffer overflow"));
}

TEST_F(RecordModel, StrategiesSayWhatTheyAllow) {
  model().setStrategyStatus("NOT_REGISTER");
  KivLocalStrategy strategy;
  EXPECT_EQ(strategy.description(),
            "StrategyUpdateTime: 0, Crash Report Enable: YES, Block Monitor Enable: YES, Analytics Enable: YES, ");
  strategy.enable = false;
  strategy.strategylastUpdateTime = 77;
  strategy.valueMap = {{"B1", "0"}};
  EXPECT_EQ(strategy.description(),
            "StrategyUpdateTime: 77, Crash Report Enable: NO, Block Monitor Enable: NO, Analytics Enable: YES, "
            "\nInfomation:Appid is not registered,register your app at www.velmora.example\n\n");
  EXPECT_EQ(strategy.debugDescription(), "77 NO NO YES");
  EXPECT_EQ(KivLocalStrategy::reasonDesc("IN_BLACK_LIST"),
            "Appid is in black list,please contact www.velmora.example for more infomation");
  EXPECT_EQ(KivLocalStrategy::reasonDesc("VERSION_DELETE"),
            "Current App Version is deleted,please contact www.velmora.example for more infomation");
  EXPECT_EQ(KivLocalStrategy::reasonDesc(""), "Unknown Reason");
}

}  // namespace

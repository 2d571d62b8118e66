#include <gtest/gtest.h>

#include <string>

#include "Kiv/common/utils/KivLog.h"
#include "Kiv/compat/KivCustomizedException.h"
#include "Kiv/crashhandler/persist/CrashRecord.h"
#include "Kiv/crashhandler/persist/CrashSettings.h"
#include "Tests/Support/LogCapture.h"

namespace {

using Text = std::optional<core::String>;

core::Shared<KivCrashAddrInfo> frame(std::uint64_t offset, const char* line) {
  KivCrashAddrInfo made;
  made.moduleName = core::String("app");
  made.offset = offset;
  made.lineStr = core::String(line);
  return core::Shared(std::move(made));
}

/// A null write on thread 3, two frames deep.
class Crash {
 public:
  Crash() {
    KivThreadInfo thread;
    thread.threadIndex = 3;
    thread.threadStacks = {frame(16, "decode + 4"), frame(256, "objc_msgSend + 1")};
    data.setCrashThreadInfo(thread);
    data.setTime(1'500'000'000'123);
    data.setType(core::String("SIGSEGV"));
    data.setError(core::String("SEGV_MAPERR"));
    data.setAddress(core::String("0x0000000000000010"));
    data.setCrashlog(core::String("the log"));
    data.setRegisterDatas(core::String("registers"));
    data.setCrashBinInfos(
        {{core::String("libc.so.6"), core::String("id"), core::String("x86_64"), core::String("0x1")}});
    data.appendSessionEvent(core::String("opened"));
    identity.appId = core::String("A");
    identity.appVersion = core::String("1.0");
    identity.processName = core::String("app");
    identity.sessionId = core::String("77");
    identity.userid = core::String("somebody");
    identity.startTime = 1000;
  }

  KivExpObj record() const { return CrashRecord::of(data, identity, DeviceState{1, 2, 3}, "uid"); }

  KivCrashData data;
  ReporterIdentity identity;
};

std::string logOf(const KivExpObj& record, const char* name) {
  for (const KivExpAttachment& attachment : record.attachmentList) {
    if (attachment.fileName == std::string_view(name) && attachment.type == 11) {
      return {reinterpret_cast<const char*>(attachment.data->data()), attachment.data->size()};
    }
  }
  return "no such attachment";
}

TEST(CrashRecord, HoldsWhatACrashConsistsOf) {
  const Crash crash;
  const KivExpObj record = crash.record();
  EXPECT_EQ(record.time, 1'500'000'000'123);
  EXPECT_EQ(record.cashTime, record.time);
  EXPECT_EQ(*record.crashType, "100");
  EXPECT_EQ(*record.exceptionType, "SIGSEGV");
  EXPECT_EQ(*record.causedBy, "SEGV_MAPERR");
  EXPECT_EQ(*record.threadName, "3");
  EXPECT_EQ(*record.expUid, "uid");
  // printf 'A1.0SIGSEGV16256' | md5sum
  EXPECT_EQ(*record.hash(), "66b63c2a4d0679be800f3301da818c0a");
  EXPECT_EQ(*record.appInfo->processName, "app");
  EXPECT_EQ(record.appInfoList.size(), 1U);
  EXPECT_EQ(*record.appInfoList[0].processUUID, "id");
  EXPECT_EQ(record.sessionInfo->events.size(), 1U);
  EXPECT_EQ(logOf(record, "crash.log"), "the log");
  const std::pair<const char*, const char*> values[] = {
      {"A9", "1.000000"}, {"A11", "2.000000"}, {"A10", "3.000000"}, {"A13", "false"}, {"A23", "1.0"},
      {"A34", "app"},     {"F01", "0"},        {"A36", "false"},    {"A17", ""},      {"A35", "registers"},
      {"A18", "1000"},    {"A19", "0"},        {"A20", "0"},        {"A33", "0"},     {"A2", "0"},
  };
  for (const auto& [key, value] : values) {
    ASSERT_NE(record.valueMap.find(key), nullptr) << key;
    EXPECT_EQ(*record.valueMap.find(key), value) << key;
  }
  EXPECT_EQ(record.valueMap.find("vorin"), nullptr);
}

TEST(CrashRecord, FollowsWhatElseIsKnown) {
  Crash crash;
  crash.identity.serverTimeDelta = -500;
  crash.identity.backGroundTime = 20;
  crash.identity.resumeTime = 10;
  crash.data.setObjcMsgData(core::String(" -[A b] \n"));
  crash.data.setError(std::nullopt);
  KivExpObj record = crash.record();
  EXPECT_EQ(record.cashTime, record.time - 500);
  EXPECT_EQ(*record.causedBy, "nil");
  EXPECT_EQ(*record.valueMap.find("A36"), "true") << "it was in the background";
  EXPECT_EQ(*record.valueMap.find("A35"), "registers\nx-detect:  -[A b] \n\n");
  EXPECT_NE(record.callStack->view().find("objc_msgSend (-[A b]) + 1"), std::string_view::npos);
  crash.identity.resumeTime = 30;
  EXPECT_EQ(*crash.record().valueMap.find("A36"), "false") << "it had come back";
  crash.data.setCrashThreadInfo(std::nullopt);
  record = CrashRecord::of(crash.data, crash.identity, std::nullopt, "");
  EXPECT_EQ(record.expUid->size(), 36U);
  EXPECT_EQ(record.valueMap.find("A9"), nullptr) << "nobody knows any more";
  EXPECT_FALSE(record.threadName);
  // printf 'A1.0SIGSEGVerr' | md5sum
  EXPECT_EQ(*record.hash(), "5b2d893a2bcafec5fd2a33dba9a75fd1");
}

TEST(CrashRecord, TellsWhatTheProgramTold) {
  Crash crash;
  crash.data.addUserMapData(core::String("key"), core::String("value"));
  crash.data.setScene(7);
  crash.identity.extras.set("C04_SDK_a", core::String("b"));
  crash.identity.componentInfos = core::String("[x,1] ");
  KivExpObj record = crash.record();
  CrashRecord::addUserData(record, crash.data, crash.identity, core::String("attached"));
  EXPECT_EQ(*record.userMap.find("key"), "value");
  EXPECT_EQ(*record.valueMap.find("C01"), "7");
  EXPECT_EQ(*record.valueMap.find("C04_SDK_a"), "b");
  EXPECT_EQ(*record.valueMap.find("C04_SDK_INFO"), "[x,1] ");
  EXPECT_EQ(*record.valueMap.find("attachDatas"), "attached");
}

TEST(CrashRecord, OfAReportHasItsNumberStackAndAttachment) {
  KivCustomizedException reported(KivCustomizedException::kCSharp, core::String("ScriptError"), core::String("why"));
  reported.setCallStackReturnSymbols({core::String("at Main")});
  reported.setAttachmentLog(core::String("more of it"));
  const auto data = reported.packetCrashData();
  ASSERT_NE(data, nullptr);
  const KivExpObj record = CrashRecord::of(*data, {}, std::nullopt, "");
  EXPECT_EQ(*record.crashType, "104");
  EXPECT_EQ(*record.callStack, "at Main");
  EXPECT_EQ(logOf(record, "attachment.log"), "more of it");
}

TEST(CrashRecord, CountsEqualOnesWithTheirTimes) {
  Crash crash;
  KivExpObj stored = crash.record();
  KivExpObj fresh = crash.record();
  fresh.expUid = core::String("second");
  fresh.cashTime = 222;
  EXPECT_EQ(CrashRecord::merge(stored, fresh), 2U);
  EXPECT_EQ(*stored.crashType, "200");
  EXPECT_EQ(stored.dcount, 2);
  EXPECT_EQ(*stored.expUid, "second");
  EXPECT_EQ(logOf(stored, "crash_times.log"), "222");
  fresh.cashTime = 333;
  fresh.crashType = core::String("104");
  EXPECT_EQ(CrashRecord::merge(stored, fresh), 2U);
  EXPECT_EQ(*stored.crashType, "204");
  EXPECT_EQ(stored.dcount, 3);
  EXPECT_EQ(logOf(stored, "crash_times.log"), "222;333");
  EXPECT_EQ(logOf(stored, "crash.log"), "the log");
}

TEST(CrashSettings, KeepAndDropByPartsOfModuleNames) {
  struct Row {
    CrashSettings::Names include, exclude, stack;
    bool isRejected;
    std::vector<std::string> log;
  };
  const Row rows[] = {
      {{}, {}, {"app", "libc.so.6"}, false, {}},
      {{"libd"}, {}, {"app", "libc.so.6"}, true, {}},
      {{"libd"}, {}, {}, false, {}},
      {{"ap", "libc"},
       {},
       {"app", "libc.so.6"},
       false,
       {"<INFO> <KIV> crash stack contains include shortname app, will log crash",
        "<INFO> <KIV> crash stack contains include shortname libc.so.6, will log crash"}},
      {{},
       {"x", "libc"},
       {"app", "libc.so.6"},
       true,
       {"<WARN> <KIV> crash stack contains exclude shortname libc.so.6, will not log crash"}},
  };
  kiv_log_level = 5;
  for (const Row& row : rows) {
    const test::LogCapture log;
    CrashSettings settings;
    settings.includeShortNames = row.include;
    settings.excludeShortNames = row.exclude;
    EXPECT_EQ(settings.reject(row.stack), row.isRejected);
    EXPECT_EQ(test::LogCapture::take(), row.log);
  }
  kiv_log_level = 0;
}

}  // namespace

#include <gtest/gtest.h>

#include <string>

#include "Kiv/common/utils/KivLog.h"
#include "Kiv/compat/KivCustomizedException.h"
#include "Kiv/crashhandler/bughandler/CrashHandling.h"
#include "Kiv/crashhandler/bughandler/CrashLog.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Platform/Foundation/NSError.h"
#include "Tests/Support/LogCapture.h"

namespace {

using Lines = KivCustomizedException::Lines;

core::String text(std::size_t length) {
  return core::String(std::string(length, 'x'));
}

TEST(CrashUserData, RefusesWhatIsTooLongOrTooMuch) {
  CrashUserData data;
  data.addUserMapData(text(64), text(512));
  data.addUserMapData(text(65), core::String("v"));
  data.addUserMapData(core::String("k"), text(513));
  data.addUserMapData(std::nullopt, core::String("v"));
  EXPECT_EQ(data.userMaps().size(), 1U);
  for (int i = 0; i < 30; ++i) {
    data.addUserMapData(core::String("k" + std::to_string(i)), core::String("v"));
  }
  EXPECT_EQ(data.userMaps().size(), 20U);
  data.addUserMapData(core::String("k0"), core::String("other"));
  EXPECT_EQ(*data.userMaps().find("k0"), "v");

  for (int i = 0; i < 101; ++i) {
    data.appendSessionEvent(core::String("event " + std::to_string(i)));
  }
  data.appendSessionEvent(core::String(" \n"));
  data.appendSessionEvent(text(201));
  ASSERT_EQ(data.sessionEvents().size(), 100U);
  EXPECT_EQ(data.sessionEvents()[0], "event 1");
  EXPECT_EQ(data.sessionEvents().back(), "event 100");
}

TEST(CrashUserData, KeepsScenesUnderTheirPrefixes) {
  CrashUserData data;
  EXPECT_EQ(data.currentScene(), 0U);
  data.setScene(18446744073709551615U);
  data.setSdkScene(7);
  EXPECT_EQ(data.currentScene(), 18446744073709551615U);
  data.addSceneValue(core::String("v"), core::String("with-hyphen"));
  data.addSceneValue(core::String("v"), core::String());
  for (int i = 0; i < 14; ++i) {
    data.addSceneValue(core::String("v"), core::String("myKey" + std::to_string(i)));
  }
  EXPECT_EQ(data.allSceneValues().size(), 15U);  // 13 of the program's beside both numbers
  EXPECT_EQ(data.sceneValueForKey(core::String("C03_myKey2")), "v");
  data.addSdkSceneValue(text(1000), core::String("k"));
  EXPECT_EQ(data.sceneValueForKey(core::String("C04_k"))->size(), 1000U);
  data.removeSceneValueForKey(core::String("myKey2"));
  data.removeSceneValueForKey(core::String("C02"));
  EXPECT_EQ(data.allSceneValues().size(), 15U);
  data.removeAllSceneValues();
  EXPECT_EQ(data.currentScene(), 0U);
}

/// Keeps what the reports hand over.
class Handing final : public CrashHandling {
 public:
  Handing() { setCurrent(*this); }
  void setCrashAccidentHappen(bool) noexcept override {}
  bool isCrashAccidentHappen() const noexcept override { return false; }
  void stopStallMonitor() noexcept override {}
  bool crashHapped(KivCrashData* data) noexcept override {
    ++count;
    isCurrent = KivCrashData::expData().currentCustomizedCrashData().get() == data;
    error = data->error();
    stack = data->crashStack();
    type = data->type();
    return true;
  }
  void uninstallHandler() noexcept override {}

  int count = 0;
  bool isCurrent = false;
  KivCrashData::Text error, type;
  core::String stack;
};

Handing& handing() {
  static auto& kept = *new Handing;
  return kept;
}

TEST(CustomizedException, TellsReasonExtraWordsAndStack) {
  KivCrashData::expData().setUserMaps({{"process", "1"}});
  const auto report = KivCustomizedException::exceptionWithNSError(NSError("Domain", -7, "It failed"),
                                                                   core::String("while loading"), {{"own", "2"}});
  EXPECT_TRUE(report->setCallStackSymbols({"0  facade", "1  caller", "12\tmain", "", "other"}, 1));
  EXPECT_FALSE(report->setCallStackSymbols({"late"}, 0));
  const auto data = report->packetCrashData();
  ASSERT_NE(data, nullptr);
  EXPECT_EQ(data->type(), "NSError(Domain:-7)");
  EXPECT_EQ(data->error(), "It failed\n\n***[while loading]");
  EXPECT_EQ(data->crashStack(), "0  caller\n1 main\n\nother");
  EXPECT_EQ(data->handler(), "Customized Exception Handler");
  EXPECT_EQ(data->address(), "");
  EXPECT_EQ(data->userMaps(), (KivCrashData::Map{{"process", "1"}, {"own", "2"}}));
  EXPECT_GT(data->time(), 1'500'000'000'000);
  KivCrashData::expData().setUserMaps({});

  const auto same =
      KivCustomizedException::exceptionWithNSException(NSException("Name", "why"), core::String("why"), {});
  EXPECT_EQ(same->packetCrashData()->error(), "why");
}

TEST(CustomizedException, OfEachCategoryHasItsCode) {
  const struct {
    unsigned long category;
    const char* crashType;
    bool isReported;
  } kCategories[] = {{3, "102", true}, {4, "104", true}, {5, "107", true}, {6, "106", true}, {2, "102", false}};
  for (const auto& [category, crashType, isReported] : kCategories) {
    const auto made =
        KivCustomizedException::exceptionWithType(category, std::nullopt, core::String("r"), Lines{"3 raw line"}, {});
    EXPECT_EQ(made->crashType(), crashType) << category;
    // Without a name only the kinds of script engines have something to tell.
    EXPECT_EQ(made->packetCrashData() != nullptr, isReported && category != 3) << category;
    made->setError(std::make_shared<const NSError>("D", 1));
    if (const auto data = made->packetCrashData()) {
      EXPECT_EQ(data->type(), "Error");
      EXPECT_EQ(data->crashStack(), "3 raw line");
      EXPECT_EQ(KivCustomizedException::in(*data)->category(), category);
    }
  }
  EXPECT_EQ(KivCustomizedException::in(KivCrashData()), nullptr);
}

TEST(CustomizedException, IsTheCurrentOneWhileItIsReportedAndMayEndTheProcess) {
  Handing& handed = handing();
  CrashHandling::setCurrent(handed);
  const auto made = KivCustomizedException::exceptionWithType(6, core::String("LuaError"), core::String("nil index"),
                                                              Lines{"a.lua:3"}, {});
  made->reportExceptionAndQuit(false);
  EXPECT_EQ(handed.count, 1);
  EXPECT_TRUE(handed.isCurrent);
  EXPECT_EQ(handed.type, "LuaError");
  EXPECT_EQ(handed.stack, "a.lua:3");
  EXPECT_EQ(KivCrashData::expData().currentCustomizedCrashData(), nullptr);
  EXPECT_EXIT(made->reportExceptionAndQuit(true), testing::ExitedWithCode(0),
              "Application quit because of LuaError:nil index");
}

KivThreadInfo threadOf(std::uint32_t index, const char* name, bool isCrashed) {
  KivCrashAddrInfo frame;
  frame.index = 0;
  frame.addr = 0x1234;
  frame.moduleName = core::String("module");
  frame.lineStr = core::String("work + 4");
  KivThreadInfo thread;
  thread.threadIndex = index;
  thread.threadName = core::String(name);
  thread.isCrashThread = isCrashed;
  thread.threadStacks.append(core::Shared(frame));
  return thread;
}

/// From `start` to before `end`.
std::string part(const KivCrashData& data, const std::string& start, const std::string& end) {
  const std::string log = data.crashlog()->str();
  const std::size_t first = log.find(start);
  return first == std::string::npos ? "(no " + start + ")" : log.substr(first, log.find(end, first) - first);
}

TEST(CrashLog, HasItsSectionsInOrder) {
  KivCrashData& data = KivCrashData::expData();
  data.setHandler(core::String("Signal Handler"));
  data.setType(core::String("SIGSEGV"));
  data.setError(core::String("SEGV_MAPERR"));
  data.setAddress(core::String("0x0000000000000000"));
  data.addLastExceptionInfo(core::String("Exception Type: SIGBUS"));
  data.setCrashOnceMore(true);
  data.addLastExceptionInfo(core::String("not of the first crash"));
  data.setAllThreadInfos({threadOf(0, "", false), threadOf(1, "worker", true)});
  data.setCrashThreadInfo(threadOf(1, "worker", true));
  data.setRegisterDatas(core::String("\nregisters\n"));
  data.setSdkCrashCallStack({"own 1", "own 2"});
  data.setAllStackShortNames({"no such module"});
  EXPECT_TRUE(generateCrashLog());
  // From the last line on: other tests of this process leave lines of theirs.
  EXPECT_EQ(part(data, "Exception Type: SIGBUS", "\nBinary Images"),
            "Exception Type: SIGBUS\n\n------\n\n"
            "Exception Type: SIGSEGV\nException Codes: SEGV_MAPERR at 0x0000000000000000\nCrashed Thread: 1\n\n"
            "Thread 0: \n0  module                         0x0000000000001234 work + 4\n\n"
            "Thread 1 Name: worker\nThread 1 Crashed: \n"
            "0  module                         0x0000000000001234 work + 4\n\n"
            "\nregisters\n\nMaybe SDK Crash:\nown 1\nown 2\n\n");
  EXPECT_TRUE(data.crashlog()->view().ends_with("\nBinary Images:\n"));
  EXPECT_TRUE(data.crashlog()->view().starts_with("Handler: Signal Handler\n\nHardware Model: x86_64\nProcess: "));

  // Without threads, the trace of the thread itself, and all images.
  KivThreadInfo alone;
  alone.threadIndex = KivThreadInfo::kAlone;
  alone.threadName = core::String("mach_thread_self() 3");
  alone.threadTrace = {"line 1", "line 2"};
  data.setCrashOnceMore(false);
  data.setAllThreadInfos({});
  data.setCrashThreadInfo(alone);
  data.setRegisterDatas(std::nullopt);
  data.setSdkCrashCallStack({});
  data.setAllStackShortNames({});
  generateCrashLog();
  EXPECT_EQ(part(data, "Crashed Thread", "\nBinary Images"),
            "Crashed Thread: -1\n\nCrashed Thread(mach_thread_self() 3) Backtrace:\nline 1\nline 2\n");
}

}  // namespace

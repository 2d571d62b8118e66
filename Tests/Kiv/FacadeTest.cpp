#include <gtest/gtest.h>

#include "Tests/Kiv/ProbeBundle.h"

namespace {

using Texts = std::vector<std::string>;
using test::ProbeBundle;

const std::string kInfo =
    "<key>CFBundleShortVersionString</key><string>1.0</string><key>CFBundleVersion</key><string>77</string>";

/// Log texts without the lines of an installation that every case would repeat.
Texts ownTexts(const test::Outcome& outcome) {
  Texts texts;
  for (const std::string& text : ProbeBundle::logTextsOfMainThread(outcome)) {
    if (!text.starts_with("<KIV> Init sdk[") && !text.starts_with("NSGetUncaughtExceptionHandler: ") &&
        !text.starts_with("<KIV> Install exception handler ") && text.find(" orv ci uuid: ") == std::string::npos &&
        text.find(" local version ") == std::string::npos) {
      texts.push_back(text);
    }
  }
  return texts;
}

TEST(Facade, LogsExactTextsAtTheirLevels) {
  struct Case {
    Texts operations;
    std::string output;
    Texts log;
  };
  const Case cases[] = {
      {{"appkey=   "}, "NO\n", {"<Warning> Zephy: Invalid app id [   ]"}},
      {{"nilkey"}, "NO\n", {"<Warning> Zephy: Invalid app id [(null)]"}},
      {{"appkey= A ", "show=appId"}, "YES\nA\n", {}},
      {{"appkey=A", "appkey=A"}, "YES\nNO\n", {}},
      {{"appkey=A", "log=1", "appkey=A"}, "YES\nNO\n", {"<WARN> <KIV> sdk has been initialized"}},
      {{"log=1", "uninstall"}, "", {"<WARN> <KIV> crash reporter already uninstalled."}},
      {{"appkey=A", "log=1", "uninstall", "log=0", "appkey=A"},
       "YES\nYES\n",
       {"<INFO> <KIV> crash reporter uninstalling...", "<INFO> <KIV> Uninstall crash handler.",
        "<INFO> <KIV> Uninstall NSException handler SUCCESS", "<INFO> <KIV> Uninstall signal handler SUCCESS.",
        "<INFO> <KIV> crash module is disable"}},
      {{"install"}, "NO\n", {"<Warning> Zephy: Not found ZephyAppIDString field in the .plist of your project."}},
      {{"clean"}, "", {"Note: NSSetUncaughtExceptionHandler set to NULL", "Note: signal set to SIG_DFL"}},
      {{"appkey=A", "clean", "check-signals"},
       "YES\nYES\n",
       {"Note: You should clean the handler before initilize the sdk."}},
      {{"ats=1", "ats=0"}, "", {"<KIV> App Transport Security: DISABLE"}},
      {{"unity"}, "", {"The sdk has not been initilized"}},
      {{"report-nil", "report-error"}, "", {}},
      {{"report-named"}, "", {"The sdk has not been initilized"}},
      {{"report-exception"}, "", {"The sdk has not been initilized"}},
      {{"appkey=A", "report-nil", "unity"}, "YES\n", {"The sdk has not been initilized"}},
      {{"appkey=A", "log=1", "report-error", "report-named"},
       "YES\n",
       {"<INFO> <KIV> Report an NSError: \nError Domain=Domain Code=7 \"It failed\"",
        "<INFO> <KIV> Report an Exception: \n { \n(null) : (null) \nStack Trace: \nline 1\nline 2  \n}"}},
      {{"log=1", "disable-signals", "log=0", "appkey=A", "check-signals", "check-exceptions"}, "YES\nNO\nYES\n", {}},
  };
  for (const Case& one : cases) {
    const ProbeBundle bundle(kInfo);
    const test::Outcome outcome = bundle.run(one.operations);
    const std::string name = ::testing::PrintToString(one.operations);
    EXPECT_EQ(outcome.exitStatus, 0) << name << outcome.errors;
    EXPECT_EQ(outcome.output, one.output) << name;
    EXPECT_EQ(ownTexts(outcome), one.log) << name;
  }
}

TEST(Facade, LogsTheWholeInstallation) {
  const ProbeBundle bundle(kInfo +
                           "<key>ZephyAppIDString</key><string>key</string>"
                           "<key>ZephyAppChannelString</key><string>store</string>"
                           "<key>ZephyAppVersionString</key><string>3.1</string>"
                           "<key>ZephyDebugEnable</key><true/>"
                           "<key>com.velmora.orv.uuid</key><string>BUILD-1</string>");
  const test::Outcome outcome = bundle.run({"install", "show=channel", "show=appVersion", "show=bundleId"});
  EXPECT_EQ(outcome.output, "YES\nstore\n3.1\ncom.example.probe\n");
  const Texts texts = ProbeBundle::logTextsOfMainThread(outcome);
  ASSERT_EQ(texts.size(), 8U) << outcome.errors;
  EXPECT_EQ(texts[0], "<INFO> <KIV> enable Debug Log");
  EXPECT_EQ(texts[1], "<INFO> <KIV> set Channel to store from Info.plist");
  EXPECT_EQ(texts[2], "<WARN> <KIV> local version (null) change to the new version 3.1");
  EXPECT_EQ(texts[3], "<INFO> <KIV> set Version to 3.1 from Info.plist");
  EXPECT_TRUE(
      texts[4].starts_with("<KIV> Init sdk[2.2.1.5] with appid:[key], bundle:[com.example.probe, 3.1], "
                           "device:[x86_64, Mac OS X "))
      << texts[4];
  EXPECT_EQ(texts[5], "<INFO> <KIV> orv ci uuid: BUILD-1");
  EXPECT_EQ(texts[7], "<KIV> Install exception handler SUCCESS, signal handler SUCCESS");
}

TEST(Facade, InfoPlistThatIsNotWhatItShouldBeIsReportedAndSurvived) {
  const std::pair<std::string, std::string> cases[] = {
      {"<plist><dict><key>ZephyAppIDString</key><true/></dict></plist>", "ZephyAppIDString is NOT an NSString"},
      {"<plist><dict><key>ZephyAppIDString</key><string>  </string></dict></plist>",
       "ZephyAppIDString is NOT an NSString"},
      {"<plist><dict><key>Zephy", "Info.plist"},
      {std::string(std::size_t{2} << 20, 'x'), "Info.plist"},
      {"bplist00\xff\xff", "Info.plist"},
  };
  for (const auto& [content, line] : cases) {
    const ProbeBundle bundle;
    bundle.writeInfo(content);
    const test::Outcome outcome = bundle.run({"install", "appkey=A"});
    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_EQ(outcome.output, "NO\nYES\n") << outcome.errors;
    EXPECT_NE(outcome.errors.find(line), std::string::npos) << outcome.errors;
  }
}

TEST(Facade, RefusesToInstallUnderADebugger) {
  const ProbeBundle bundle;
  const test::Outcome outcome = test::Subprocess::run({"gdb", "-q", "-batch", "-nx", "-iex", "set auto-load off", "-ex",
                                                       "run appkey=A check-signals", bundle.probePath()});
  EXPECT_NE(outcome.output.find("NO\nNO\n"), std::string::npos) << outcome.output << outcome.errors;
  EXPECT_NE((outcome.output + outcome.errors)
                .find(" \n<INFO> KIV: Crash reporting service is DISABLED due to the Xcode Debugger attached.\n"
                      "<提醒> KIV: 检测到Xcode调试器正在工作，崩溃捕获功能将不会启动。\n"),
            std::string::npos)
      << outcome.output << outcome.errors;
}

TEST(Facade, TakesOnlyWebAddressesAsCollector) {
  const ProbeBundle bundle("<key>ZephyCollectURLString</key><string>http://[::1]:8630/analytics/kivsync</string>");
  EXPECT_EQ(bundle
                .run({"show=localUrl", "show=host", "url=ftp://a/b", "url=https://", "url=javascript:alert(1)",
                      "url=https://a b/", "show=host", "url=HTTPS://me@Host.example:1/x", "show=host"})
                .output,
            "http://[::1]:8630/analytics/kivsync\n::1\nNO\nNO\nNO\nNO\n::1\nYES\nHost.example\n");
  const test::Outcome outcome =
      ProbeBundle("<key>ZephyCollectURLString</key><string>file:///etc/passwd</string>").run({"show=localUrl"});
  EXPECT_EQ(outcome.output, "https://collect.velmora.example/analytics/kivsync\n");
  EXPECT_NE(outcome.errors.find("file:///etc/passwd"), std::string::npos);
}

TEST(Facade, SurvivesTwentyThreadsSettingDuringInstallations) {
  const ProbeBundle bundle;
  const test::Outcome outcome = bundle.run({"hammer", "check-signals"});
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.signal << outcome.errors;
  EXPECT_EQ(outcome.output, "NO\n");
}

}  // namespace

#include <gtest/gtest.h>

#include "Tests/Kiv/ProbeBundle.h"

namespace {

using Texts = std::vector<std::string>;
using test::ProbeBundle;

const std::string kEndpoint = "https://collect.velmora.example/analytics/kivsync";

Texts operator+(Texts a, const Texts& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::ptrdiff_t countOf(const test::Outcome& outcome, const std::string& piece) {
  const Texts texts = ProbeBundle::logTexts(outcome);
  return std::count_if(texts.begin(), texts.end(), [&](const auto& text) { return text.starts_with(piece); });
}

/// What the kernel tells of a boot.
struct Boot {
  Boot(const std::string& time, const std::string& id) {
    test::writeFile(files.file("stat"), "btime " + time + "\n");
    if (!id.empty()) {
      test::writeFile(files.file("sys/kernel/random/boot_id"), id + "\n");
    }
  }
  std::string held() const { return "held=" + files.path(); }
  test::TemporaryDirectory files;
};

class UnexpectedExit : public testing::Test {
 protected:
  const Boot first_{"1700000000", "first"};
  const Boot firstOnAnotherClock_{"1700009999", "first"};
  const Boot second_{"1700009999", "second"};
  const std::string held_ = first_.held();

  /// Two runs, after which version and boot are known.
  void beKnown(const ProbeBundle& bundle) const {
    for (int run = 0; run < 2; ++run) {
      ASSERT_EQ(bundle.run({held_, "appkey=A"}).output, "YES\n");
    }
  }
};

const std::string kReason = "The application did not terminate cleanly but no crash occured.";

TEST_F(UnexpectedExit, IsInferredFromWhatTheLastRunLeft) {
  const std::string kKilled = "3 SIGKILL: " + kReason + " [0] .. 0\n";
  const std::string resigned = "post=NSApplicationDidResignActiveNotification";
  const std::string becomesActive = "post=NSApplicationWillBecomeActiveNotification";
  struct Case {
    const char* name;
    Texts lastRun;
    Texts nextRun;  // up to the installation
    std::string report;
  };
  const Case cases[] = {
      {"killed", {held_, "detect=1", "appkey=A", "kill"}, {held_, "detect=1"}, kKilled},
      {"killed, clock set since",
       {held_, "detect=1", "appkey=A", "kill"},
       {firstOnAnotherClock_.held(), "detect=1"},
       kKilled},
      {"killed after a warning",
       {held_, "detect=1", "appkey=A", "memory-warning", "kill"},
       {held_, "detect=1"},
       "3 SIGKILL: " + kReason + "\nThe application received at least one Low Memory Warning. [0] .. 0\n"},
      {"crashed", {held_, "detect=1", "appkey=A", "crash=abort"}, {held_, "detect=1"}, ""},
      {"terminated",
       {held_, "detect=1", "appkey=A", "post=NSApplicationWillTerminateNotification"},
       {held_, "detect=1"},
       ""},
      {"killed in the background", {held_, "detect=1", "appkey=A", resigned, "kill"}, {held_, "detect=1"}, ""},
      {"killed on its way there",
       {held_, "detect=1", "appkey=A", "post=NSApplicationWillResignActiveNotification", "kill"},
       {held_, "detect=1"},
       kKilled},
      {"rebooted since", {held_, "detect=1", "appkey=A", "kill"}, {second_.held(), "detect=1"}, ""},
      {"killed before its boot was known",
       {second_.held(), "detect=1", "appkey=A", "kill"},
       {second_.held(), "detect=1"},
       ""},
      {"killed in the foreground after a reboot",
       {second_.held(), "detect=1", "appkey=A", becomesActive, "later", "kill"},
       {second_.held(), "detect=1"},
       kKilled},
      {"no detection then", {held_, "appkey=A", "kill"}, {held_, "detect=1"}, ""},
      {"no detection now", {held_, "detect=1", "appkey=A", "kill"}, {held_}, ""},
      {"new version", {held_, "detect=1", "appkey=A", "kill"}, {held_, "detect=1", "version=9"}, ""},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(one.name);
    const ProbeBundle bundle;
    beKnown(bundle);
    EXPECT_NE(bundle.run(one.lastRun).exitStatus, 2);
    const test::Outcome next =
        bundle.run(one.nextRun + Texts{"appkey=A", "print-reports", becomesActive, "later", "later"});
    EXPECT_EQ(next.output, "YES\n" + one.report) << next.errors;
  }
}

TEST_F(UnexpectedExit, IsReportedOnceWithTheEndOfTheProgramsText) {
  const std::pair<Texts, std::string> cases[] = {
      {{"killed-log=204800"}, "x..é 204800"},
      {{"killed-log=204801"}, "é..é 204800"},
      {{"killed-log=0"}, ".. 0"},
  };
  const ProbeBundle bundle;
  beKnown(bundle);
  for (const auto& [log, attachment] : cases) {
    const test::Outcome outcome = bundle.run(Texts{"log=1", held_} + log +
                                             Texts{"appkey=A", "print-reports", "report-exit", "report-exit", "later"});
    EXPECT_EQ(outcome.output, "YES\n3 SIGKILL: " + kReason + " [0] " + attachment + "\n");
    EXPECT_EQ(countOf(outcome, "<INFO> <KIV> SIGKILL detected for last session"), 2);
  }
}

TEST(CrashModule, ChoosesTheAddressByKindAndScheme) {
  struct Case {
    Texts operations;
    std::string urls;  // of the strategy, then to be used: general, exceptions
  };
  const std::string none = "||" + kEndpoint + "|" + kEndpoint;
  const Case cases[] = {
      {{}, none},
      {{"field=httpsUrl:https://g", "field=httpsExpUrl:https://e", "process"},
       "https://g|https://e|https://g|https://e"},
      {{"field=httpsUrl:https://g", "field=httpsExpUrl:", "process"}, "https://g|https://g|https://g|https://g"},
      {{"field=httpsUrl:http://g", "field=httpsExpUrl:http://e", "process"}, none},
      {{"field=httpsUrl:HTTPS://g", "field=httpsExpUrl:", "process"}, none},
      {{"field=httpsUrl:https://g", "field=httpsExpUrl:https://e", "process", "field=httpsUrl:ftp://g",
        "field=httpsExpUrl:", "field=enable:0", "process"},
       "https://g|https://e|https://g|https://e"},
      {{"ats=0", "field=url:http://g", "field=expUrl:https://e", "process"},
       "http://g|http://g|" + kEndpoint + "|" + kEndpoint},
      {{"ats=0", "url=http://[::1]:1/x", "field=url:http://g", "field=expUrl:http://e", "process"},
       "http://g|http://e|http://g|http://e"},
      {{"field=httpsUrl:" + kEndpoint, "process", "url=https://mine/x"},
       "https://mine/x|https://mine/x|https://mine/x|https://mine/x"},
  };
  for (const Case& one : cases) {
    const test::Outcome outcome = ProbeBundle().run(one.operations + Texts{"urls"});
    EXPECT_TRUE(("\n" + outcome.output).ends_with("\n" + one.urls + "\n"))
        << testing::PrintToString(one.operations) << outcome.output << outcome.errors;
  }
}

TEST(CrashModule, TakesStrategiesThatChangeSomething) {
  const ProbeBundle bundle;
  const test::Outcome outcome =
      bundle.run({"held", "appkey=A", "response-class", "log=1", "want=0", "process",
                  "check-signals",                                             // equal to the defaults: not asked
                  "field=isMerge:true", "process", "check-signals", "merges",  // new: asked, and not wanted
                  "process", "want=1", "field=isMerge:1", "process", "check-signals", "merges"});
  EXPECT_EQ(outcome.output, "YES\nKivLocalStrategy\nYES\nYES\nYES\nNO\nYES\nYES\nYES\nYES\nNO\n") << outcome.errors;
  EXPECT_EQ(countOf(outcome, "<INFO> <KIV> sdk reloaded remote strategy, StrategyUpdateTime: 0, Crash Report "), 2);
  EXPECT_EQ(countOf(outcome, "<WARN> <KIV> Sdk crash module has been initialized"), 1);
}

TEST(CrashModule, ForgetsTheStrategyThatItCleans) {
  const ProbeBundle bundle;
  const std::string file = bundle.dataPath(".new_strategy.data");
  const std::string before = "https://g|" + kEndpoint + "|https://g|" + kEndpoint + "\n";
  const std::string after = kEndpoint + "|" + kEndpoint + "|" + kEndpoint + "|" + kEndpoint + "\n";
  EXPECT_EQ(
      bundle.run({"held", "appkey=A", "field=httpsUrl:https://g", "process", "urls", "await-file=" + file}).output,
      "YES\nYES\n" + before);
  // The first one finds what the store has not deleted yet, or no more.
  const test::Outcome cleaned =
      bundle.run({"held", "appkey=A", "urls", "clean-strategy", "await-no-file=" + file, "clean-strategy", "urls"});
  EXPECT_EQ(cleaned.output, "YES\n" + before + after) << cleaned.errors;
  EXPECT_EQ(bundle.run({"held", "appkey=A", "urls"}).output, "YES\n" + after);
}

TEST(CrashModule, KnowsWhenTheApplicationCameAndWent) {
  const test::Outcome outcome =
      ProbeBundle().run({"log=1", "held", "appkey=A", "background", "foreground", "background", "foreground"});
  EXPECT_EQ(outcome.output, "YES\n1 0 1 1\n0 1 1 0\n1 0 1 0\n0 1 1 0\n") << outcome.errors;
  EXPECT_EQ(countOf(outcome, "<INFO> <KIV>  appEnterForeground"), 2);
  EXPECT_EQ(countOf(outcome, "<INFO> <KIV>  appEnterBackground"), 2);
}

TEST(CrashModule, AStoredStrategyStopsTheStartUp) {
  const ProbeBundle bundle;
  const std::string stray = bundle.dataPath(".crash_stray.data");
  bundle.run({"held", "appkey=A"});
  bundle.run({"held", "detect=1", "appkey=A"});
  EXPECT_EQ(bundle
                .run({"held", "detect=1", "appkey=A", "field=enable:0", "process", "check-signals",
                      "await-file=" + bundle.dataPath(".new_strategy.data"), "kill"})
                .output,
            "YES\nYES\nNO\n");
  bundle.writeData(".crash_stray.data", "stray");
  const test::Outcome stopped =
      bundle.run({"log=1", "held", "detect=1", "appkey=A", "check-signals", "make-summary", "user=bob", "print-reports",
                  "later", "field=enable:1", "process", "check-signals", "user=eve", "summaries"});
  EXPECT_EQ(stopped.output, "YES\nNO\nNO\nYES\nYES\n") << stopped.errors;
  EXPECT_EQ(countOf(stopped, "<WARN> <KIV> Sdk crash module is DISABLE"), 1);
  EXPECT_EQ(countOf(stopped, "<WARN> <KIV> server startegy closed Crash module, will not create"), 1);
  EXPECT_EQ(test::contentOf(stray), "stray");
}

TEST(CrashModule, DoesNotComeBackAfterAnEarlyUninstallation) {
  const test::Outcome outcome =
      ProbeBundle().run({"log=1", "held-background", "appkey=A", "uninstall", "later", "check-signals"});
  EXPECT_EQ(outcome.output, "YES\nNO\n") << outcome.errors;
  EXPECT_EQ(countOf(outcome, "<WARN> <KIV> Sdk crash module is DISABLE"), 1);
}

TEST(CrashModule, ChangesOfTheUserAreRecordedOnceStarted) {
  const test::Outcome outcome = ProbeBundle().run({"make-summary", "held", "user=early", "appkey=A", "user=bob",
                                                   "user=bob", "device=D", "uninstall", "user=late", "summaries"});
  EXPECT_EQ(outcome.output, "YES\nYES\n4 bob probe 1 0\n4 bob probe 1 0\n") << outcome.errors;
}

}  // namespace

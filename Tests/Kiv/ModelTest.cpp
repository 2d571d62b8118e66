#include <gtest/gtest.h>

#include <filesystem>

#include "Tests/Kiv/ProbeBundle.h"

namespace {

using Texts = std::vector<std::string>;
using test::ProbeBundle;

std::string versionKeys(const std::string& shortVersion, const std::string& build) {
  return (shortVersion.empty() ? "" : "<key>CFBundleShortVersionString</key><string>" + shortVersion + "</string>") +
         (build.empty() ? "" : "<key>CFBundleVersion</key><string>" + build + "</string>");
}

/// The property list of the data directory as XML, by an independent reader.
std::string storedKeys(const ProbeBundle& bundle) {
  return test::Subprocess::run({"plistutil", "-i", bundle.dataPath(".kivios.plist"), "-f", "xml"}).output;
}

bool holds(const std::string& xml, const std::string& key, const std::string& value) {
  return xml.find("<key>" + key + "</key>\n\t<string>" + value + "</string>") != std::string::npos;
}

TEST(Model, FormsTheVersionFromTheBundle) {
  const Texts cases[] = {{"1.0", "77", "1.0(77)"}, {"", "77", "77"}, {"1.0", "", "1.0"}, {"", "", "(null)"}};
  for (const Texts& one : cases) {
    EXPECT_EQ(ProbeBundle(versionKeys(one[0], one[1])).run({"show=appVersion"}).output, one[2] + "\n");
  }
}

TEST(Model, NoticesVersionAndKeyChangesAcrossLaunches) {
  const ProbeBundle bundle(versionKeys("1.0", "1"));
  EXPECT_EQ(bundle.run({"appkey=A", "show=versionChanged"}).output, "YES\nYES\n");
  EXPECT_TRUE(holds(storedKeys(bundle), "ana_ver_hash", "1.0(1)"));
  EXPECT_EQ(bundle.run({"appkey=A", "show=versionChanged"}).output, "YES\nNO\n");
  EXPECT_EQ(bundle.run({"show=versionChanged", "version=2.0", "show=versionChanged"}).output, "NO\nYES\n");
  const test::Outcome back = bundle.run({"log=1", "appkey=A", "show=versionChanged"});
  EXPECT_NE(back.errors.find("<WARN> <KIV> local version 2.0 change to the new version 1.0(1)\n"), std::string::npos)
      << back.errors;
  EXPECT_EQ(bundle.run({"appkey=A", "show=versionChanged"}).output, "YES\nNO\n");
  EXPECT_EQ(bundle.run({"appkey=B", "show=versionChanged"}).output, "YES\nYES\n");
}

TEST(Model, WritesTheVersionBeforeACrashCanComeBetween) {
  const ProbeBundle bundle(versionKeys("1.0", "1"));
  bundle.run({"appkey=A", "crash=abort"});
  EXPECT_EQ(bundle.run({"appkey=A", "show=versionChanged"}).output, "YES\nNO\n");
}

TEST(Model, StartsWithItsDefaults) {
  const test::Outcome outcome =
      ProbeBundle("<key>com.velmora.orv.uuid</key><string>U-1</string>")
          .run({"show=userid", "show=gatewayIP", "show=channel", "show=vorin", "show=sdkVersion", "show=pIdentity",
                "show=processName", "show=bundleId", "show=strategyStatus", "show=appId", "show=components"});
  EXPECT_EQ(outcome.output, "Unknown\nUnknown\n(nil)\n\n2.2.1.5\nU-1\nprobe\ncom.example.probe\n(nil)\n(nil)\n\n");
}

TEST(Model, KeepsTheDeviceIdentifierInKeychainAndFile) {
  const ProbeBundle bundle;
  const std::string first = bundle.run({"show=openudid", "persist=x"}).output;
  EXPECT_EQ(first.size(), 37U);
  EXPECT_EQ(bundle.run({"show=openudid"}).output, first);
  std::filesystem::remove(bundle.dataPath(".kivios.plist"));
  EXPECT_EQ(bundle.run({"show=openudid"}).output, first) << "not taken from the keychain";
}

TEST(Model, PersistsAndRemovesTheStrategyStatus) {
  const ProbeBundle bundle;
  bundle.run({"status=on", "version=1"});
  EXPECT_EQ(bundle.run({"show=strategyStatus", "status=", "version=2"}).output, "on\n");
  EXPECT_EQ(bundle.run({"show=strategyStatus"}).output, "(nil)\n");
}

TEST(Model, KeepsTheIssuedIdentifierLocally) {
  const ProbeBundle bundle;
  const test::Outcome first = bundle.run({"log=1", "vorin=V1", "version=1", "show=vorin"});
  EXPECT_EQ(first.output, "V1\n");
  EXPECT_NE(first.errors.find("<INFO> <KIV> do not save vorin: V1\n"), std::string::npos);
  const test::Outcome second = bundle.run({"log=1", "show=vorin"});
  EXPECT_EQ(second.output, "V1\n");
  EXPECT_NE(second.errors.find("<INFO> <KIV> got vorin by keychain (null)\n"), std::string::npos) << second.errors;
  EXPECT_NE(second.errors.find("<INFO> <KIV> got vorin by local V1\n"), std::string::npos) << second.errors;
}

TEST(Model, SetsADamagedFileAsideAndLosesNothing) {
  for (const std::string damaged : {"garbage", "", "bplist00"}) {
    const ProbeBundle bundle;
    bundle.writeData(".kivios.plist", damaged);
    const test::Outcome outcome = bundle.run({"show=dataFile", "persist=new", "version=1"});
    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_EQ(outcome.output, "(nil)\n");
    EXPECT_NE(outcome.errors.find(".kivios.plist"), std::string::npos) << "no line about the damage";
    const auto aside = bundle.dataFiles(".kivios.plist.broken-");
    ASSERT_EQ(aside.size(), 1U);
    EXPECT_EQ(test::contentOf(bundle.dataPath(aside[0])), damaged);
    EXPECT_EQ(bundle.run({"show=dataFile"}).output, "new\n");
  }
}

TEST(Model, RunsOnWithoutADataDirectory) {
  const ProbeBundle bundle;
  test::writeFile(std::filesystem::path(bundle.dataPath()).parent_path(), "a file in the way");
  const test::Outcome outcome = bundle.run({"log=1", "appkey=A", "persist=x", "show=dataFile"});
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_EQ(outcome.output, "YES\nx\n");
  EXPECT_NE(outcome.errors.find("<ERROR> <KIV> cannot make the data directory "), std::string::npos) << outcome.errors;
}

TEST(Model, MovesItsFileWhereAsked) {
  const ProbeBundle bundle;
  const test::TemporaryDirectory other;
  const test::Outcome outcome =
      bundle.run({"log=1", "move=" + other.file("a/b"), "persist=moved", "version=1", "move=/dev/null/x"});
  EXPECT_EQ(outcome.output, "YES\nNO\n");
  EXPECT_TRUE(std::filesystem::exists(other.file("a/b/.kivios.plist")));
  const Texts texts = ProbeBundle::logTexts(outcome);
  const Texts expected = {"<INFO> <KIV> create dir " + other.file("a/b"),
                          "<INFO> <KIV> reset sdk data path " + other.file("a/b"),
                          "<INFO> <KIV> **reset default crash data path " + other.file("a/b") + " ",
                          "<INFO> <KIV> create dir /dev/null/x",
                          "<ERROR> <KIV> error reset bundle path",
                          "<ERROR> <KIV> error reset db path"};
  auto at = texts.begin();
  for (const std::string& line : expected) {
    at = std::find(at, texts.end(), line);
    ASSERT_NE(at, texts.end()) << line << "\n" << outcome.errors;
  }
}

TEST(Model, LooksTheCollectorsHostUpInTransportSecurity) {
  const std::string start = "<key>NSAppTransportSecurity</key><dict>";
  const std::string host = "<key>collect.velmora.example</key>";
  const std::pair<std::string, const char*> cases[] = {
      {"", "NO"},
      {start + "</dict>", "NO"},
      {start + "<key>NSAllowsArbitraryLoads</key><true/></dict>", "YES"},
      {start + "<key>NSAllowsArbitraryLoads</key><true/><key>NSExceptionDomains</key><dict>" + host +
           "<dict><key>Other</key><true/></dict></dict></dict>",
       "NO"},
      {start + "<key>NSExceptionDomains</key><dict>" + host +
           "<dict><key>NSExceptionAllowsInsecureHTTPLoads</key><true/></dict></dict></dict>",
       "YES"},
      {start + "<key>NSAllowsArbitraryLoads</key><true/><key>NSExceptionDomains</key><dict>" + host +
           "<dict></dict></dict></dict>",
       "YES"},
  };
  for (const auto& [info, answer] : cases) {
    EXPECT_EQ(ProbeBundle(info).run({"show=allowsArbitraryLoads"}).output, std::string(answer) + "\n") << info;
  }
}

}  // namespace

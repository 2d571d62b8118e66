#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "Core/Kernel/Process.h"
#include "Core/Memory/CrashOwner.h"
#include "Platform/Foundation/HostInfo.h"
#include "Platform/Foundation/ProcessInfo.h"
#include "Platform/Foundation/TimeZone.h"
#include "Platform/Foundation/UserDirectories.h"
#include "Tests/Support/EnvironmentChange.h"
#include "Tests/Support/LogCapture.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

using test::EnvironmentChange;
using Text = std::optional<core::String>;

/// Files of a host that is made up.
class Host {
 public:
  void write(const std::string& name, std::string_view text) const {
    const std::filesystem::path path = directory_.file(name);
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path) << text;
  }
  platform::HostFiles files() const { return {directory_.file("proc"), directory_.file("etc")}; }

 private:
  test::TemporaryDirectory directory_;
};

TEST(HostFiles, ATracerIsSeenInTheStatusOfTheProcess) {
  Host host;
  EXPECT_EQ(platform::debuggerAttached(host.files()), std::nullopt);
  const std::pair<std::string_view, std::optional<bool>> cases[] = {
      {"Name:\tx\nTracerPid:\t0\nUid:\t1\n", false},
      {"Name:\tx\nTracerPid:\t4711\n", true},
      {"Name:\tTracerPid: 3\nUid:\t1\n", std::nullopt},
      {"TracerPid:\t\n", std::nullopt},
  };
  for (const auto& [status, attached] : cases) {
    host.write("proc/self/status", status);
    EXPECT_EQ(platform::debuggerAttached(host.files()), attached) << status;
  }
}

TEST(HostFiles, BootAndParentAreReadFromTheProcessFileSystem) {
  Host host;
  EXPECT_EQ(platform::bootTime(host.files()), std::nullopt);
  EXPECT_EQ(platform::bootId(host.files()), std::nullopt);
  EXPECT_EQ(platform::parentProcessName(host.files()), "");
  host.write("proc/stat", "cpu  1 2 3 4\nintr 5\nbtime 1700000000\n");
  host.write("proc/sys/kernel/random/boot_id", "0f9c\n");
  host.write("proc/" + std::to_string(::getppid()) + "/comm", " my shell \n");
  EXPECT_EQ(platform::bootTime(host.files()), 1700000000);
  EXPECT_EQ(platform::bootId(host.files()), Text("0f9c"));
  EXPECT_EQ(platform::parentProcessName(host.files()), " my shell ");
}

TEST(HostFiles, TheStartOfTheProcessIsTheTwentySecondField) {
  Host host;
  const auto startOf = [&](const std::string& name, long seconds) {
    const std::string ticks = std::to_string(seconds * ::sysconf(_SC_CLK_TCK));
    host.write("proc/self/stat",
               "7 (" + name + ") R 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 " + ticks + " 23\n");
    return platform::processStartTime(host.files()).value_or(0);
  };
  EXPECT_NEAR(static_cast<double>(startOf("a) b (", 90) - startOf("x", 0)), 90000, 100);
  const std::int64_t now = core::wallClockNanoseconds() / 1'000'000;
  const std::int64_t own = platform::processStartTime().value_or(0);
  EXPECT_LE(own, now + 100);
  EXPECT_GT(own, now - 600'000);
  host.write("proc/self/stat", "7 (x) R 4 5 6");
  EXPECT_EQ(platform::processStartTime(host.files()), std::nullopt);
}

TEST(HostFiles, TheVersionIsThatOfTheDistribution) {
  Host host;
  EXPECT_EQ(platform::operatingSystemVersion(host.files()), (platform::OperatingSystemVersion{0, 0, 0}));
  const std::pair<std::string_view, platform::OperatingSystemVersion> cases[] = {
      {"NAME=x\nVERSION_ID=\"22.04\"\n", {22, 4, 0}},
      {"VERSION_ID=12", {12, 0, 0}},
      {"VERSION_ID='15.5.9'\n", {15, 5, 9}},
      {"VERSION_ID=\"40.1.2.3\"\n", {40, 1, 2}},
      {"VERSION_ID=99999999999\n", {2147483647, 0, 0}},
      {"VERSION_ID=rolling\nMY_VERSION_ID=3\n", {0, 0, 0}},
  };
  for (const auto& [release, version] : cases) {
    host.write("etc/os-release", release);
    EXPECT_EQ(platform::operatingSystemVersion(host.files()), version) << release;
  }
}

TEST(HostFiles, MemoryAndProcessorTimeAreAddedUp) {
  Host host;
  EXPECT_FALSE(platform::memoryStatistics(host.files()));
  host.write("proc/meminfo",
             "MemTotal: 9 kB\nMemFree:  1 kB\nActive: 2 kB\nInactive: 4 kB\nActive(anon): 99 kB\n"
             "Unevictable: 8 kB\nSUnreclaim: 16 kB\nKernelStack: 32 kB\nPageTables: 64 kB\n");
  const auto memory = platform::memoryStatistics(host.files());
  ASSERT_TRUE(memory);
  EXPECT_EQ(memory->free, 1024U);
  EXPECT_EQ(memory->active, 2048U);
  EXPECT_EQ(memory->inactive, 4096U);
  EXPECT_EQ(memory->wired, 120U * 1024);

  const std::pair<std::string_view, std::optional<platform::CpuTicks>> cases[] = {
      {"cpu  1 2 3 4\n", platform::CpuTicks{1, 3, 4, 2}},
      {"cpu0 9 9 9 9\ncpu  1 2 3 4 10 100 1000 7 7 7\n", platform::CpuTicks{1, 1103, 14, 2}},
      {"cpu  4294967297 0 4294967295 0 0 1 1 0\n", platform::CpuTicks{1, 1, 0, 0}},
      {"cpu  1 2 3\n", std::nullopt},
  };
  for (const auto& [statistics, ticks] : cases) {
    host.write("proc/stat", statistics);
    EXPECT_EQ(platform::cpuTicks(host.files()), ticks) << statistics;
  }
}

TEST(HostInfo, TheLocaleIsTheFirstVariableThatIsSet) {
  const struct {
    EnvironmentChange::Variables variables;
    Text country;
    Text language;
  } cases[] = {
      {{{"LC_ALL", "de_DE.UTF-8"}, {"LC_MESSAGES", "fr_FR"}, {"LANG", "it_IT"}}, "DE", "de"},
      {{{"LC_ALL", ""}, {"LC_MESSAGES", "pt_BR@euro"}, {"LANG", "it_IT"}}, "BR", "pt"},
      {{{"LC_ALL", {}}, {"LC_MESSAGES", {}}, {"LANG", "eo.UTF-8"}}, {}, "eo"},
      {{{"LC_ALL", "C.UTF-8"}, {"LC_MESSAGES", "fr_FR"}, {"LANG", "it_IT"}}, {}, {}},
      {{{"LC_ALL", {}}, {"LC_MESSAGES", {}}, {"LANG", "POSIX"}}, {}, {}},
      {{{"LC_ALL", {}}, {"LC_MESSAGES", {}}, {"LANG", {}}}, {}, {}},
  };
  for (const auto& [variables, country, language] : cases) {
    const EnvironmentChange change(variables);
    EXPECT_EQ(platform::localeCountry(), country);
    EXPECT_EQ(platform::localeLanguage(), language);
  }
}

TEST(HostInfo, AVolumeThatIsNotThereHasNoSpace) {
  const auto space = platform::volumeSpace("/");
  ASSERT_TRUE(space);
  EXPECT_GE(space->total, space->free);
  EXPECT_EQ(platform::volumeSpace("/no/such/place").has_value(), false);
}

TEST(UserDirectories, TheVariablesCountWhereTheyHoldAnAbsolutePath) {
  const struct {
    const char* variable;
    core::String (*directory)() noexcept;
    const char* standard;
  } cases[] = {
      {"XDG_DATA_HOME", platform::applicationSupportDirectory, "/home/someone/.local/share"},
      {"XDG_CONFIG_HOME", platform::configurationDirectory, "/home/someone/.config"},
      {"XDG_STATE_HOME", platform::stateDirectory, "/home/someone/.local/state"},
  };
  const test::LogCapture log;
  for (const auto& [variable, directory, standard] : cases) {
    const EnvironmentChange change({{"HOME", "/home/someone"}, {variable, "/data"}});
    EXPECT_EQ(directory(), "/data");
    ::unsetenv(variable);
    EXPECT_EQ(directory(), standard);
    EXPECT_TRUE(test::LogCapture::take().empty());
    ::setenv(variable, "relative/path", 1);
    EXPECT_EQ(directory(), standard);
    ::setenv(variable, "", 1);
    EXPECT_EQ(directory(), standard);
    EXPECT_TRUE(test::LogCapture::tookOne(variable)) << variable;
  }
}

TEST(UserDirectories, WithoutHomeThePasswordDatabaseIsAsked) {
  const passwd* entry = ::getpwuid(::geteuid());
  ASSERT_NE(entry, nullptr) << "the user who runs the tests is not in the password database";
  const std::string home = entry->pw_dir;
  for (const std::optional<std::string>& value : {std::optional<std::string>(), std::optional<std::string>("here")}) {
    const EnvironmentChange change("HOME", value);
    EXPECT_EQ(platform::homeDirectory(), home);
  }
}

TEST(UserDirectories, DocumentsAreTheHomeDirectoryWhereThereIsNoFolderForThem) {
  const test::TemporaryDirectory home;
  const EnvironmentChange change("HOME", home.path());
  EXPECT_EQ(platform::documentsDirectory(), home.path());
  std::filesystem::create_directory(home.file("Documents"));
  EXPECT_EQ(platform::documentsDirectory(), home.file("Documents"));
}

TEST(TimeZone, TheOffsetIsThatOfTheMomentAskedFor) {
  constexpr std::int64_t kWinter = 1705320000;  // 2024-01-15 12:00:00 UTC
  constexpr std::int64_t kSummer = 1721044800;  // 2024-07-15 12:00:00 UTC
  const std::tuple<const char*, int, int> cases[] = {
      {"IST-5:30", 19800, 19800},
      {"EST5EDT,M3.2.0,M11.1.0", -18000, -14400},
      {"UTC0", 0, 0},
  };
  for (const auto& [zone, winter, summer] : cases) {
    const EnvironmentChange change("TZ", zone);
    EXPECT_EQ(platform::utcOffsetAt(kWinter), winter) << zone;
    EXPECT_EQ(platform::utcOffsetAt(kSummer), summer) << zone;
  }
  const EnvironmentChange change("TZ", "IST-5:30");
  EXPECT_EQ(platform::localTime(kWinter).hour, 17);
  EXPECT_EQ(platform::localTime(kWinter).minute, 30);
}

TEST(TimeZone, TheOwnerOfACrashIsAnsweredThePresentOffset) {
  const EnvironmentChange change("TZ", "XXX-3");
  EXPECT_EQ(platform::utcOffsetAt(core::wallClockNanoseconds() / 1'000'000'000), 3 * 3600);
  EXPECT_EQ(platform::utcOffsetAt(0), 3 * 3600);
  ::setenv("TZ", "YYY+4", 1);
  ASSERT_EQ(core::CrashOwner::claim(), core::CrashOwner::Claim::kFirst);
  EXPECT_EQ(platform::utcOffsetAt(0), 3 * 3600);
  core::CrashOwner::release();
  EXPECT_EQ(platform::utcOffsetAt(0), -4 * 3600);
}

}  // namespace

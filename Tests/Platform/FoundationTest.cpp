#include <gtest/gtest.h>
#include <pwd.h>

#include "Core/Kernel/Process.h"
#include "Core/Memory/CrashOwner.h"
#include "Core/Text/Format.h"
#include "Platform/Foundation/HostInfo.h"
#include "Platform/Foundation/ProcessInfo.h"
#include "Platform/Foundation/TimeZone.h"
#include "Platform/Foundation/UserDirectories.h"
#include "Tests/Support/Child.h"
#include "Tests/Support/LogCapture.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

/// Files of a made-up host.
struct Host {
  test::TemporaryDirectory directory;
  platform::HostFiles files{directory.path(), directory.path()};

  platform::HostFiles with(const std::string& name, std::string_view text) const {
    test::writeFile(directory.file(name), text);
    return files;
  }
};

TEST(HostFiles, ProcessAndBootAreReadFromTheProcessFileSystem) {
  Host host;
  EXPECT_EQ(platform::processStartTime(host.files), std::nullopt);
  const auto attached = [&](std::string_view status) {
    return platform::debuggerAttached(host.with("self/status", status));
  };
  EXPECT_EQ(attached("Name:\tx\nTracerPid:\t0\n"), false);
  EXPECT_EQ(attached("TracerPid:\t4711\n"), true);
  EXPECT_EQ(attached("Name:\tTracerPid: 3\n"), std::nullopt);
  EXPECT_EQ(platform::bootTime(host.with("stat", "intr 5\nbtime 1700000000\n")), 1700000000);
  EXPECT_EQ(platform::parentProcessName(host.with(std::to_string(::getppid()) + "/comm", " my shell \n")),
            " my shell ");
  const auto startOf = [&](const std::string& name, long seconds) {
    const std::string ticks = std::to_string(seconds * ::sysconf(_SC_CLK_TCK));
    const std::string fields = ") R 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 " + ticks + " 23\n";
    return static_cast<double>(*platform::processStartTime(host.with("self/stat", "7 (" + name + fields)));
  };
  EXPECT_NEAR(startOf("a) b (", 90) - startOf("x", 0), 90000, 100);
}

TEST(HostFiles, TheVersionIsThatOfTheDistribution) {
  const Host host;
  const auto version = [&](std::string_view release) {
    const auto found = platform::operatingSystemVersion(host.with("os-release", release));
    return core::kiv_format("%d.%d.%d", found.majorVersion, found.minorVersion, found.patchVersion);
  };
  EXPECT_EQ(version("NAME=x\nVERSION_ID=\"22.04\"\n"), "22.4.0");
  EXPECT_EQ(version("VERSION_ID='40.1.2.3'\n"), "40.1.2");
  EXPECT_EQ(version("VERSION_ID=99999999999"), "2147483647.0.0");
  EXPECT_EQ(version("VERSION_ID=rolling\nMY_VERSION_ID=3\n"), "0.0.0");
}

TEST(HostFiles, MemoryAndProcessorTimeAreAddedUp) {
  const Host host;
  const auto memory = platform::memoryStatistics(
      host.with("meminfo",
                "MemFree:  1 kB\nActive: 2 kB\nInactive: 4 kB\nActive(anon): 99 kB\nUnevictable: 8 kB\n"
                "SUnreclaim: 16 kB\nKernelStack: 32 kB\nPageTables: 64 kB\n"));
  EXPECT_EQ(memory->free + memory->active * 1000 + memory->inactive * 1000000, 4002001U * 1024);
  EXPECT_EQ(memory->wired, 120U * 1024);
  EXPECT_EQ(platform::cpuTicks(host.with("stat", "cpu0 9 9 9 9\ncpu  1 2 3 4 10 100 1000 7 7\n")),
            (platform::CpuTicks{1, 1103, 14, 2}));
  EXPECT_EQ(platform::cpuTicks(host.with("stat", "cpu  4294967297 0 4294967295 0 0 1 1\n")),
            (platform::CpuTicks{1, 1, 0, 0}));
  EXPECT_EQ(platform::cpuTicks(host.with("stat", "cpu  1 2 3\n")), std::nullopt);
}

/// Calls `work` in a process of its own, where environment variables may be changed.
void inAnotherEnvironment(void (*work)()) {
  EXPECT_EQ(test::runInChild([&] { return work(), testing::Test::HasFailure() ? 1 : 0; }), 0);
}

TEST(Environment, TheLocaleIsTheFirstVariableThatIsSet) {
  inAnotherEnvironment([] {
    const char* const cases[][5] = {{"de_DE.UTF-8", "fr_FR", "it_IT", "DE", "de"},
                                    {"", "pt_BR@euro", "it_IT", "BR", "pt"},
                                    {"", "", "eo.UTF-8", "none", "eo"},
                                    {"C.UTF-8", "fr_FR", "it_IT", "none", "none"},
                                    {"", "", "", "none", "none"}};
    for (const auto& [all, messages, lang, country, language] : cases) {
      ::setenv("LC_ALL", all, 1);
      ::setenv("LC_MESSAGES", messages, 1);
      ::setenv("LANG", lang, 1);
      EXPECT_EQ(platform::localeCountry().value_or("none"), country);
      EXPECT_EQ(platform::localeLanguage().value_or("none"), language);
    }
  });
}

TEST(Environment, DirectoryVariablesCountWhereTheyHoldAnAbsolutePath) {
  inAnotherEnvironment([] {
    const std::tuple<const char*, core::String (*)() noexcept, const char*> cases[] = {
        {"XDG_DATA_HOME", platform::applicationSupportDirectory, "/home/someone/.local/share"},
        {"XDG_CONFIG_HOME", platform::configurationDirectory, "/home/someone/.config"},
        {"XDG_STATE_HOME", platform::stateDirectory, "/home/someone/.local/state"}};
    const test::LogCapture log;
    ::setenv("HOME", "/home/someone", 1);
    for (const auto& [variable, directory, standard] : cases) {
      ::unsetenv(variable);
      EXPECT_EQ(directory(), standard);
      ::setenv(variable, "/data", 1);
      EXPECT_EQ(directory(), "/data");
      EXPECT_TRUE(test::LogCapture::take().empty());
      for (const char* ignored : {"relative/path", ""}) {
        ::setenv(variable, ignored, 1);
        EXPECT_EQ(directory(), standard);
      }
      EXPECT_TRUE(test::LogCapture::tookOne(variable)) << variable;
    }
    ::setenv("HOME", "relative", 1);
    const passwd* entry = ::getpwuid(::geteuid());
    EXPECT_EQ(platform::homeDirectory(), entry != nullptr ? entry->pw_dir : "/");
  });
}

TEST(Environment, TheUtcOffsetIsThatOfTheMomentAskedFor) {
  inAnotherEnvironment([] {
    constexpr std::int64_t kWinter = 1705320000;  // 2024-01-15 12:00:00 UTC
    constexpr std::int64_t kSummer = 1721044800;  // 2024-07-15 12:00:00 UTC
    const std::tuple<const char*, int, int> cases[] = {{"EST5EDT,M3.2.0,M11.1.0", -18000, -14400},
                                                       {"IST-5:30", 19800, 19800}};
    for (const auto& [zone, winter, summer] : cases) {
      ::setenv("TZ", zone, 1);
      EXPECT_EQ(platform::utcOffsetAt(kWinter), winter) << zone;
      EXPECT_EQ(platform::utcOffsetAt(kSummer), summer) << zone;
    }
    EXPECT_EQ(platform::localTime(kWinter).hour * 100 + platform::localTime(kWinter).minute, 1730);
    // The owner of a crash is answered the offset of the last question about the present.
    platform::utcOffsetAt(core::wallClockNanoseconds() / 1'000'000'000);
    ::setenv("TZ", "XXX+4", 1);
    EXPECT_EQ(platform::utcOffsetAt(0), -4 * 3600);
    core::CrashOwner::claim();
    EXPECT_EQ(platform::utcOffsetAt(0), 19800);
  });
}

}  // namespace

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <random>
#include <sstream>
#include <thread>

#include "Tests/Harness/Aftermath.h"

// Deaths that hinder their own recording. Whatever happens to the process, its journal or its disk: the next
// start of the program finds one log of each crash. One round, or as many as KIV_HARNESS_ROUNDS says.

namespace {

using namespace std::chrono_literals;
using test::ExpectedLog;
using test::Writer;

constexpr int kSegv = 128 + SIGSEGV;
constexpr const char* kVictim = "survival_victim";
constexpr const char* kAgain = "SIGSEGV(SIGSEGV)";
constexpr const char* kAgainDivision = "SIGSEGV(SIGFPE)";
constexpr const char* kLastOfNull =
    "Last Exception :\nException Type: SIGSEGV\nException Codes: SEGV_MAPERR at 0x000000";

/// Where the data directory is.
enum class Disk { kUsual, kSmall, kReadOnly };

struct Row {
  const char* name;
  int end;  // exit status, or 128 + signal
  std::vector<ExpectedLog> logs;
  Disk disk = Disk::kUsual;
  const char* program = kVictim;
  std::chrono::milliseconds mostTime = 3s;
};

const Row kRows[] = {
    {"in-handler", kSegv, {{"nullWrite handleOwnSignal raiseOwnSignal"}}},
    {"fibre", kSegv, {{"recurse overflowStack"}}},
    {"stack-pointer", kSegv, {{"overwriteStackPointer"}}},
    {"fork", 0, {{.functions = "nullWrite crashInForkedChild", .isWhole = false}}},
    {"fork-and-parent",
     kSegv,
     {{.functions = "nullWrite crashInForkedChild", .isWhole = false}, {"nullWrite crashInForkAndParent"}}},
    {"vfork", 0, {}},
    {"vfork-and-parent", kSegv, {{"nullWrite crashInVforkAndParent"}}},
    {"module", kSegv, {{"crashInModule openModule"}}},
    {.name = "static", .end = kSegv, .logs = {{"nullWrite"}}, .program = "survival_static"},
    {"signals-blocked", kSegv, {{"nullWrite"}}},
    {"path-faults", kSegv, {{"writeNearNull nullWrite", Writer::kCrashed, kAgain, true, kLastOfNull}}},
    {"path-faults-same", kSegv, {{"nullWrite", Writer::kNextStart, "SIGSEGV", false}}},
    {"journal-emptied", kSegv, {{"nullWrite"}}},
    {"journal-halved", kSegv, {{"nullWrite"}}},
    {"disk-full", kSegv, {{"nullWrite", Writer::kNextStart}}, Disk::kSmall},
    {"disk-read-only", kSegv, {}, Disk::kReadOnly},
    {"directory-gone", kSegv, {{"nullWrite"}}},
    {"file-size", kSegv, {{"nullWrite", Writer::kNextStart}}},
    {"process-1", kSegv, {{"nullWrite"}}},
    {"process-1-hangs", kSegv, {{"nullWrite", Writer::kNextStart}}},
    {"errors-full", kSegv, {{"nullWrite"}}},
    {"errors-closed", kSegv, {{"nullWrite"}}},
    {"callback-same-fault", kSegv, {{"nullWrite", Writer::kNextStart}}},
    {"callback-other-fault",
     128 + SIGFPE,
     {{"integerDivision nullWrite", Writer::kCrashed, kAgainDivision, true, kLastOfNull}}},
    // Less than the time for all of the handling.
    {.name = "callback-hangs", .end = kSegv, .logs = {{"nullWrite", Writer::kNextStart}}, .mostTime = 2200ms},
    {"previous-leaves", 0, {{"nullWrite"}}},
    {"previous-leaves-once",
     128 + SIGFPE,
     {{"nullWrite crashAndLive"}, {"integerDivision", Writer::kCrashed, kAgainDivision, true, kLastOfNull}}},
};

/// Does the work on a thread that sees a fresh file system in `directory`, as do the programs that it starts.
template <class Work>
std::string withOwnDisk(const std::string& directory, unsigned long flags, Work work) {
  std::string fault;
  std::thread([&] {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", directory.c_str(), "tmpfs", flags, "size=64m") != 0) {
      fault = std::string("no file system can be mounted for it, which takes CAP_SYS_ADMIN: ") + strerror(errno);
      return;
    }
    fault = work();
  }).join();
  return fault;
}

/// Each process that the victim named has its own log.
std::string faultOfProcesses(const std::string& output, const std::vector<std::string>& logs) {
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("process ")) {
      continue;
    }
    std::size_t found = 0;
    for (const std::string& log : logs) {
      found += test::countOf(log, "\nProcess: survival_victim [" + line.substr(8) + "]\n");
    }
    if (found != 1) {
      return std::to_string(found) + " logs of the " + line + "\n" + (logs.empty() ? "" : logs[0]);
    }
  }
  return "";
}

std::string faultOf(const Row& row, int threads, const test::VictimHome& home) {
  const auto start = std::chrono::steady_clock::now();
  const test::Outcome outcome = home.run(row.program, {row.name, std::to_string(threads)}, {}, 9s);
  const auto time = std::chrono::steady_clock::now() - start;
  if (test::endOf(outcome) != row.end || time > row.mostTime) {
    return "after " + std::to_string(time / 1ms) + " ms it " + test::describe(outcome);
  }
  std::error_code ignored;
  std::filesystem::remove(home.path(".local/ballast"), ignored);  // a full disk has room again
  std::string fault = test::faultAfterNextStart(home, row.program, row.logs, threads);
  for (const auto& more :
       {faultOfProcesses(outcome.output, home.logs()), test::faultAfterThirdStart(home, row.program)}) {
    fault = fault.empty() ? more : fault;
  }
  return fault.empty() ? "" : fault + "\n---- the victim " + test::describe(outcome);
}

std::string faultOf(const Row& row, int threads) {
  const test::VictimHome home;
  if (row.disk == Disk::kUsual) {
    return faultOf(row, threads, home);
  }
  std::filesystem::create_directory(home.path(".local"));
  return withOwnDisk(home.path(".local"), row.disk == Disk::kReadOnly ? MS_RDONLY : 0,
                     [&] { return faultOf(row, threads, home); });
}

/// Kills a victim at some moment about its crash. From the first system call of the path on, one log must come of it.
std::string faultOfKill(std::chrono::microseconds delay, int threads) {
  const test::VictimHome home;
  const test::SharedPathReport report;
  test::Environment environment = report.environment();
  environment.merge(home.environment());
  test::Subprocess victim({test::pathOfVictim(kVictim), "null-write", std::to_string(threads), "count", "-1", "0"},
                          environment);
  if (!victim.waitForOutput("ready\n")) {
    return "it never came to its crash";
  }
  std::this_thread::sleep_for(delay);
  victim.kill(SIGKILL);
  const test::Outcome outcome = victim.wait();
  const std::vector<ExpectedLog> one = {{"nullWrite", Writer::kEither, "SIGSEGV", false}};
  const std::uint32_t calls = report->calls;
  std::string fault = test::faultAfterNextStart(home, kVictim, one, threads);
  if (calls == 0 && home.logs().empty()) {
    fault = "";
  }
  return fault.empty() ? "" : "after " + std::to_string(calls) + " system calls: " + fault;
}

constexpr int kKillsARound = 12;

class Survival : public testing::TestWithParam<int> {};

TEST_P(Survival, NoDeathIsLost) {
  std::map<std::string, int> passed;
  const auto note = [&](const std::string& name, const std::string& fault) {
    EXPECT_TRUE(fault.empty()) << name << " beside " << GetParam() << " threads: " << fault;
    passed[name] += fault.empty() ? 1 : 0;
  };
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  std::uniform_real_distribution<> share(0, 1);
  const std::chrono::microseconds mostDelay = 3ms + GetParam() * 50us;  // more threads take longer
  for (int round = 0; round < test::rounds(); ++round) {
    for (const Row& row : kRows) {
      note(row.name, faultOf(row, GetParam()));
    }
    std::string fault;
    for (int kill = 0; kill < kKillsARound && fault.empty(); ++kill) {
      const double part = share(random);  // squared: most of a crash's time is its last calls
      fault = faultOfKill(std::chrono::duration_cast<std::chrono::microseconds>(mostDelay * part * part), GetParam());
    }
    note("kill", fault.empty() ? "" : "seed " + std::to_string(seed) + ", " + fault);
  }
  if (test::rounds() > 1) {
    for (const auto& [name, count] : passed) {
      std::cout << "passed: " << name << " " << GetParam() << " " << count << std::endl;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Threads, Survival, testing::Values(1, 16, 256));

}  // namespace

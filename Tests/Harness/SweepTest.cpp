#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Tests/Harness/Aftermath.h"

// Each system call of the crash path in turn fails, never returns, faults or is the last one; one log comes
// of it all the same. So it is with the start that recovers a log. Beside one further thread, or as many as
// KIV_SWEEP_THREADS says.

namespace {

using test::ExpectedLog;
using test::Writer;

constexpr const char* kVictim = "survival_victim";
constexpr const char* kThreadsVariable = "KIV_SWEEP_THREADS";
constexpr std::chrono::seconds kMostTime{9};
constexpr std::size_t kLeastCalls = 40;

struct Sweep {
  const char* act;
  const char* type = "SIGSEGV";
  unsigned atOnce = 4;
};
constexpr Sweep kSweeps[] = {
    {"ENOSPC"},
    {"EMFILE"},
    {"EFAULT"},
    {"kill"},
    {"fault", nullptr},
    {"same-fault"},
    {"hang", "SIGSEGV", 48},  // each waits for its time to run out
};
constexpr unsigned kAtOnceOfMany = 4;  // programs of many threads, so that none is late by the others' work

/// The n-th system call of a kind.
struct Call {
  std::size_t kind;
  std::uint32_t n;
  auto operator<=>(const Call&) const = default;
};

std::vector<std::string> argumentsOf(const char* act, const Call& call) {
  return {act, std::to_string(call.kind), std::to_string(call.n)};
}

/// What is wrong with a death in which something happens at that call.
std::string faultOfCrash(const Sweep& way, const Call& call, int threads) {
  const test::VictimHome home;
  const test::SharedPathReport report;
  std::vector<std::string> arguments = argumentsOf(way.act, call);
  arguments.insert(arguments.begin(), {"null-write", std::to_string(threads)});
  const test::Outcome outcome = home.run(kVictim, arguments, report.environment(), kMostTime);
  const bool isKilled = way.act == std::string("kill") && report->callsOfKind[call.kind] >= call.n;
  if (outcome.signal != (isKilled ? SIGKILL : SIGSEGV)) {
    return "the victim " + test::describe(outcome);
  }
  std::vector<ExpectedLog> logs = {{"nullWrite", Writer::kEither, way.type, false}};
  if (way.act == std::string("fault") && home.logs().size() == 2) {
    logs.push_back(logs[0]);  // the first one was saved by then, in the second before
  }
  // Where a call failed, the file may be missing by which that start would tell of it.
  const test::Outcome next = home.run(kVictim, {"next", "0"});
  return test::endOf(next) == 0 ? test::faultOfFiles(home, logs, threads) : "the next start " + test::describe(next);
}

struct Death {
  const char* name;
  std::vector<std::string> arguments;
  ExpectedLog log;
};
const Death kDeaths[] = {
    {"recovery-of-facts", {"null-write", "1", "kill", "-1", "1"}, {"nullWrite", Writer::kNextStart, "SIGSEGV", false}},
    {"recovery-of-text", {"callback-same-fault", "1"}, {"nullWrite", Writer::kNextStart}},
};

/// What is wrong after a death that left its journal open, a start killed at that call while it recovers
/// the log, and one start more.
std::string faultOfRecovery(const Death& death, const Call& call) {
  const test::VictimHome home;
  const test::SharedPathReport report;
  home.run(kVictim, death.arguments);
  std::vector<std::string> arguments = argumentsOf("kill", call);
  arguments.insert(arguments.begin(), {"next", "0"});
  const test::Outcome first = home.run(kVictim, arguments, report.environment());
  if (test::endOf(first) != (report->callsOfKind[call.kind] >= call.n ? 128 + SIGKILL : 0)) {
    return "the first start " + test::describe(first);
  }
  // The first may have told of the log already, in vain.
  const test::Outcome second = home.run(kVictim, {"next", "0"});
  return test::endOf(second) == 0 ? test::faultOfFiles(home, {death.log}, 1)
                                  : "the second start " + test::describe(second);
}

/// All calls that a run makes, and one more of each kind, since no two runs are quite the same.
std::vector<Call> callsOf(const test::VictimHome& home, std::vector<std::string> arguments) {
  const test::SharedPathReport report;
  arguments.insert(arguments.end(), {"count", "-1", "0"});
  home.run(kVictim, arguments, report.environment());
  std::vector<Call> calls;
  for (std::size_t kind = 0; kind < PathReport::kKinds; ++kind) {
    const std::uint32_t made = report->callsOfKind[kind];
    for (std::uint32_t n = 1; made != 0 && n <= made + 1; ++n) {
      calls.push_back({kind, n});
    }
  }
  return calls;
}

/// Runs that went wrong in the same way.
struct Faults {
  std::set<Call> calls;
  std::string example;
};

/// Has `faultOf` look at each of the calls, several at a time. "" or what is wrong.
std::string sweep(const std::string& name, int threads, const std::vector<Call>& calls, unsigned atOnce,
                  const std::function<std::string(const Call&)>& faultOf) {
  std::atomic<std::size_t> next{0};
  std::mutex mutex;
  std::size_t passed = 0;
  std::map<std::string, Faults> faults;  // by the first line of what is said of them
  const auto work = [&] {
    for (std::size_t i; (i = next++) < calls.size();) {
      const std::string fault = faultOf(calls[i]);
      const std::lock_guard lock(mutex);
      if (fault.empty()) {
        ++passed;
        continue;
      }
      Faults& alike = faults[fault.substr(0, fault.find('\n'))];
      alike.calls.insert(calls[i]);
      alike.example = fault;
    }
  };
  std::vector<std::thread> workers;
  for (unsigned i = 0; i < atOnce; ++i) {
    workers.emplace_back(work);
  }
  std::for_each(workers.begin(), workers.end(), [](std::thread& worker) { worker.join(); });
  if (std::getenv(kThreadsVariable) != nullptr) {
    std::cout << "passed: " << name << " " << threads << " " << passed << "/" << calls.size() << std::endl;
  }
  std::string text = calls.size() > kLeastCalls ? "" : "hardly a call was counted\n";
  for (const auto& [line, alike] : faults) {
    text += "\n==== " + line + "\n==== at the calls (number of the system call, n-th of it)";
    for (const Call& call : alike.calls) {
      text += " " + std::to_string(call.kind) + "#" + std::to_string(call.n);
    }
    text += "; one of them:\n" + alike.example + "\n";
  }
  return text;
}

int furtherThreads() {
  const char* text = std::getenv(kThreadsVariable);
  return text != nullptr ? std::atoi(text) : 1;
}

TEST(Sweep, OfTheCrashPath) {
  const int threads = furtherThreads();
  const std::vector<Call> calls = callsOf(test::VictimHome(), {"null-write", std::to_string(threads)});
  for (const Sweep& each : kSweeps) {
    const unsigned atOnce = threads == 1 ? each.atOnce : kAtOnceOfMany;
    const auto fault =
        sweep(each.act, threads, calls, atOnce, [&](const Call& call) { return faultOfCrash(each, call, threads); });
    EXPECT_TRUE(fault.empty()) << each.act << ": " << fault;
  }
}

TEST(Sweep, OfTheRecovery) {
  for (const Death& death : kDeaths) {
    const test::VictimHome home;
    home.run(kVictim, death.arguments);
    const std::vector<Call> calls = callsOf(home, {"next", "0"});
    const auto fault = sweep(death.name, 1, calls, 4, [&](const Call& call) { return faultOfRecovery(death, call); });
    EXPECT_TRUE(fault.empty()) << death.name << ": " << fault;
  }
}

}  // namespace

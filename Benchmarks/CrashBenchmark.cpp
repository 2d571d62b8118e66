// What a crash takes, beside some threads that are blocked 20 frames deep: from the fault to the finished log, and
// to the end of the process, when its memory is given back and its descriptors close (the parent's wait for it may
// take milliseconds more, in which the kernel forgets the child's /proc); and the most memory that it adds. Each round
// starts this program again, which crashes, and writes the clock at both places. `withoutReporter` is what the kernel
// needs alone. What is saved goes below TMPDIR: a disk there costs one flush of it.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Core/Kernel/Symbols/SymbolTables.h"
#include "CrashReporter.h"

namespace {

constexpr int kReport = 3;  // the child's descriptor that leads to the parent
constexpr int kDepth = 17;

struct Moments {
  std::int64_t fault;
  std::int64_t log;
  std::int64_t resident;  // KiB, at the fault
};
Moments moments;

std::int64_t now() {
  return std::chrono::steady_clock::now().time_since_epoch().count();
}

volatile std::uintptr_t opaqueNull = 0;
std::atomic<int> blocked{0};
std::mutex gate;
std::condition_variable never;

[[gnu::noinline]] int blockDeep(int depth) {
  volatile int kept = depth;
  if (depth == 0) {
    std::unique_lock lock(gate);
    ++blocked;
    never.wait(lock, [] { return opaqueNull != 0; });
  } else {
    kept = blockDeep(depth - 1);
  }
  return kept + 1;
}

void tell() {
  if (write(kReport, &moments, sizeof moments) != sizeof moments) {
    _exit(1);
  }
}

int onLog() {
  moments.log = now();
  tell();
  return 0;
}

/// How much is resident now; the peak is counted anew from here on.
std::int64_t residentKibibytes() {
  std::ofstream("/proc/self/clear_refs") << 5;
  std::int64_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * (getpagesize() / 1024);
}

int crash(int threads, bool reported) {
  prctl(PR_SET_DUMPABLE, 0);
  if (reported) {
    CrashReporter& reporter = CrashReporter::sharedInstance();
    reporter.setEnableSymbolicateInProcess(true);
    reporter.setUserCrashHandlerCallback(onLog);
    reporter.installWithAppkey("com.example.benchmark");
    while (!core::SymbolTables::View().lookup(reinterpret_cast<std::uint64_t>(&crash))) {
      std::this_thread::yield();
    }
  }
  for (int i = 0; i < threads; ++i) {
    std::thread([] { blockDeep(kDepth); }).detach();
  }
  while (blocked < threads) {
    std::this_thread::yield();
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the others come to rest
  moments.resident = residentKibibytes();
  moments.fault = now();
  if (!reported) {
    tell();
  }
  *reinterpret_cast<volatile int*>(opaqueNull) = 1;
  return 0;
}

/// Lets a child crash; false when it did not tell all of it.
bool runChild(int threads, bool reported, const std::string& home, Moments& told, std::int64_t& end,
              std::int64_t& peak) {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  const std::string count = std::to_string(threads);
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return false;
  }
  const pid_t child = fork();
  if (child == 0) {
    setenv("HOME", home.c_str(), 1);
    dup2(ends[1], kReport);
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    execl(self.c_str(), self.c_str(), reported ? "--crash-reported" : "--crash-alone", count.c_str(), nullptr);
    _exit(1);
  }
  close(ends[1]);
  const bool isWhole = read(ends[0], &told, sizeof told) == sizeof told;
  char none;
  while (read(ends[0], &none, 1) > 0) {
  }
  end = now();
  int status = 0;
  rusage used{};
  wait4(child, &status, 0, &used);
  peak = used.ru_maxrss;
  close(ends[0]);
  return isWhole && WIFSIGNALED(status);
}

enum class Until { kLog, kEnd };

void crashed(benchmark::State& state, bool reported, Until until) {
  std::string home = std::filesystem::temp_directory_path() / "kiv-benchmark-XXXXXX";
  if (mkdtemp(home.data()) == nullptr) {
    state.SkipWithError("no home directory");
    return;
  }
  std::vector<double> times;
  std::int64_t added = 0;
  for (auto _ : state) {
    Moments told{};
    std::int64_t end = 0;
    std::int64_t peak = 0;
    if (!runChild(static_cast<int>(state.range(0)), reported, home, told, end, peak)) {
      state.SkipWithError("the child did not crash as it should");
      break;
    }
    times.push_back(static_cast<double>((until == Until::kLog ? told.log : end) - told.fault) * 1e-6);
    state.SetIterationTime(times.back() * 1e-3);
    added = std::max(added, peak - told.resident);
  }
  if (!times.empty()) {
    std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2), times.end());
    state.counters["median_ms"] = times[times.size() / 2];
    state.counters["added_MiB"] = static_cast<double>(added) / 1024;
  }
  std::filesystem::remove_all(home);
}

void faultToLog(benchmark::State& state) {
  crashed(state, true, Until::kLog);
}
void faultToEnd(benchmark::State& state) {
  crashed(state, true, Until::kEnd);
}
void withoutReporter(benchmark::State& state) {
  crashed(state, false, Until::kEnd);
}

void often(benchmark::internal::Benchmark* benchmark) {
  benchmark->UseManualTime()->Iterations(30)->Unit(benchmark::kMillisecond);
}
BENCHMARK(faultToLog)->Arg(1)->Arg(64)->Arg(256)->Apply(often);
BENCHMARK(faultToEnd)->Arg(1)->Arg(16)->Arg(256)->Apply(often);
BENCHMARK(withoutReporter)->Arg(1)->Arg(16)->Arg(256)->Apply(often);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strncmp(argv[1], "--crash", 7) == 0) {
    return crash(std::atoi(argv[2]), std::strcmp(argv[1], "--crash-reported") == 0);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}

// What installation costs the calling thread of a fresh process: each round starts this program
// again, which installs once and prints the nanoseconds.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "CrashReporter.h"

namespace {

constexpr const char* kChild = "--install-once";

int installOnce() {
  const auto start = std::chrono::steady_clock::now();
  const bool installed = CrashReporter::sharedInstance().installWithAppkey("com.example.benchmark");
  const auto time = std::chrono::steady_clock::now() - start;
  std::printf("%lld\n", static_cast<long long>(std::chrono::nanoseconds(time).count()));
  return installed ? 0 : 1;
}

/// `first` also makes the data directory and its files.
void install(benchmark::State& state, bool first) {
  std::string home = "/tmp/kiv-benchmark-XXXXXX";
  if (::mkdtemp(home.data()) == nullptr) {
    state.SkipWithError("no home directory");
    return;
  }
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  for (auto _ : state) {
    if (first) {
      std::filesystem::remove_all(home);
      std::filesystem::create_directory(home);
    }
    const std::string command = "HOME=" + home + " '" + self + "' " + kChild + " 2>/dev/null";
    FILE* child = ::popen(command.c_str(), "r");
    long long nanoseconds = 0;
    const bool read = child != nullptr && std::fscanf(child, "%lld", &nanoseconds) == 1;
    if (child == nullptr || ::pclose(child) != 0 || !read) {
      state.SkipWithError("the installation failed");
      break;
    }
    state.SetIterationTime(static_cast<double>(nanoseconds) * 1e-9);
  }
  std::filesystem::remove_all(home);
}

void firstInstallation(benchmark::State& state) {
  install(state, true);
}
void laterInstallation(benchmark::State& state) {
  install(state, false);
}

BENCHMARK(firstInstallation)->UseManualTime()->Iterations(50)->Unit(benchmark::kMillisecond);
BENCHMARK(laterInstallation)->UseManualTime()->Iterations(50)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], kChild) == 0) {
    return installOnce();
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}

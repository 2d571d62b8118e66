#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "Core/Text/Format.h"
#include "Platform/Foundation/UserDefaults.h"

// What the reporter does with the user defaults at a crash and at each change of the
// program's state: one value set and stored among those that are there already.

namespace {

/// Defaults with `count` values in a directory that is removed at the end.
class Defaults {
 public:
  explicit Defaults(std::int64_t count) : directory_(makeDirectory()), defaults_(directory_ + "/defaults.plist") {
    for (std::int64_t key = 0; key < count; ++key) {
      defaults_.setObject(core::kiv_format("com.example.key.%lld", key), core::Value(key));
    }
    defaults_.synchronize();
  }
  Defaults(const Defaults&) = delete;
  Defaults& operator=(const Defaults&) = delete;
  ~Defaults() {
    defaults_.synchronize();
    std::filesystem::remove_all(directory_);
  }
  platform::UserDefaults* operator->() { return &defaults_; }

 private:
  static std::string makeDirectory() {
    std::string path = (std::filesystem::temp_directory_path() / "kiv-benchmark-XXXXXX").string();
    return ::mkdtemp(path.data()) != nullptr ? path : throw std::filesystem::filesystem_error("mkdtemp", {});
  }

  std::string directory_;
  platform::UserDefaults defaults_;
};

void setAndSynchronize(benchmark::State& state) {
  Defaults defaults(state.range(0));
  std::int64_t value = 0;
  for (auto _ : state) {
    defaults->setObject("changing", core::Value(++value));
    if (!defaults->synchronize()) {
      state.SkipWithError("the defaults could not be stored");
      break;
    }
  }
}
BENCHMARK(setAndSynchronize)->Arg(10)->Arg(100)->UseRealTime();

void setInMemory(benchmark::State& state) {
  Defaults defaults(state.range(0));
  std::int64_t value = 0;
  for (auto _ : state) {
    defaults->setObject("changing", core::Value(++value));
  }
}
BENCHMARK(setInMemory)->Arg(10)->Arg(100)->UseRealTime();

void lookUp(benchmark::State& state) {
  Defaults defaults(state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(defaults->integer("com.example.key.7"));
  }
}
BENCHMARK(lookUp)->Arg(10)->Arg(100);

}  // namespace

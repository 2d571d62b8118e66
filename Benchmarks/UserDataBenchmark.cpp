// What the program pays for telling the reporter something ahead of a crash, with the journal kept
// current: a key-value, a scene value, a session event, a user, beside as much as there may be.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "CrashReporter.h"

namespace {

/// The reporter, installed once, with a home of its own.
CrashReporter& reporter() {
  static CrashReporter& installed = [&]() -> CrashReporter& {
    static std::string home = std::filesystem::temp_directory_path() / "kiv-benchmark-XXXXXX";
    if (mkdtemp(home.data()) == nullptr) {
      abort();
    }
    std::atexit([] { std::filesystem::remove_all(home); });
    setenv("HOME", home.c_str(), 1);
    unsetenv("XDG_DATA_HOME");
    CrashReporter& made = CrashReporter::sharedInstance();
    if (!made.installWithAppkey("com.example.benchmark")) {
      abort();
    }
    return made;
  }();
  return installed;
}

std::string numbered(const char* text, std::int64_t number) {
  return text + std::to_string(number % 1000);
}

void setUserData(benchmark::State& state) {
  for (int i = 0; i < 10; ++i) {
    reporter().setUserData(numbered("key", i), "a value of some forty characters in all");
  }
  std::int64_t value = 0;
  for (auto _ : state) {
    reporter().setUserData("changing", numbered("value", ++value));
  }
}
BENCHMARK(setUserData);

void setSceneValue(benchmark::State& state) {
  for (int i = 0; i < 10; ++i) {
    reporter().setSceneValue("a value of some forty characters in all", numbered("key", i));
  }
  std::int64_t value = 0;
  for (auto _ : state) {
    reporter().setSceneValue(numbered("value", ++value), "changing");
  }
}
BENCHMARK(setSceneValue);

/// Beside as many events as are kept, each of that many characters.
void sessionEvent(benchmark::State& state) {
  const std::string filler(static_cast<std::size_t>(state.range(0)), 'e');
  for (int i = 0; i < 100; ++i) {
    reporter().sessionEvent(filler);
  }
  for (auto _ : state) {
    reporter().sessionEvent(filler);
  }
}
BENCHMARK(sessionEvent)->Arg(40)->Arg(200);

void setUserId(benchmark::State& state) {
  std::int64_t value = 0;
  for (auto _ : state) {
    reporter().setUserId(numbered("user", ++value));
  }
}
BENCHMARK(setUserId);

}  // namespace

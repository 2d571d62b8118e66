#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "Core/Text/Format.h"
#include "Kiv/crashhandler/persist/KivFilePersistHandler.h"
#include "Platform/Logging/NSLog.h"

// What the store does at a start and at a crash, with 1, 100 and 1,000 stored crashes of distinct
// hashes and seconds, each with a log of 30 KB. What is saved goes below TMPDIR.

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLogSize = 30 << 10;

std::string makeDirectory() {
  std::string path = (fs::temp_directory_path() / "kiv-benchmark-XXXXXX").string();
  return ::mkdtemp(path.data()) != nullptr ? path : throw fs::filesystem_error("mkdtemp", {});
}

KivExpObj crash(std::int64_t number) {
  static const std::string log(kLogSize, 'x');
  KivExpObj record;
  record.setHash(core::kiv_format("%032lld", number));
  record.time = record.cashTime = 1520258589000 + number * 1000;
  record.attachmentList = {{KivExpAttachment::kLogType, "crash.log", core::Data(log.data(), log.size())}};
  return record;
}

/// A directory with that many crashes, removed at the end.
class StoredCrashes {
 public:
  explicit StoredCrashes(std::int64_t count) : directory_(makeDirectory()) {
    ::setenv("XDG_DATA_HOME", (directory_ + "/home").c_str(), 1);
    KivFilePersistHandler store(folder());
    for (std::int64_t number = 1; number <= count; ++number) {
      KivExpObj record = crash(number);
      store.saveOneCrash(record);
    }
    ::sync();  // what was stored is not written back while something is timed
  }
  StoredCrashes(const StoredCrashes&) = delete;
  StoredCrashes& operator=(const StoredCrashes&) = delete;
  ~StoredCrashes() { fs::remove_all(directory_); }

  core::String folder() const { return directory_ + "/store"; }

  /// From now on the index cannot be opened, and so is not written.
  void closeIndex() const {
    const std::string index = folder().str() + "/.crash_meta.data";
    fs::remove(index);
    fs::create_symlink(index, index);
    platform::setLogSink([](std::string_view) noexcept {});
  }

 private:
  std::string directory_;
};

void load(benchmark::State& state) {
  const StoredCrashes crashes(state.range(0));
  for (auto _ : state) {
    KivFilePersistHandler store(crashes.folder());
    store.loadAllDatas();
    benchmark::DoNotOptimize(store.hasCrash());
  }
}

void list(benchmark::State& state) {
  const StoredCrashes crashes(state.range(0));
  KivFilePersistHandler store(crashes.folder());
  store.loadAllDatas();
  for (auto _ : state) {
    if (store.getAllCrashed(1000).size() != static_cast<std::size_t>(state.range(0))) {
      state.SkipWithError("not all crashes were listed");
      break;
    }
  }
}

/// One more crash, the same in every round, so that the number of stored ones stays.
void saveOne(benchmark::State& state, bool writesIndex) {
  const StoredCrashes crashes(state.range(0));
  KivFilePersistHandler store(crashes.folder());
  store.loadAllDatas();
  if (!writesIndex) {
    crashes.closeIndex();
  }
  KivExpObj record = crash(0);
  for (auto _ : state) {
    record.cashTime += 1;
    store.saveOneCrash(record);
  }
  if (!store.getCrashWithMd5(*record.hash())) {
    state.SkipWithError("the crash was not saved");
  }
  platform::setLogSink(nullptr);
}

void save(benchmark::State& state) {
  saveOne(state, true);
}
void saveWithoutIndexWrite(benchmark::State& state) {
  saveOne(state, false);
}

void withCrashes(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(1)->Arg(100)->Arg(1000)->UseRealTime()->Unit(benchmark::kMicrosecond);
}
BENCHMARK(load)->Apply(withCrashes);
BENCHMARK(list)->Apply(withCrashes);
BENCHMARK(save)->Apply(withCrashes);
BENCHMARK(saveWithoutIndexWrite)->Apply(withCrashes);

}  // namespace

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "Core/PropertyList/BinaryPropertyList.h"
#include "Core/Text/Format.h"
#include "Kiv/common/model/KivExpObj.h"

// The keyed archive of a crash record of 300 KB: written to disk while a crash is handled, read
// back to be merged or uploaded. Beside it the bare property list inside, and memcpy of the same bytes.

namespace {

/// 64 threads of 30 frames, 80 images, and a log that brings the archive to 300 KB.
KivExpObj crashRecord() {
  KivExpObj record;
  record.setHash("0123456789ABCDEF0123456789ABCDEF");
  record.crashType = "100";
  record.exceptionType = "SIGSEGV";
  for (int thread = 0; thread < 64; ++thread) {
    core::StringBuilder text;
    for (int frame = 0; frame < 30; ++frame) {
      kiv_append(text, "%-2d %@ %#018llx %#018llx + %lu\n", frame, "libtransport.so", 0x7f3a12c0d010 + thread * 4096,
                 0x7f3a12bee000, 127504L + thread * 31 + frame);
    }
    record.allStacks.set(core::kiv_format("%d|worker-%d", thread, thread), text.str());
  }
  record.callStack = record.allStacks.begin()->value;
  for (int image = 0; image < 80; ++image) {
    KivAppInfo& info = record.appInfoList.emplace();
    info.processName = core::kiv_format("libmodule%d.so", image);
    info.cpuArchVersion = "x86_64";
    info.processUUID = core::kiv_format("%032d", image);
    info.processBaseAddr = core::kiv_format("%#018llx", 0x7f3a12c0d000 + image * 65536);
    info.endAddress = core::kiv_format("%#018llx", 0x7f3a12c1d000 + image * 65536);
    info.path = core::kiv_format("/usr/lib/x86_64-linux-gnu/libmodule%d.so.1.2.3", image);
  }
  record.appInfo = record.appInfoList[0];
  const std::string log(300 * 1024 - core::archive::archived(record).size(), 'x');
  record.attachmentList = {{KivExpAttachment::kLogType, "crash.log", core::Data(log.data(), log.size())}};
  return record;
}

void setBytes(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

void archiveRecord(benchmark::State& state) {
  const KivExpObj record = crashRecord();
  for (auto _ : state) {
    benchmark::DoNotOptimize(core::archive::archived(record));
  }
  setBytes(state, core::archive::archived(record).size());
}

void unarchiveRecord(benchmark::State& state) {
  const core::Data bytes = core::archive::archived(crashRecord());
  for (auto _ : state) {
    const auto read = core::archive::unarchived<KivExpObj>(bytes.span());
    if (!read) {
      state.SkipWithError(read.error().reason);
      return;
    }
    benchmark::DoNotOptimize(*read);
  }
  setBytes(state, bytes.size());
}

void decodePropertyListInside(benchmark::State& state) {
  const core::Data bytes = core::archive::archived(crashRecord());
  for (auto _ : state) {
    benchmark::DoNotOptimize(core::decodeBinaryPropertyList(bytes.span()));
  }
  setBytes(state, bytes.size());
}

void copyBytes(benchmark::State& state) {
  const core::Data bytes = core::archive::archived(crashRecord());
  std::vector<std::uint8_t> copy(bytes.size());
  for (auto _ : state) {
    std::memcpy(copy.data(), bytes.data(), bytes.size());
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
  setBytes(state, bytes.size());
}

BENCHMARK(archiveRecord);
BENCHMARK(unarchiveRecord);
BENCHMARK(decodePropertyListInside);
BENCHMARK(copyBytes);

}  // namespace

#include <benchmark/benchmark.h>
#include <malloc.h>

#include "Benchmarks/WexScenes.h"

// The tagged format at the sizes of reports; memcpy of the same bytes is what no format can
// beat. ProtobufBenchmark is this program with protobuf's figures beside these.

namespace {

using analyticsyut::WexInputStream;
using analyticsyut::WexOutputStream;

/// Memory stays with the process: page faults would be most of what is measured, for every format.
const bool memoryStays = mallopt(M_TRIM_THRESHOLD, 1 << 30) == 1 && mallopt(M_MMAP_THRESHOLD, 1 << 30) == 1;

template <class Value>
core::Data encoded(const Value& value) {
  WexOutputStream out;
  out.write(value, 0);
  return out.data();
}

void setBytes(benchmark::State& state, std::size_t size) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}

template <class Value>
void encode(benchmark::State& state, Value (*make)()) {
  const Value value = make();
  std::size_t size = 0;
  for (auto _ : state) {
    WexOutputStream out;
    out.write(value, 0);
    benchmark::DoNotOptimize(out.buffer());
    size = out.length();
  }
  setBytes(state, size);
}

template <class Value>
void decode(benchmark::State& state, Value (*make)()) {
  const core::Data bytes = encoded(make());
  for (auto _ : state) {
    Value value;
    WexInputStream in(bytes.span());
    in.read(value, 0, true);
    benchmark::DoNotOptimize(value);
  }
  setBytes(state, bytes.size());
}

/// The same bytes into new memory.
template <class Value>
void copy(benchmark::State& state, Value (*make)()) {
  const core::Data bytes = encoded(make());
  for (auto _ : state) {
    void* memory = core::allocate(bytes.size());
    std::memcpy(memory, bytes.data(), bytes.size());
    benchmark::DoNotOptimize(memory);
    benchmark::ClobberMemory();
    core::deallocate(memory);
  }
  setBytes(state, bytes.size());
}

scenes::Texts map() {
  return scenes::texts(1000);
}
core::Array<kiv::AppInfo> list() {
  return scenes::images(10000);
}

BENCHMARK_CAPTURE(encode, crash, scenes::crash);
BENCHMARK_CAPTURE(decode, crash, scenes::crash);
BENCHMARK_CAPTURE(copy, crash, scenes::crash);
BENCHMARK_CAPTURE(encode, map, map);
BENCHMARK_CAPTURE(decode, map, map);
BENCHMARK_CAPTURE(copy, map, map);
BENCHMARK_CAPTURE(encode, list, list);
BENCHMARK_CAPTURE(decode, list, list);
BENCHMARK_CAPTURE(copy, list, list);

}  // namespace

// What a throw costs that is caught ten frames up. Built twice: ThrowBenchmark as any program is,
// ThrowHookBenchmark with the hook that notes the place of each throw.

#include <benchmark/benchmark.h>

#include <stdexcept>

namespace {

constexpr int kFrames = 10;

[[gnu::noinline]] int throwBelow(int frames) {
  if (frames == 0) {
    throw std::runtime_error("measured");
  }
  const int below = throwBelow(frames - 1);
  asm volatile("");  // not a jump
  return below + 1;
}

[[gnu::noinline]] int catchFromBelow(int frames) {
  try {
    return throwBelow(frames);
  } catch (const std::runtime_error&) {
    return 0;
  }
}

void throwAndCatch(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(catchFromBelow(kFrames - 1));
  }
}
BENCHMARK(throwAndCatch);

}  // namespace

#include <benchmark/benchmark.h>

#include <cstdio>

#include "Core/Text/Format.h"

// Lines of the library's log and crash text, formatted by kiv_format and by snprintf. Both
// sides make a String ("text") or write into memory that is there already ("buffer").

namespace {

using core::kiv_append;
using core::kiv_format;
using core::String;

constexpr std::size_t kRoom = 512;

const char* const kVersion = "2.2.1.5";
const char* const kBundle = "com.velmora.ovalyn";
const char* const kDevice = "Desktop14,1";
const char* const kLibrary = "libtransport.so";

/// Keeps the compiler from knowing the arguments.
template <class T>
T opaque(T value) {
  asm volatile("" : "+r"(value));
  return value;
}

}  // namespace

#define KIV_LINE(name, kivText, cText, ...)                                               \
  void name##KivText(benchmark::State& state) {                                           \
    for (auto _ : state) {                                                                \
      String made = kiv_format(kivText, __VA_ARGS__);                                     \
      benchmark::DoNotOptimize(made);                                                     \
    }                                                                                     \
  }                                                                                       \
  void name##CText(benchmark::State& state) {                                             \
    for (auto _ : state) {                                                                \
      char buffer[kRoom];                                                                 \
      const int size = std::snprintf(buffer, sizeof buffer, cText, __VA_ARGS__);          \
      String made = String(std::string_view(buffer, static_cast<std::size_t>(size)));     \
      benchmark::DoNotOptimize(made);                                                     \
    }                                                                                     \
  }                                                                                       \
  void name##KivBuffer(benchmark::State& state) {                                         \
    core::StringBuilder out(kRoom);                                                       \
    for (auto _ : state) {                                                                \
      out.clear();                                                                        \
      kiv_append(out, kivText, __VA_ARGS__);                                              \
      benchmark::DoNotOptimize(out.view().data());                                        \
      benchmark::ClobberMemory();                                                         \
    }                                                                                     \
  }                                                                                       \
  void name##CBuffer(benchmark::State& state) {                                           \
    char buffer[kRoom];                                                                   \
    for (auto _ : state) {                                                                \
      benchmark::DoNotOptimize(std::snprintf(buffer, sizeof buffer, cText, __VA_ARGS__)); \
      benchmark::ClobberMemory();                                                         \
    }                                                                                     \
  }                                                                                       \
  BENCHMARK(name##KivText);                                                               \
  BENCHMARK(name##CText);                                                                 \
  BENCHMARK(name##KivBuffer);                                                             \
  BENCHMARK(name##CBuffer)

KIV_LINE(install, "<KIV> Init sdk[%@] with appid:[%@], bundle:[%@, %@], device:[%@, %@]",
         "<KIV> Init sdk[%s] with appid:[%s], bundle:[%s, %s], device:[%s, %s]", opaque(kVersion), opaque("0I000A1B2C"),
         opaque(kBundle), opaque("4.8.1(210)"), opaque(kDevice), opaque("Mac OS X 6.1.0(6.1.0-13)"));
KIV_LINE(trap, "<KIV> Trap a fatal signal: %d [%d, %d, %d]", "<KIV> Trap a fatal signal: %d [%d, %d, %d]", opaque(11),
         opaque(11), opaque(0), opaque(1));
KIV_LINE(forward, "<INFO> <KIV> Forward signal %d to the handler %p",
         "<INFO> <KIV> Forward signal %d to the handler %p", opaque(6), opaque(static_cast<const void*>(kLibrary)));
KIV_LINE(registers, "%6s: %#018qx %6s: %#018qx %6s: %#018qx %6s: %#018qx\n",
         "%6s: %#018llx %6s: %#018llx %6s: %#018llx %6s: %#018llx\n", opaque("rax"), opaque(0x7f3a12c0d010ULL),
         opaque("rbx"), opaque(0x1ULL), opaque("rcx"), opaque(0xffffffffffffffc8ULL), opaque("rdx"),
         opaque(0x55d0a7e1b2c0ULL));
KIV_LINE(frame, "%-2d %@ %#018llx %#018llx + %lu", "%-2d %s %#018llx %#018llx + %lu", opaque(17), opaque(kLibrary),
         opaque(0x7f3a12c0d010ULL), opaque(0x7f3a12bee000ULL), opaque(127504UL));

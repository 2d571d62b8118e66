#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <thread>
#include <utility>

namespace bench {

using Work = std::function<void()>;

/// The calls of a stack are functions of their own, with frames of 48 to 144 bytes.
template <std::size_t Level>
[[gnu::noinline]] void call(const Work& work) {
  char local[16 + Level % 7 * 16];
  asm volatile("" : : "r"(local) : "memory", "rbx", "r12");
  if constexpr (Level == 0) {
    work();
  } else {
    call<Level - 1>(work);
  }
  asm volatile("" : : "r"(local), "r"(&work) : "memory");
}

/// Runs `work` under `calls` calls, 40 at most.
inline void callDeep(std::size_t calls, const Work& work) {
  static constexpr auto kStarts = []<std::size_t... Level>(std::index_sequence<Level...>) {
    return std::array<void (*)(const Work&), sizeof...(Level)>{&call<Level>...};
  }
  (std::make_index_sequence<40>());
  kStarts[calls - 1](work);
}

/// The same with one function that calls itself.
[[gnu::noinline]] inline void callAgain(std::size_t calls, const Work& work) {
  if (calls == 1) {
    work();
  } else {
    callAgain(calls - 1, work);
  }
  asm volatile("" : : "r"(&work) : "memory");
}

/// Runs `work` in a thread of its own, where `countFrames()` answers `frames`. The frames around
/// a benchmark are some kilobytes large, which says nothing of stacks.
template <class Call, class Count>
void callAtDepth(std::size_t frames, Call&& call, Count&& countFrames, const Work& work) {
  std::thread([&] {
    std::size_t atOne = 0;
    call(1, [&] { atOne = countFrames(); });
    call(1 + frames - atOne, work);
  }).join();
}

}  // namespace bench

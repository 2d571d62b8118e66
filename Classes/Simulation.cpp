#include "Classes/Simulation.h"

#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace {

[[gnu::noinline]] void decodeFrame(volatile int* frame) {
  *frame = 1;
}

[[gnu::noinline]] void giveUpOnFrame() {
  std::abort();
}

[[gnu::noinline]] void refuseFrame() {
  throw std::runtime_error("The frame is of another stream");
}

template <class Step>
[[gnu::noinline]] void renderNextFrame(Step step) {
  step();
  asm volatile("");  // keeps the call from becoming a jump, and this frame from vanishing
}

}  // namespace

void simulateSignal() {
  renderNextFrame([] { decodeFrame(nullptr); });
  asm volatile("");
}

int simulateHang() {
  for (;;) {
    pause();
  }
}

void simulateAbort() {
  renderNextFrame(giveUpOnFrame);
  asm volatile("");
}

void simulateException() {
  renderNextFrame(refuseFrame);
  asm volatile("");
}

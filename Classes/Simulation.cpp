#include "Classes/Simulation.h"

namespace {

[[gnu::noinline]] void decodeFrame(volatile int* frame) {
  *frame = 1;
}

[[gnu::noinline]] void renderNextFrame() {
  decodeFrame(nullptr);
  asm volatile("");  // keeps the call from becoming a jump, and this frame from vanishing
}

}  // namespace

void simulateSignal() {
  renderNextFrame();
  asm volatile("");
}

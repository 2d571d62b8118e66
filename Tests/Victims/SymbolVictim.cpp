// Built as a plainly static program: names a function of its own, one of the C library and one
// that is none.

#include <cstdio>
#include <cstdlib>

#include "Core/Kernel/Symbols/SymbolTables.h"

extern "C" {
static int localFunction(int value) asm("localFunction");  // compilers name it differently
__attribute__((noinline, used)) static int localFunction(int value) {
  return value + 1;
}
}

namespace {

void print(std::uint64_t address) {
  const core::SymbolTables::View view;
  if (const auto symbol = view.lookup(address)) {
    std::printf("%s+%llu ", symbol->name.data(), static_cast<unsigned long long>(symbol->distance));
  } else {
    std::printf("-");
  }
}

}  // namespace

int main() {
  core::SymbolTables::refresh();
  print(reinterpret_cast<std::uint64_t>(&localFunction) + 1);
  print(reinterpret_cast<std::uint64_t>(&std::qsort));
  print(reinterpret_cast<std::uint64_t>(&stdout));
  std::printf("\n");
}

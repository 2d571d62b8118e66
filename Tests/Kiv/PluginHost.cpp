// A program without the crash reporter: opens the library that it is given, which installs one,
// and crashes on a fresh thread, showing what the handling asks of the heap.

#include <dlfcn.h>
#include <sys/prctl.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

#include "Tests/Support/HeapCount.h"

int main(int argc, char** argv) {
  prctl(PR_SET_DUMPABLE, 0);
  void* plugin = argc == 2 ? ::dlopen(argv[1], RTLD_NOW) : nullptr;
  auto* const install = plugin != nullptr ? reinterpret_cast<bool (*)()>(::dlsym(plugin, "installReporter")) : nullptr;
  if (install == nullptr || !install()) {
    std::fputs("cannot install from the library\n", stderr);
    return 1;
  }
  std::thread([] {
    test::showHeapCalls();
    static volatile int* volatile null = nullptr;
    *null = 1;
  }).join();
  return 1;
}

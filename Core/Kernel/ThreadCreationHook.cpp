#include <dlfcn.h>
#include <errno.h>
#include <threads.h>

#include "Core/Kernel/ThreadStart.h"

// The hook on thread creation: in a program that links it, all threads start with an alternate
// stack, those included that its shared libraries make. Not under a sanitizer, which has such a
// hook of its own.

extern "C" {

// The C library's own function under the name that a wholly static program can reach it by; in others
// it is not there. The linker takes it out of the archive for thrd_create's sake.
[[gnu::weak]] int __pthread_create_2_1(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                                       void* argument) noexcept;
[[gnu::used]] static int (*const bringsThreads)(thrd_t*, thrd_start_t, void*) = thrd_create;

[[gnu::visibility("default")]] int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                                  void* (*routine)(void*), void* argument) noexcept {
  static const auto next = __pthread_create_2_1 != nullptr
                               ? core::ThreadMaker{__pthread_create_2_1}
                               : reinterpret_cast<core::ThreadMaker>(dlsym(RTLD_NEXT, "pthread_create"));
  if (next == nullptr) {
    return EAGAIN;
  }
  return core::startThread(next, thread, attributes, routine, argument);
}

}  // extern "C"

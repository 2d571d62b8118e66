#include <dlfcn.h>
#include <errno.h>

#include "Core/Kernel/ThreadStart.h"

// The hook on thread creation: a program that links this object has its threads, those that
// its shared libraries make included, start with an alternate stack. In a program that is
// wholly static, link ThreadCreationWrap.cpp in its place. Not under a sanitizer, which has
// such a hook of its own.

extern "C" [[gnu::visibility("default")]] int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                                             void* (*routine)(void*), void* argument) noexcept {
  static const auto next = reinterpret_cast<core::ThreadMaker>(dlsym(RTLD_NEXT, "pthread_create"));
  if (next == nullptr) {
    return EAGAIN;
  }
  return core::startThread(next, thread, attributes, routine, argument);
}

#include "Core/Kernel/ThreadStart.h"

// The hook on thread creation for a program that is wholly static, where no symbol can stand before
// the C library's: link with -Wl,--wrap=pthread_create.

extern "C" int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                                     void* argument);

extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                                     void* argument) {
  return core::startThread(__real_pthread_create, thread, attributes, routine, argument);
}

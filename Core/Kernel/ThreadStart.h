#pragma once

#include <pthread.h>

namespace core {

using ThreadRoutine = void* (*)(void*);
using ThreadMaker = int (*)(pthread_t*, const pthread_attr_t*, ThreadRoutine, void*);

/// Makes a thread by `make` that gives itself an alternate stack before it runs `routine`. What the
/// hooks on thread creation call. Answers as pthread_create does.
int startThread(ThreadMaker make, pthread_t* thread, const pthread_attr_t* attributes, ThreadRoutine routine,
                void* argument);

}  // namespace core

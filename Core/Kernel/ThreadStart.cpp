#include "Core/Kernel/ThreadStart.h"

#include "Core/Kernel/AlternateStack.h"
#include "Core/Memory/Allocator.h"
#include "Core/Memory/CrashOwner.h"

namespace core {
namespace {

struct Start {
  ThreadRoutine routine;
  void* argument;
};

// Neither noexcept nor a frame with clean-ups: the end of a thread from within, by pthread_exit or
// by a cancellation, unwinds through it.
void* runThread(void* memory) {
  const Start start = *static_cast<Start*>(memory);
  deallocate(memory);
  AlternateStack::giveToCaller();
  return start.routine(start.argument);
}

}  // namespace

int startThread(ThreadMaker make, pthread_t* thread, const pthread_attr_t* attributes, ThreadRoutine routine,
                void* argument) {
  if (CrashOwner::isCurrentThread()) {
    return make(thread, attributes, routine, argument);  // no crash heap for what outlives the crash
  }
  auto* start = static_cast<Start*>(allocate(sizeof(Start)));
  *start = {routine, argument};
  const int error = make(thread, attributes, runThread, start);
  if (error != 0) {
    deallocate(start);
  }
  return error;
}

}  // namespace core

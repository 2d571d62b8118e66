#include "Platform/RunLoop/Thread.h"

#include <linux/futex.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <utility>

#include "Core/Kernel/AlternateStack.h"
#include "Core/Kernel/Process.h"
#include "Core/Kernel/SystemCall.h"
#include "Core/Kernel/ThreadSuspension.h"
#include "Core/Memory/Allocator.h"
#include "Platform/RunLoop/Clock.h"

namespace platform {
namespace {

/// A word that goes once from 0 to 1 and can be waited for, without a lock.
class Event {
 public:
  bool isSet() const noexcept { return word_.load(std::memory_order_acquire) != 0; }

  void set() noexcept {
    word_.store(1, std::memory_order_release);
    core::rawSystemCall(SYS_futex, core::systemCallArgument(&word_), FUTEX_WAKE_PRIVATE, INT_MAX);
  }

  /// Whether it was set within the time.
  bool wait(double seconds) const noexcept {
    const std::int64_t end = core::monotonicNanoseconds() + nanosecondsOf(seconds);
    const timespec until{static_cast<time_t>(end / 1'000'000'000), static_cast<long>(end % 1'000'000'000)};
    while (!isSet() && core::monotonicNanoseconds() < end) {
      core::rawSystemCall(SYS_futex, core::systemCallArgument(&word_), FUTEX_WAIT_BITSET_PRIVATE, 0,
                          core::systemCallArgument(&until), 0, static_cast<int>(FUTEX_BITSET_MATCH_ANY));
    }
    return isSet();
  }

 private:
  std::atomic<std::uint32_t> word_{0};
};

sigset_t asynchronousSignals() noexcept {
  sigset_t set;
  sigfillset(&set);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
    sigdelset(&set, fault);
  }
  sigdelset(&set, core::ThreadSuspension::kSignal);
  return set;
}

/// What every new thread does before its body: the place for all that a thread must have.
void prepareThread(const core::String& name) noexcept {
  core::AlternateStack::giveToCaller();
  char kernelName[16] = {};
  std::memcpy(kernelName, name.data(), std::min(name.size(), sizeof kernelName - 1));
  pthread_setname_np(pthread_self(), kernelName);
}

}  // namespace

struct Thread::State {
  core::String name;
  core::Block<void()> body;
  Event cancelled;
  Event finished;
  std::shared_ptr<State> self;  // from start() until the thread takes it over
};

namespace {
[[gnu::tls_model("initial-exec")]] thread_local const Thread* currentThread = nullptr;
}  // namespace

Thread::Thread(std::shared_ptr<State> state) noexcept : state_(std::move(state)) {}

Thread Thread::start(const core::String& name, core::Block<void()> body) noexcept {
  const auto state = std::allocate_shared<State>(core::Allocator<State>());
  state->name = name;
  state->body = std::move(body);
  state->self = state;

  const sigset_t blocked = asynchronousSignals();
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setsigmask_np(&attributes, &blocked);
  pthread_t thread;
  const int failure = pthread_create(&thread, &attributes, main, state.get());
  pthread_attr_destroy(&attributes);
  if (failure != 0) {
    state->self = nullptr;
    return Thread();
  }
  return Thread(state);
}

void* Thread::main(void* argument) {
  const Thread self(std::move(static_cast<State*>(argument)->self));
  currentThread = &self;
  prepareThread(self.state_->name);
  self.state_->body();
  self.state_->body = nullptr;
  currentThread = nullptr;
  self.state_->finished.set();
  return nullptr;
}

Thread Thread::current() noexcept {
  return currentThread != nullptr ? *currentThread : Thread();
}

core::String Thread::name() const noexcept {
  return state_ != nullptr ? state_->name : core::String();
}

bool Thread::isExecuting() const noexcept {
  return state_ != nullptr && !state_->finished.isSet();
}

void Thread::cancel() const noexcept {
  if (state_ != nullptr) {
    state_->cancelled.set();
  }
}

bool Thread::isCancelled() const noexcept {
  return state_ != nullptr && state_->cancelled.isSet();
}

bool Thread::waitFor(double seconds) const noexcept {
  return state_ == nullptr || !state_->cancelled.wait(seconds);
}

bool Thread::join(double seconds) const noexcept {
  return state_ == nullptr || state_->finished.wait(seconds);
}

}  // namespace platform

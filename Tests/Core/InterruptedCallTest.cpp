#include "Core/Kernel/InterruptedCall.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <linux/futex.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <vector>

#include "Core/Kernel/SuspensionRound.h"
#include "Core/Kernel/ThreadSuspension.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Core/Kernel/Unwind/FrameWalk.h"
#include "Tests/Core/Worker.h"

namespace {

using core::SuspendedThread;
using core::SuspensionRound;
using core::ThreadSuspension;
using Answer = SuspendedThread::Answer;

constexpr std::int64_t kMillion = 1'000'000;
constexpr std::int64_t kBillion = 1'000'000'000;

timespec timeSpan(int milliseconds, std::int64_t since = 0) {
  const std::int64_t nanoseconds = since + milliseconds * kMillion;
  return {nanoseconds / kBillion, nanoseconds % kBillion};
}
timespec momentAfter(int milliseconds) {
  return timeSpan(milliseconds, core::wallClockNanoseconds());
}
timeval timeValue(int milliseconds) {
  return {milliseconds / 1000, milliseconds % 1000 * 1000};
}

/// What a thread waits for in one of many ways; happen() makes it happen in all of them.
struct Event {
  Event() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) + pipe(ends), 0);
    bind(listener, reinterpret_cast<sockaddr*>(&name), sizeof name.sun_family);  // the kernel chooses the rest
    listen(listener, 1);
    epoll_event wanted{EPOLLIN, {}};
    epoll_ctl(epoll, EPOLL_CTL_ADD, sockets[0], &wanted);
    sem_init(&semaphore, 0, 0);
  }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  ~Event() {
    for (const int descriptor : {sockets[0], sockets[1], ends[0], ends[1], listener, client, epoll}) {
      close(descriptor);
    }
  }
  void happen() {
    EXPECT_EQ(write(sockets[1], "", 1) + write(ends[1], "", 1), 2);
    socklen_t size = sizeof name;
    getsockname(listener, reinterpret_cast<sockaddr*>(&name), &size);
    connect(client, reinterpret_cast<const sockaddr*>(&name), size);
    sem_post(&semaphore);
    futex = 1;
    syscall(SYS_futex, &futex, FUTEX_WAKE_PRIVATE, INT_MAX);
    pthread_mutex_lock(&mutex);
    happened = true;
    pthread_cond_broadcast(&condition);
    pthread_mutex_unlock(&mutex);
  }

  int sockets[2];
  int ends[2];
  int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  int client = socket(AF_UNIX, SOCK_STREAM, 0);
  int epoll = epoll_create1(0);
  sockaddr_un name{AF_UNIX, {}};
  sem_t semaphore;
  std::atomic<std::uint32_t> futex = 0;
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  bool happened = false;
  char byte;
};

enum class End { kTimeOrEvent, kTime, kEvent };

struct Call {
  const char* name;
  End end;  ///< what ends it
  /// Waits once: above 0 when the event has happened, 0 or ETIMEDOUT, EAGAIN when the time is up.
  long (*wait)(Event& event, int milliseconds);
  /// The call's number where its code does not tell it: it must be seen to be slept in.
  long hiddenNumber = 0;
};

const Call kCalls[] = {
    {"poll", End::kTimeOrEvent,
     [](Event& event, int milliseconds) -> long {
       pollfd wanted{event.sockets[0], POLLIN, 0};
       return poll(&wanted, 1, milliseconds);
     }},
    {"epoll_wait", End::kTimeOrEvent,
     [](Event& event, int milliseconds) -> long {
       epoll_event got;
       return epoll_wait(event.epoll, &got, 1, milliseconds);
     }},
    {"select", End::kTimeOrEvent,
     [](Event& event, int milliseconds) -> long {
       fd_set wanted;
       FD_ZERO(&wanted);
       FD_SET(event.sockets[0], &wanted);
       timeval time = timeValue(milliseconds);
       return select(event.sockets[0] + 1, &wanted, nullptr, nullptr, &time);
     }},
    {"nanosleep", End::kTime,
     [](Event&, int milliseconds) -> long {
       const timespec time = timeSpan(milliseconds);
       return nanosleep(&time, nullptr);
     }},
    {"clock_nanosleep", End::kTime,
     [](Event&, int milliseconds) -> long {
       const timespec time = timeSpan(milliseconds);
       errno = clock_nanosleep(CLOCK_MONOTONIC, 0, &time, nullptr);
       return -(errno != 0);
     }},
    {"sem_timedwait", End::kTimeOrEvent,
     [](Event& event, int milliseconds) -> long {
       const timespec moment = momentAfter(milliseconds);
       return sem_timedwait(&event.semaphore, &moment) == 0 ? 1 : -1;
     }},
    {"recv with a time-out", End::kTimeOrEvent,
     [](Event& event, int milliseconds) -> long {
       const timeval time = timeValue(milliseconds);
       setsockopt(event.sockets[0], SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
       return recv(event.sockets[0], &event.byte, 1, 0);
     }},
    {"read on a pipe", End::kEvent, [](Event& event, int) -> long { return read(event.ends[0], &event.byte, 1); }},
    {"accept", End::kEvent,
     [](Event& event, int) -> long {
       const int client = accept(event.listener, nullptr, nullptr);
       return client < 0 ? -1 : close(client) + 1;
     }},
    {"futex", End::kEvent,
     [](Event& event, int milliseconds) -> long {
       const timespec time = timeSpan(milliseconds);
       return syscall(SYS_futex, &event.futex, FUTEX_WAIT_PRIVATE, 0, &time) == 0 ? 1 : -1;
     },
     SYS_futex},
    {"condition variable", End::kTimeOrEvent,
     [](Event& event, int milliseconds) -> long {
       const timespec moment = momentAfter(milliseconds);
       pthread_mutex_lock(&event.mutex);
       while (!event.happened && errno == 0) {
         errno = pthread_cond_timedwait(&event.condition, &event.mutex, &moment);
       }
       const bool happened = event.happened;
       pthread_mutex_unlock(&event.mutex);
       return happened ? 1 : -1;
     }},
};

/// A thread that waits in one way, for short times and at last for the event.
struct Caller {
  explicit Caller(const Call& made) : call(made) {}

  void run() {
    while (call.end != End::kEvent && !isLast) {
      wait(0, 1);
    }
    isInLast = true;
    if (call.end != End::kTime) {
      wait(1, 600'000);
    }
  }
  void wait(long expected, int milliseconds) {
    const std::int64_t start = core::monotonicNanoseconds();
    ++begun;
    errno = 0;
    long result = call.wait(event, milliseconds);
    if (result < 0 && (errno == ETIMEDOUT || errno == EAGAIN)) {
      result = 0;
    }
    const bool isEarly = result == 0 && core::monotonicNanoseconds() - start < (milliseconds - 1) * kMillion;
    if (result != expected || isEarly) {
      wrong = result < 0 ? -errno : 1000 + result;
    }
  }
  /// A span starts over with each dump, so each must end once in between.
  void awaitNextWait() {
    for (const int before = begun; begun == before && !isInLast;) {
      std::this_thread::yield();
    }
  }
  void dump() {
    if (call.hiddenNumber != 0) {
      place = test::awaitSleep(worker.id(), call.hiddenNumber, place);
    }
    SuspensionRound round;
    copiesStack = !copiesStack;
    SuspendedThread stopped = round.ask(worker.id(), {.copiesStack = copiesStack});
    alwaysCame = stopped.wait() != Answer::kSilent && alwaysCame;
    core::walk(stopped.registers(), frames, {block});
  }

  const Call& call;
  Event event{};
  std::atomic<bool> isLast{false};
  std::atomic<bool> isInLast{false};
  std::atomic<int> begun{0};
  std::atomic<long> wrong{0};
  bool alwaysCame = true;
  bool copiesStack = false;
  std::uint64_t place = 0;
  std::array<std::uint8_t, 4096> block{};
  std::array<std::uint64_t, core::kMostFrames> frames{};
  test::Worker worker{[this] { run(); }};
};

TEST(InterruptedCallTest, BlockingCallsCompleteWhileDumpsGoOn) {
  const char* const wanted = std::getenv("KIV_DUMPS");
  const int dumps = wanted != nullptr ? std::atoi(wanted) : 100;
  ASSERT_EQ(ThreadSuspension::install(), 0);
  core::CodeImages::refresh();
  std::deque<Caller> callers;
  for (const Call& call : kCalls) {
    callers.emplace_back(call);
  }
  for (int dump = 0; dump < dumps; ++dump) {
    for (Caller& caller : callers) {
      caller.isLast = dump >= dumps / 2;
      caller.dump();
    }
    for (Caller& caller : callers) {
      caller.awaitNextWait();
    }
  }
  for (Caller& caller : callers) {
    caller.event.happen();
    caller.worker.join();
    if (caller.call.hiddenNumber == 0 || caller.alwaysCame) {
      EXPECT_EQ(caller.wrong, 0) << caller.call.name << "; for more dumps: KIV_DUMPS=1000";
    }
  }
}

// A signal of the program's own ends the call, when it comes while the thread is held.
TEST(InterruptedCallTest, SignalOfTheProgramStillInterrupts) {
  static std::atomic<int> handled{0};
  ASSERT_EQ(ThreadSuspension::install(), 0);
  struct sigaction action {};
  action.sa_handler = [](int) { ++handled; };
  ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
  for (int i = 1; i <= 100; ++i) {
    std::atomic<int> result{0};
    test::Worker worker([&result] { result = poll(nullptr, 0, 3'000) < 0 ? errno : 0; });
    test::awaitSleep(worker.id(), SYS_poll);
    {
      SuspensionRound round;
      SuspendedThread suspended = round.ask(worker.id());
      ASSERT_EQ(suspended.wait(), Answer::kHeld);
      pthread_kill(worker.handle(), SIGUSR1);
    }
    worker.join();
    EXPECT_EQ(result, EINTR);
    EXPECT_EQ(handled, i);
  }
}

TEST(InterruptedCallTest, NumberIsReadFromCode) {
  struct Case {
    std::vector<std::uint8_t> end;
    long number;
  };
  const Case cases[] = {
      {{0xB8, 0xE8, 0x00, 0x00, 0x00, 0x0F, 0x05}, 232},                         // mov $232,%eax; syscall
      {{0x48, 0xC7, 0xC0, 0xB9, 0x01, 0x00, 0x00, 0x0F, 0x05}, 441},             // mov $441,%rax; syscall
      {{0x31, 0xC0, 0x0F, 0x05}, 0},                                             // xor %eax,%eax; syscall
      {{0xB8, 0x46, 0x00, 0x00, 0x00, 0x8B, 0x7C, 0x24, 0x08, 0x0F, 0x05}, 70},  // mov 8(%rsp),%edi between
      // mov 16(%rsp),%rdx and mov 8(%rsp),%rsi between
      {{0xB8, 0x2D, 0x00, 0x00, 0x00, 0x48, 0x8B, 0x54, 0x24, 0x10, 0x48, 0x8B, 0x74, 0x24, 0x08, 0x0F, 0x05}, 45},
      {{0xB8, 0x2D, 0x00, 0x00, 0x00, 0x4C, 0x89, 0xD7, 0x0F, 0x05}, -1},  // another move between
      {{0x4C, 0x8B, 0x4C, 0x24, 0x08, 0x0F, 0x05}, -1},                    // the number came in a register
      {{0xB8, 0x07, 0x00, 0x00, 0x00, 0xCD, 0x80}, -1},                    // the calls of 32-bit programs
  };
  for (const Case& one : cases) {
    std::uint8_t code[core::kCodeBefore] = {};
    std::copy(one.end.begin(), one.end.end(), std::end(code) - one.end.size());
    EXPECT_EQ(core::callNumberInCode(code), one.number);
  }
}

}  // namespace

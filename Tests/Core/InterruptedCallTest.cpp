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
#include <climits>
#include <csignal>
#include <deque>
#include <memory>
#include <vector>

#include "Core/Kernel/SuspensionRound.h"
#include "Core/Kernel/ThreadSuspension.h"
#include "Tests/Core/Worker.h"

namespace {

using core::SuspendedThread;
using core::SuspensionRound;
using core::ThreadSuspension;
using Answer = SuspendedThread::Answer;

constexpr long kMillion = 1'000'000;

timespec span(long milliseconds) {
  return {milliseconds / 1000, milliseconds % 1000 * kMillion};
}
timeval shortSpan(long milliseconds) {
  return {milliseconds / 1000, milliseconds % 1000 * 1000};
}
timespec momentAfter(int milliseconds) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const timespec length = span(milliseconds + now.tv_nsec / kMillion);
  return {now.tv_sec + length.tv_sec, length.tv_nsec + now.tv_nsec % kMillion};
}

/// What a thread waits for in one of many ways; happen() makes it happen in all of them.
struct Event {
  Event() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) + pipe(ends), 0);
    name.sun_family = AF_UNIX;
    socklen_t size = sizeof name.sun_family;  // the kernel chooses the rest
    bind(listener, reinterpret_cast<sockaddr*>(&name), size);
    listen(listener, 1);
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    epoll_ctl(epoll, EPOLL_CTL_ADD, sockets[0], &wanted);
    sem_init(&semaphore, 0, 0);
  }
  ~Event() {
    for (const int descriptor : {sockets[0], sockets[1], ends[0], ends[1], listener, epoll}) {
      close(descriptor);
    }
  }
  void happen() {
    EXPECT_EQ(write(sockets[1], "", 1) + write(ends[1], "", 1), 2);
    socklen_t size = sizeof name;
    getsockname(listener, reinterpret_cast<sockaddr*>(&name), &size);
    const int client = socket(AF_UNIX, SOCK_STREAM, 0);
    connect(client, reinterpret_cast<const sockaddr*>(&name), size);
    close(client);
    sem_post(&semaphore);
    __atomic_store_n(&futex, 1, __ATOMIC_RELEASE);
    syscall(SYS_futex, &futex, FUTEX_WAKE_PRIVATE, INT_MAX);
    pthread_mutex_lock(&mutex);
    happened = true;
    pthread_cond_broadcast(&condition);
    pthread_mutex_unlock(&mutex);
  }

  int sockets[2];
  int ends[2];
  int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  int epoll = epoll_create1(0);
  sockaddr_un name{};
  sem_t semaphore;
  std::uint32_t futex = 0;
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  bool happened = false;
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
       timeval time = shortSpan(milliseconds);
       return select(event.sockets[0] + 1, &wanted, nullptr, nullptr, &time);
     }},
    {"nanosleep", End::kTime,
     [](Event&, int milliseconds) -> long {
       const timespec time = span(milliseconds);
       return nanosleep(&time, nullptr);
     }},
    {"clock_nanosleep", End::kTime,
     [](Event&, int milliseconds) -> long {
       const timespec time = span(milliseconds);
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
       const timeval time = shortSpan(milliseconds);
       setsockopt(event.sockets[0], SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
       char byte;
       return recv(event.sockets[0], &byte, 1, 0);
     }},
    {"read on a pipe", End::kEvent,
     [](Event& event, int) -> long {
       char byte;
       return read(event.ends[0], &byte, 1);
     }},
    {"accept", End::kEvent,
     [](Event& event, int) -> long {
       const int client = accept(event.listener, nullptr, nullptr);
       return client < 0 ? -1 : close(client) + 1;
     }},
    {"futex", End::kEvent,
     [](Event& event, int milliseconds) -> long {
       const timespec time = span(milliseconds);
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
    while (call.end != End::kEvent && !last) {
      wait(0, 1);
    }
    if (call.end != End::kTime) {
      wait(1, 20'000);
    }
  }
  void wait(long expected, int milliseconds) {
    const std::int64_t start = core::monotonicNanoseconds();
    errno = 0;
    long result = call.wait(event, milliseconds);
    if (result < 0 && (errno == ETIMEDOUT || errno == EAGAIN)) {
      result = 0;
    }
    const bool early = result == 0 && core::monotonicNanoseconds() - start < (milliseconds - 1) * kMillion;
    if (result != expected || early) {
      wrong = result < 0 ? -errno : 1000 + result;
    }
    ++calls;
  }

  const Call& call;
  Event event{};
  std::atomic<bool> last{false};
  std::atomic<int> calls{0};
  std::atomic<long> wrong{0};
  bool alwaysCame = true;
  std::uint64_t place = 0;
  std::unique_ptr<test::Worker> worker{};
};

TEST(InterruptedCallTest, BlockingCallsCompleteAsIfNeverInterrupted) {
  constexpr int kBursts = 20;
  constexpr int kSuspensions = 50;
  ASSERT_EQ(ThreadSuspension::install(), 0);
  std::deque<Caller> callers(std::begin(kCalls), std::end(kCalls));
  for (Caller& caller : callers) {
    caller.worker = std::make_unique<test::Worker>([&caller] { caller.run(); });
  }
  for (int burst = 0; burst < kBursts; ++burst) {
    for (Caller& caller : callers) {
      caller.last = burst >= kBursts / 2;
      for (int i = 0; i < kSuspensions; ++i) {
        if (caller.call.hiddenNumber != 0) {
          caller.place = test::awaitSleep(caller.worker->id(), caller.call.hiddenNumber, caller.place);
        }
        SuspensionRound round;
        const Answer answer = round.ask(caller.worker->id()).wait();
        caller.alwaysCame = caller.alwaysCame && answer != Answer::kSilent;
      }
    }
  }
  for (Caller& caller : callers) {
    caller.event.happen();
    caller.worker->join();
    if (caller.call.hiddenNumber == 0 || caller.alwaysCame) {
      EXPECT_EQ(caller.wrong, 0) << caller.call.name;
    }
    EXPECT_GT(caller.calls, caller.call.end == End::kEvent ? 0 : kBursts / 2) << caller.call.name;
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

#include "Platform/RunLoop/Poller.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include "Core/Kernel/SystemCall.h"
#include "Platform/RunLoop/Clock.h"

namespace platform {
namespace {

constexpr std::uint64_t kWake = ~std::uint64_t{0};
constexpr std::uint64_t kTimer = kWake - 1;
constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kMillisecond = 1'000'000;
constexpr std::int64_t kSleepWithoutDescriptors = 10 * kMillisecond;

timespec fromNanoseconds(std::int64_t nanoseconds) noexcept {
  return {static_cast<time_t>(nanoseconds / kSecond), static_cast<long>(nanoseconds % kSecond)};
}

int milliseconds(std::int64_t nanoseconds) noexcept {
  constexpr std::int64_t kLongest = std::numeric_limits<int>::max();
  if (nanoseconds == kNever) {
    return -1;
  }
  return static_cast<int>(std::min(nanoseconds / kMillisecond + (nanoseconds % kMillisecond != 0 ? 1 : 0), kLongest));
}

void readCount(int descriptor) noexcept {
  std::uint64_t count = 0;
  core::rawSystemCall(SYS_read, descriptor, core::systemCallArgument(&count), sizeof count);
}

void closeAll(std::initializer_list<int> descriptors) noexcept {
  for (const int descriptor : descriptors) {
    if (descriptor >= 0) {
      close(descriptor);
    }
  }
}

}  // namespace

Poller::Poller() noexcept {
  open();
}

Poller::~Poller() {
  closeAll({poll_, timer_, wake_});
}

bool Poller::open() noexcept {
  const int poll = epoll_create1(EPOLL_CLOEXEC);
  const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
  const int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  epoll_event wakeEvent{.events = EPOLLIN, .data = {.u64 = kWake}};
  epoll_event timerEvent{.events = EPOLLIN, .data = {.u64 = kTimer}};
  if (poll < 0 || timer < 0 || wake < 0 || epoll_ctl(poll, EPOLL_CTL_ADD, wake, &wakeEvent) != 0 ||
      epoll_ctl(poll, EPOLL_CTL_ADD, timer, &timerEvent) != 0) {
    closeAll({poll, timer, wake});
    return false;
  }
  poll_ = poll;
  timer_ = timer;
  wake_ = wake;
  return true;
}

void Poller::wake() noexcept {
  const std::uint64_t one = 1;
  core::rawSystemCall(SYS_write, wake_, core::systemCallArgument(&one), sizeof one);
}

bool Poller::add(int descriptor, std::uint32_t events, std::uint64_t id) noexcept {
  epoll_event event{.events = events, .data = {.u64 = id}};
  return epoll_ctl(poll_, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

void Poller::remove(int descriptor) noexcept {
  epoll_ctl(poll_, EPOLL_CTL_DEL, descriptor, nullptr);
}

void Poller::arm(std::int64_t nanoseconds) noexcept {
  itimerspec setting{};
  if (nanoseconds != kNever) {
    setting.it_value = fromNanoseconds(std::max<std::int64_t>(nanoseconds, 1));  // 0 would disarm
  }
  timerfd_settime(timer_, 0, &setting, nullptr);
}

std::size_t Poller::wait(std::int64_t nanoseconds, Ready (&ready)[kBatch]) noexcept {
  if (poll_ < 0) {
    if (!open()) {
      const timespec sleep = fromNanoseconds(std::min(nanoseconds, kSleepWithoutDescriptors));
      nanosleep(&sleep, nullptr);
    }
    return 0;  // also when opened just now: whoever called wake() before could not be heard
  }
  epoll_event events[kBatch];
  const int count = epoll_wait(poll_, events, kBatch, milliseconds(nanoseconds));
  std::size_t filled = 0;
  for (int i = 0; i < count; ++i) {
    if (events[i].data.u64 == kWake) {
      readCount(wake_);
    } else if (events[i].data.u64 == kTimer) {
      readCount(timer_);
    } else {
      ready[filled++] = {events[i].data.u64, events[i].events};
    }
  }
  return filled;
}

}  // namespace platform

#include "Platform/RunLoop/RunLoop.h"

#include <algorithm>
#include <utility>

#include "Core/Kernel/Process.h"
#include "Core/Memory/CrashOwner.h"
#include "Platform/RunLoop/Thread.h"

namespace platform {
namespace {

// Reached without a call into the loader: a crash asks for the current loop, too.
[[gnu::tls_model("initial-exec")]] thread_local RunLoop* innermost = nullptr;

/// A block that posts itself again and again does not keep the process from ending.
constexpr int kDrainRounds = 16;

}  // namespace

/// The calling thread's stay inside a loop; false when another thread is inside.
class RunLoop::Running {
 public:
  explicit Running(RunLoop& loop) noexcept : loop_(loop), outer_(innermost), entered_(loop.seat_.enter()) {
    if (entered_) {
      innermost = &loop;
    }
  }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;
  ~Running() {
    if (entered_) {
      innermost = outer_;
      loop_.seat_.leave();
    }
  }
  explicit operator bool() const noexcept { return entered_; }

 private:
  RunLoop& loop_;
  RunLoop* const outer_;
  const bool entered_;
};

RunLoop& RunLoop::main() noexcept {
  static RunLoop* const loop = new RunLoop(Clock::monotonic(), true);
  return *loop;
}

RunLoop& RunLoop::current() noexcept {
  return innermost != nullptr ? *innermost : main();
}

RunLoop::RunLoop(const Clock& clock, bool served) noexcept : clock_(clock), served_(served), timers_(clock, poller_) {}

RunLoop::~RunLoop() {
  collect();
}

bool RunLoop::runUntil(std::int64_t deadline) {
  return drive(deadline, false);
}

bool RunLoop::runOnce(double seconds) {
  return drive(clock_.nanoseconds() + nanosecondsOf(seconds), true);
}

bool RunLoop::drive(std::int64_t deadline, bool once) {
  const Running running(*this);
  if (!running) {
    return false;
  }
  bool called = false;
  notify(Activity::kEntry);
  while (!stopped_.load()) {
    called = turn(deadline) || called;
    if (once || clock_.nanoseconds() >= deadline) {
      break;
    }
  }
  stopped_.store(false);
  notify(Activity::kExit);
  return called || !once;
}

bool RunLoop::turn(std::int64_t deadline) {
  notify(Activity::kBeforeTimers);
  notify(Activity::kBeforeSources);
  collect();
  Poller::Ready ready[Poller::kBatch];
  if (isDue() || deadline <= clock_.nanoseconds()) {
    return callDue(ready, poller_.wait(0, ready));
  }
  notify(Activity::kBeforeWaiting);
  armTimer();
  const std::int64_t left = deadline == kNever ? kNever : std::max<std::int64_t>(deadline - clock_.nanoseconds(), 0);
  const std::size_t count = poller_.wait(left, ready);
  notify(Activity::kAfterWaiting);
  return callDue(ready, count);
}

bool RunLoop::callDue(const Poller::Ready* ready, std::size_t count) {
  bool called = count != 0;
  for (const Poller::Ready* source = ready; source != ready + count && !interrupted(); ++source) {
    descriptors_.notify([source](std::uint64_t id, int) { return id == source->id; }, source->events);
  }
  collect();
  const std::int64_t now = clock_.nanoseconds();
  while (!interrupted() && timers_.fireNext(now)) {
    called = true;
  }
  return callPosted(true) || called;
}

// Only what is there by now: blocks that keep posting must not starve the timers.
bool RunLoop::callPosted(bool interruptible) {
  bool called = false;
  for (std::size_t left = ready_.size(); left != 0 && !ready_.empty(); --left) {
    if (interruptible && interrupted()) {
      break;
    }
    Work::run(ready_.take());
    called = true;
  }
  return called;
}

void RunLoop::collect() noexcept {
  for (Work* work = posted_.takeAll(); work != nullptr;) {
    Work* const next = work->next;
    ready_.append(work);
    work = next;
  }
  timers_.collect();
}

void RunLoop::armTimer() noexcept {
  const std::int64_t earliest = timers_.earliest();
  const bool wanted = earliest != kNever;
  if (wanted || armed_) {
    poller_.arm(wanted ? earliest - clock_.nanoseconds() : kNever);
    armed_ = wanted;
  }
}

bool RunLoop::isDue() const noexcept {
  return !ready_.empty() || timers_.earliest() <= clock_.nanoseconds();
}

bool RunLoop::interrupted() const noexcept {
  return seat_.isServiceOutermost() ? isDriven() : stopped_.load();
}

void RunLoop::stopFromSignal() noexcept {
  stopped_.store(true);
  poller_.wake();
}

void RunLoop::perform(Block block) noexcept {
  if (posted_.push(Work::make(std::move(block)))) {
    poller_.wake();
  }
  ensureServed();
}

void RunLoop::performAfter(double seconds, Block block) noexcept {
  addTimer(seconds, false, [block = std::move(block)](Timer&) { block(); });
}

Timer RunLoop::addTimer(double seconds, bool repeats, core::Block<void(Timer&)> block) noexcept {
  Timer timer = timers_.add(seconds, repeats, std::move(block));
  ensureServed();
  return timer;
}

std::uint64_t RunLoop::addObserver(std::uint32_t mask, core::Block<void(Activity)> block) noexcept {
  return observers_.add(mask, std::move(block));
}

void RunLoop::removeObserver(std::uint64_t id) noexcept {
  observers_.remove(id);
}

void RunLoop::notify(Activity activity) {
  if (!seat_.isService()) {
    const auto bit = static_cast<std::uint32_t>(activity);
    observers_.notify([bit](std::uint64_t, std::uint32_t mask) { return (mask & bit) != 0; }, activity);
  }
}

std::uint64_t RunLoop::addDescriptor(int descriptor, std::uint32_t events,
                                     core::Block<void(std::uint32_t)> block) noexcept {
  const std::uint64_t id = descriptors_.add(descriptor, std::move(block));
  if (!poller_.add(descriptor, events, id)) {
    descriptors_.remove(id);
    return 0;
  }
  ensureServed();
  return id;
}

void RunLoop::removeDescriptor(std::uint64_t id) noexcept {
  if (const auto descriptor = descriptors_.remove(id)) {
    poller_.remove(*descriptor);
  }
}

bool RunLoop::attach() {
  return static_cast<bool>(Running(*this));
}

bool RunLoop::serve() {
  const Running running(*this);
  if (!running) {
    return true;
  }
  for (const Activity activity : {Activity::kAfterWaiting, Activity::kBeforeTimers, Activity::kBeforeSources}) {
    notify(activity);
  }
  Poller::Ready ready[Poller::kBatch];
  callDue(ready, poller_.wait(0, ready));
  collect();
  armTimer();
  if (!ready_.empty()) {
    poller_.wake();
  }
  notify(Activity::kBeforeWaiting);
  return !stopped_.exchange(false);
}

void RunLoop::detach() {
  if (!seat_.isDriver()) {
    return;
  }
  const Running running(*this);
  seat_.giveUp();
  collect();
  if (!ready_.empty() || timers_.earliest() != kNever) {
    ensureServed();
  }
}

bool RunLoop::drain() {
  if (core::threadId() != core::processId() && !seat_.isDriver() && !seat_.isInside()) {
    return false;
  }
  const bool wasDriven = isDriven();
  const Running running(*this);
  if (!running) {
    return false;
  }
  for (int round = 0; round < kDrainRounds; ++round) {
    collect();
    if (!callPosted(false)) {
      break;
    }
  }
  if (!wasDriven) {
    detach();
  }
  return true;
}

void RunLoop::ensureServed() noexcept {
  if (!served_ || isDriven() || core::CrashOwner::isCurrentThread() || serviceStarted_.exchange(true)) {
    return;
  }
  if (!Thread::start("KivMainQueue", [this] { serviceThread(); })) {
    serviceStarted_.store(false);
  }
}

void RunLoop::serviceThread() {
  if (seat_.enterAsService()) {
    while (!isDriven()) {
      turn(kNever);
    }
    seat_.leave();
  }
  serviceStarted_.store(false);
  ensureServed();  // should the driver have detached meanwhile
}

}  // namespace platform

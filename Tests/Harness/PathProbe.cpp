#include "Tests/Harness/PathProbe.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include <cstdlib>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/SystemCall.h"
#include "Tests/Harness/PathReport.h"
#include "Tests/Harness/VictimParts.h"

namespace {

struct Act {
  std::string_view name;
  long (*perform)();  // answers what the call is to answer, 0 for its own result
};
constexpr Act kActs[] = {
    {"count", [] { return 0L; }},
    {"ENOSPC", [] { return -long{ENOSPC}; }},
    {"EMFILE", [] { return -long{EMFILE}; }},
    {"EFAULT", [] { return -long{EFAULT}; }},
    {"hang",
     []() -> long {
       for (;;) {
         core::rawSystemCall(SYS_pause);
       }
     }},
    {"kill", [] { return core::rawSystemCall(SYS_kill, core::processId(), SIGKILL); }},
    {"fault", [] { return victim::writeNearNull(), 0L; }},
    {"same-fault", [] { return victim::nullWrite(), 0L; }},
};

PathReport ownReport;
PathReport* report = &ownReport;
const Act* act = nullptr;
long wantedKind = PathProbe::kAnyKind;
std::uint32_t nth = 0;
int watchedThread = 0;

long probe(long number) noexcept {
  if (core::threadId() != watchedThread) {
    return 0;
  }
  const std::uint32_t calls = ++report->calls;
  const std::uint32_t callsOfKind = ++report->callsOfKind[static_cast<std::size_t>(number) % PathReport::kKinds];
  if (wantedKind == PathProbe::kAnyKind) {
    return calls == nth ? act->perform() : 0;
  }
  return number == wantedKind && callsOfKind == nth ? act->perform() : 0;
}

}  // namespace

bool PathProbe::start(std::string_view name, long kind, std::uint32_t n) {
  for (const Act& known : kActs) {
    act = known.name == name ? &known : act;
  }
  if (const char* descriptor = std::getenv(PathReport::kVariable)) {
    void* shared = mmap(nullptr, sizeof(PathReport), PROT_READ | PROT_WRITE, MAP_SHARED, std::atoi(descriptor), 0);
    report = shared != MAP_FAILED ? static_cast<PathReport*>(shared) : report;
  }
  wantedKind = kind;
  nth = n;
  watchedThread = core::threadId();
  core::setSystemCallProbe(probe);
  return act != nullptr;
}

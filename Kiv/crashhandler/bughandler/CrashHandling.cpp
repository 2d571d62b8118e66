#include "Kiv/crashhandler/bughandler/CrashHandling.h"

#include <atomic>

namespace {

class Nothing final : public CrashHandling {
 public:
  void setCrashAccidentHappen(bool) noexcept override {}
  bool isCrashAccidentHappen() const noexcept override { return false; }
  void stopStallMonitor() noexcept override {}
  bool crashHapped(KivCrashData*) noexcept override { return false; }
  void uninstallHandler() noexcept override {}
};

constinit Nothing nothing;
constinit std::atomic<CrashHandling*> handling{&nothing};

}  // namespace

CrashHandling& CrashHandling::current() noexcept {
  return *handling;
}

void CrashHandling::setCurrent(CrashHandling& set) noexcept {
  handling = &set;
}

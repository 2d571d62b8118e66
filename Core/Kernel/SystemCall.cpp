#include "Core/Kernel/SystemCall.h"

namespace core {

std::atomic<SystemCallProbe> systemCallProbe{nullptr};

SystemCallProbe setSystemCallProbe(SystemCallProbe probe) noexcept {
  return systemCallProbe.exchange(probe);
}

}  // namespace core

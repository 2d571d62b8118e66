#include "Kiv/common/utils/KivDebugger.h"

#include <optional>

#include "Kiv/common/utils/KivLog.h"
#include "Platform/Foundation/ProcessInfo.h"

bool kiv_debugger_attached() noexcept {
  static const bool attached = [] {
    const std::optional<bool> answer = platform::debuggerAttached();
    if (!answer) {
      kiv_log_always("ERROR: Checking for a running debugger via sysctl() failed.");
    }
    return answer.value_or(false);
  }();
  return attached;
}

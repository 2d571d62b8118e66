#include "Kiv/crashhandler/bughandler/ThreadPass.h"

#include <algorithm>

#include "Core/Kernel/ThreadFiles.h"
#include "Core/Kernel/ThreadList.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Kiv/crashhandler/bughandler/KivBacktrace.h"
#include "Kiv/crashhandler/bughandler/KivStackCollector.h"

ThreadPass::ThreadPass(KivStackCollector& collector) noexcept : collector_(collector) {
  core::CodeImages::refreshIfChanged();
}

KivThreadInfo ThreadPass::read(std::uint32_t port, std::uint32_t index, const mcontext_t* context,
                               bool suspend) noexcept {
  KivThreadInfo thread;
  thread.threadIndex = index;
  const core::ThreadName name = core::readThreadName(core::threadOfPort(port));
  thread.threadName = core::String(core::reportedThreadName(name));
  std::fill_n(frames_.begin(), kCleared, 0);
  kiv_backtrace_fetch(round_, context, port, frames_, suspend);
  const auto end = std::find(frames_.begin(), frames_.end(), 0);
  thread.threadStacks = collector_.createAddrInfos({frames_.begin(), end});
  return thread;
}

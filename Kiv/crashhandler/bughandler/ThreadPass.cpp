#include "Kiv/crashhandler/bughandler/ThreadPass.h"

#include <algorithm>

#include "Core/Kernel/ThreadFiles.h"
#include "Core/Kernel/ThreadList.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Core/Text/Utf8.h"
#include "Kiv/crashhandler/bughandler/KivBacktrace.h"
#include "Kiv/crashhandler/bughandler/KivStackCollector.h"

namespace {

/// A program may give a thread any bytes for a name; a report shows one line of text.
core::String printableName(std::string_view name) noexcept {
  core::StringBuilder shown;
  while (!name.empty()) {
    const core::Utf8Character next = core::decodeUtf8(name);
    const bool isControl = next.codePoint < ' ' || (next.codePoint >= 0x7F && next.codePoint < 0xA0);
    shown.append(next.valid && !isControl ? name.substr(0, next.size) : "?");
    name.remove_prefix(next.size);
  }
  return shown.str();
}

}  // namespace

ThreadPass::ThreadPass(KivStackCollector& collector) noexcept : collector_(collector) {
  core::CodeImages::refreshIfChanged();
}

KivThreadInfo ThreadPass::read(std::uint32_t port, std::uint32_t index, const mcontext_t* context,
                               bool suspend) noexcept {
  KivThreadInfo thread;
  thread.threadIndex = index;
  const core::ThreadName name = core::readThreadName(core::threadOfPort(port));
  thread.threadName = printableName(core::reportedThreadName(name));
  std::fill_n(frames_.begin(), kCleared, 0);
  kiv_backtrace_fetch(round_, context, port, frames_, suspend);
  const auto end = std::find(frames_.begin(), frames_.end(), 0);
  thread.threadStacks = collector_.createAddrInfos({frames_.begin(), end});
  return thread;
}

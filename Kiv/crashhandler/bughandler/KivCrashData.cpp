#include "Kiv/crashhandler/bughandler/KivCrashData.h"

#include "Core/Memory/Immortal.h"
#include "Core/Text/Format.h"
#include "Core/Text/Join.h"
#include "Kiv/compat/KivCustomizedException.h"

KivCrashData& KivCrashData::expData() noexcept {
  static core::Immortal<KivCrashData> data;
  return *data;
}

void KivCrashData::addLastExceptionInfo(const Text& text) noexcept {
  if (!crashOnceMore() && text && !text->empty()) {
    lastExceptionInfo_.update([&](core::String& lines) { lines = core::kiv_format("%@%@\n", lines, *text); });
  }
}

core::String KivCrashData::crashStack() const noexcept {
  if (isCustomizedException()) {
    if (const auto* reported = KivCustomizedException::in(*this)) {
      return core::joined(reported->callStackReturnSymbols(), "\n");
    }
  }
  if (ocThreadInfo_) {
    return ocThreadInfo_->getCurrThreadStackLines();
  }
  return crashThreadInfo_ ? crashThreadInfo_->getCurrThreadStackLines() : core::String("empty stack");
}

bool KivCrashData::needCheckFirstLineOcMsg() const noexcept {
  return kiv_first_line_is_message(crashThreadInfo_);
}

bool kiv_first_line_is_message(const std::optional<KivThreadInfo>& thread) noexcept {
  if (!thread || thread->threadStacks.empty() || thread->threadStacks[0]->index != 0) {
    return false;
  }
  const KivCrashAddrInfo& first = *thread->threadStacks[0];
  return (first.moduleName && first.moduleName->view().starts_with("libobjc.")) ||
         (first.lineStr && first.lineStr->view().starts_with("objc_msgSend"));
}

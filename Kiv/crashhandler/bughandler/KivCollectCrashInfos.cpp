#include "Kiv/crashhandler/bughandler/KivCollectCrashInfos.h"

#include "Core/Kernel/Process.h"
#include "Core/Kernel/ThreadList.h"
#include "Core/Text/Format.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/crashhandler/bughandler/CrashDescription.h"
#include "Kiv/crashhandler/bughandler/CrashLog.h"
#include "Kiv/crashhandler/bughandler/KivBinaryImageCollector.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Kiv/crashhandler/bughandler/KivRegisterDataCollector.h"
#include "Kiv/crashhandler/bughandler/KivStackCollector.h"
#include "Platform/Foundation/NSException.h"

namespace {

/// Frames of the handling itself, at the top of a trace of its own thread.
constexpr unsigned kHandlingFrames = 3;

void collectExceptionStack(KivCrashData& data) noexcept {
  const KivCrashData::Exception exception = data.exp();
  if (exception != nullptr && !data.isCustomizedException()) {
    core::Array<std::uint64_t> addresses;
    for (const std::uintptr_t address : exception->callStackReturnAddresses()) {
      addresses.append(address);
    }
    const std::span<const std::uint64_t> stack(addresses.data(), addresses.size());
    KivBinaryImageCollector::sharedInstance().bringUpToDate(stack);
    LiveAddresses source = KivStackCollector::sharedInstance().addresses();
    describeException(data, stack, source);
  }
}

/// Stands for a crashed thread that the list does not have.
KivThreadInfo standAloneThread() noexcept {
  KivThreadInfo thread;
  thread.isCrashThread = true;
  thread.threadIndex = KivThreadInfo::kAlone;
  thread.threadName = core::kiv_format("mach_thread_self() %d", core::threadPort(core::threadId()));
  thread.threadTrace = KivStackCollector::sharedInstance().traceOfCaller(kHandlingFrames);
  return thread;
}

}  // namespace

bool kiv_collect_crash_infos(const mcontext_t& context, const std::uint32_t* ports, std::uint32_t count) noexcept {
  KivCrashData& data = KivCrashData::expData();
  const KivModelBase& model = KivModelBase::getDefualtAnaModel();
  KivBinaryImageCollector& images = KivBinaryImageCollector::sharedInstance();
  images.loadBinarys();
  collectExceptionStack(data);
  KivStackCollector::sharedInstance().collectThreads(&context, data.crashThread(), ports, count);
  describeModules(data);
  images.collectBinaryInfos(model.processName());
  if (!data.crashThreadInfo()) {
    data.setCrashThreadInfo(standAloneThread());
  } else {
    KivRegisterDataCollector::sharedInstance().collectAllRegisterInfos(data.crashThreadInfo()->threadIndex, context,
                                                                       data.needCheckFirstLineOcMsg());
  }
  return generateCrashLog();
}

#include "Kiv/crashhandler/bughandler/CrashLog.h"

#include "Core/Kernel/Process.h"
#include "Core/Text/Format.h"
#include "Core/Text/Join.h"
#include "Kiv/common/utils/KivDeviceUtil.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/bughandler/KivBinaryImageCollector.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Kiv/crashhandler/bughandler/ReporterIdentity.h"

namespace {

using Text = std::optional<core::String>;
using OneText = core::FormatString<core::String>;

constexpr std::int64_t kMillisecondsASecond = 1000;
constexpr std::int64_t kNanosecondsAMillisecond = 1'000'000;
/// Room for what stands around the threads' frames.
constexpr std::size_t kHeadSize = 16384;
constexpr std::size_t kThreadHeadSize = 64;

/// About the whole log, which on the crash path had better not grow: nothing is freed there.
std::size_t expectedSize(const KivCrashData& data) noexcept {
  std::size_t size = kHeadSize;
  for (const KivThreadInfo& thread : data.allThreadInfos()) {
    size += kThreadHeadSize;
    for (const auto& frame : thread.threadStacks) {
      size += frame->fullLine.size() + 1;
    }
  }
  return size;
}

void appendProcess(core::StringBuilder& log, const ReporterIdentity& identity, std::int64_t now) noexcept {
  core::kiv_append(log, "Hardware Model: %@\n", identity.hardwareModel);
  core::kiv_append(log, "Process: %@ [%lu]\n", identity.processName, identity.processId);
  core::kiv_append(log, "Path: %@\n", identity.resourcePath);
  core::kiv_append(log, "Identifier: %@\n", identity.bundleId);
  core::kiv_append(log, "Version: %@\n", identity.appVersion);
  core::kiv_append(log, "Code Type: %@\n", "X86_64");
  core::kiv_append(log, "Parent Process: %@ [%lu]\n\n", identity.parentProcName, identity.parentProcId);
  core::kiv_append(log, "Date/Time: %@\n", KivDeviceUtil::getFullTimeMsStrBy(now));
  core::kiv_append(log, "OS Version: %@\n", identity.osVer);
  log.append("Report Version: 11\n\n");
}

/// A line of what the clock showed at `milliseconds`, none for a moment that never was.
void appendMoment(core::StringBuilder& log, OneText format, std::int64_t milliseconds) noexcept {
  if (milliseconds > 0) {
    core::kiv_append(log, format, KivDeviceUtil::getFullTimeStrBy(milliseconds / kMillisecondsASecond));
  }
}

void appendIfSet(core::StringBuilder& log, OneText format, const Text& text) noexcept {
  if (text) {
    core::kiv_append(log, format, *text);
  }
}

void appendSession(core::StringBuilder& log, const ReporterIdentity& identity, std::int64_t now) noexcept {
  appendMoment(log, "SDK start time: %@\n", identity.startTime);
  appendMoment(log, "SDK enter background time: %@\n", identity.backGroundTime);
  appendMoment(log, "SDK resume time: %@\n", identity.resumeTime);
  if (identity.serverTimeDelta != 0) {
    core::kiv_append(log, "SDK server time delta: %lli s\n", identity.serverTimeDelta / kMillisecondsASecond);
  }
  core::kiv_append(log, "last record time delta : %lli ms\n", identity.sinceLastRecord(now));
  appendIfSet(log, "Orv SDK Version: %@\n", identity.sdkVersion);
  appendIfSet(log, "Orv Registed Uin : %@\n", identity.userid);
  appendIfSet(log, "Orv DeviceId: %@\n", identity.openudid);
  appendIfSet(log, "Orv CI UUID: %@\n", identity.pIdentity);
  core::kiv_append(log, "Orv APP KEY: %@\n\n", identity.appId);
}

void appendException(core::StringBuilder& log, const KivCrashData& data) noexcept {
  if (data.crashOnceMore()) {
    core::kiv_append(log, "Last Exception :\n%@\n------\n\n", data.lastExceptionInfo());
  }
  if (data.ocThreadInfo()) {
    log.append("Last Exception Backtrace :\n");
    log.append(data.ocThreadInfo()->getCurrThreadStackLines());
    log.append('\n');
  }
  core::kiv_append(log, "Exception Type: %@\n", data.type());
  core::kiv_append(log, "Exception Codes: %@ at %@\n", data.error(), data.address());
  if (data.crashThreadInfo()) {
    core::kiv_append(log, "Crashed Thread: %d\n\n", static_cast<std::int32_t>(data.crashThreadInfo()->threadIndex));
  }
}

void appendThread(core::StringBuilder& log, const KivThreadInfo& thread) noexcept {
  if (thread.threadName && !thread.threadName->empty()) {
    core::kiv_append(log, "Thread %d Name: %@\n", thread.threadIndex, *thread.threadName);
  }
  core::kiv_append(log, "Thread %d%@: \n", thread.threadIndex, thread.isCrashThread ? " Crashed" : "");
  for (const auto& frame : thread.threadStacks) {
    frame->appendFullStackLine(log);
    log.append('\n');
  }
  log.append('\n');
}

void appendThreads(core::StringBuilder& log, const KivCrashData& data) noexcept {
  for (const KivThreadInfo& thread : data.allThreadInfos()) {
    appendThread(log, thread);
  }
  const auto& crashed = data.crashThreadInfo();
  if (data.allThreadInfos().empty() && crashed && !crashed->threadTrace.empty()) {
    core::kiv_append(log, "Crashed Thread(%@) Backtrace:\n", crashed->threadName);
    log.append(core::joined(crashed->threadTrace, "\n"));
    log.append('\n');
  }
}

void appendDiagnostics(core::StringBuilder& log, const KivCrashData& data) noexcept {
  if (data.registerDatas()) {
    core::kiv_append(log, "%@\n", *data.registerDatas());
  }
  if (data.objcMsgData()) {
    core::kiv_append(log, "x-detect: %@\n\n", *data.objcMsgData());
  }
  if (const auto lines = data.sdkCrashCallStack(); !lines.empty()) {
    core::kiv_append(log, "Maybe SDK Crash:\n%@\n\n", core::joined(lines, "\n"));
  }
}

/// All images, or those alone that occur in a stack where stacks are known.
void appendImages(core::StringBuilder& log, const KivCrashData& data, const KivBinaryImageCollector::Images& images,
                  const Text& processName) noexcept {
  log.append("\nBinary Images:\n");
  const auto& occurring = data.allStackShortNames();
  for (const KivMachImageInfo& image : images) {
    if (occurring.empty() || occurring.contains(image.sname)) {
      const bool isMain = processName && image.sname == *processName;
      core::kiv_append(log, "%#10llx - %#10llx %@%@ %@ <%@> %@\n", image.base, image.base + image.size - 1,
                       isMain ? "+" : " ", image.sname, image.cpu, image.uuid, image.name);
    }
  }
}

}  // namespace

bool generateCrashLog() noexcept {
  kiv_log_info("Generate the crash.log");
  KivCrashData& data = KivCrashData::expData();
  data.setCrashlog(crashLogOf(data, ReporterIdentity::current(),
                              KivBinaryImageCollector::sharedInstance().getAllBinarys(),
                              core::wallClockNanoseconds() / kNanosecondsAMillisecond));
  return true;
}

core::String crashLogOf(const KivCrashData& data, const ReporterIdentity& identity,
                        const KivBinaryImageCollector::Images& images, std::int64_t now) noexcept {
  core::StringBuilder log(expectedSize(data));
  core::kiv_append(log, "Handler: %@\n\n", data.handler());
  appendProcess(log, identity, now);
  appendSession(log, identity, now);
  appendException(log, data);
  appendThreads(log, data);
  appendDiagnostics(log, data);
  appendImages(log, data, images, identity.processName);
  return log.str();
}

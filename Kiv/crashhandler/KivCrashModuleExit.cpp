// How the crash module learns that the last run was killed: from what that left in the user defaults.

#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/KivSharedNames.h"
#include "Kiv/common/utils/KivDebugger.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/compat/KivCustomizedException.h"
#include "Kiv/crashhandler/KivCrashModule.h"
#include "Kiv/crashhandler/persist/KivCrashHandler.h"
#include "Platform/Foundation/ProcessInfo.h"
#include "Platform/Foundation/UserDefaults.h"

namespace {

// Keys of the user defaults.
constexpr std::string_view kLeftSafely = "KivAppWentIntoBackgroundSafely";
constexpr std::string_view kLowMemory = "KivAppDidReceiveLowMemoryNotification";
constexpr std::string_view kBootTime = "kKivSystemBootTime";
constexpr std::string_view kBootId = "kKivSystemBootId";

constexpr double kReportDelay = 5.0;
constexpr std::size_t kAttachmentLimit = 204800;

platform::UserDefaults& defaults() noexcept {
  return platform::UserDefaults::standard();
}

/// The clock may have been set since, which moves the boot time: the id decides, where there is one.
bool isKnownBoot(const core::Date& time, const std::optional<core::String>& id) noexcept {
  const std::optional<core::String> knownId = defaults().string(kBootId);
  if (id && knownId) {
    return *id == *knownId;
  }
  const std::optional<core::Value> knownTime = defaults().object(kBootTime);
  return knownTime && *knownTime == core::Value(time);
}

core::String attachmentOf(const char* text) noexcept {
  return text != nullptr ? core::String(core::lastCharacters(text, kAttachmentLimit)) : core::String();
}

}  // namespace

void KivCrashModule::didReceiveMemoryWarning(const platform::Notification&) noexcept {
  if (!didLogLowMemoryWarning_.exchange(true)) {
    defaults().setObject(kLowMemory, true);
    defaults().synchronize();
  }
}

// What is not written by now may never be: in the background a program is often killed, and at its
// end nobody waits for other threads.
void KivCrashModule::leavingAppSafely() noexcept {
  if (terminatingDetection_) {
    defaults().setObject(kLeftSafely, true);
    defaults().synchronize();
  }
}

std::optional<core::Date> KivCrashModule::systemBootTime() const noexcept {
  const std::optional<std::int64_t> seconds = platform::bootTime(surroundings_.files);
  return seconds ? std::optional(core::Date{static_cast<double>(*seconds) - core::Date::kSecondsFrom1970})
                 : std::nullopt;
}

bool KivCrashModule::isCausedBySystemReboot() noexcept {
  const std::optional<core::Date> time = systemBootTime();
  const std::optional<core::String> id = platform::bootId(surroundings_.files);
  if (!time || isKnownBoot(*time, id)) {
    return false;
  }
  defaults().setObject(kBootTime, *time);
  defaults().setObject(kBootId, id ? core::Value(*id) : core::Value());
  defaults().synchronize();
  return true;
}

void KivCrashModule::checkUnexpectedExit() noexcept {
  if (KivCrashHandler::sharedInstance().isCrashAccidentHappen()) {
    return;  // the flags tell the next run of this crash already
  }
  if (KivModelBase::getDefualtAnaModel().isVersionChanged() || isCausedBySystemReboot() || kiv_debugger_attached()) {
    defaults().setObject(kLeftSafely, true);
    defaults().setObject(kLowMemory, false);
    defaults().setObject(KivDidCrashLastSession, false);
    defaults().synchronize();
    return;
  }
  if (didCheckUnexpectedExit_.exchange(true)) {
    return;
  }
  if (terminatingDetection_) {
    const bool wasKilled = defaults().object(kLeftSafely) && !defaults().boolean(kLeftSafely);
    if (wasKilled && !defaults().boolean(KivDidCrashLastSession)) {
      reportUnexpectExit(defaults().boolean(kLowMemory));
    }
    defaults().setObject(kLeftSafely, false);
    defaults().setObject(kLowMemory, false);
  }
  defaults().setObject(KivDidCrashLastSession, false);
  defaults().synchronize();
}

void KivCrashModule::reportUnexpectExit(bool lowMemory) noexcept {
  kiv_log_info("SIGKILL detected for last session");
  if (didReportUnexpectedExit_.exchange(true)) {
    return;
  }
  const core::String reason = lowMemory ? "The application did not terminate cleanly but no crash occured."
                                          "\nThe application received at least one Low Memory Warning."
                                        : "The application did not terminate cleanly but no crash occured.";
  surroundings_.global->asyncAfter(kReportDelay, [this, reason] { reportKilled(reason); });
}

void KivCrashModule::reportKilled(const core::String& reason) const noexcept {
  const auto callback = sigkillReportCallback_.load();
  const auto report = KivCustomizedException::exceptionWithType(KivCustomizedException::kCocoa, core::String("SIGKILL"),
                                                                reason, KivCustomizedException::Lines(), {});
  report->setAttachmentLog(attachmentOf(callback != nullptr ? callback() : nullptr));
  report->reportExceptionAndQuit(false);
}

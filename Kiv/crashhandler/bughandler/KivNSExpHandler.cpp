#include "Kiv/crashhandler/bughandler/KivNSExpHandler.h"

#include <memory>
#include <string>

#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/bughandler/CrashHandling.h"
#include "Kiv/crashhandler/bughandler/JournalKeeper.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Platform/Foundation/NSException.h"

namespace {

std::atomic<NSUncaughtExceptionHandler> oldhandler{nullptr};
std::atomic<bool> nsexp_handled{false};

KivCrashData::Texts toTexts(const std::vector<std::string>& lines) {
  KivCrashData::Texts texts;
  for (const std::string& line : lines) {
    texts.append(core::String(line));
  }
  return texts;
}

}  // namespace

void kiv_objc_uncaught_handler(const NSException& exception) {
  if (nsexp_handled.exchange(true)) {
    NSSetUncaughtExceptionHandler(nullptr);
    return;
  }
  KivCrashData& data = KivCrashData::expData();
  CrashHandling& handling = CrashHandling::current();
  if (handling.isCrashAccidentHappen()) {  // it came out of the handling of a crash
    data.setSdkCrashCallStack(toTexts(exception.callStackSymbols()));
    return;
  }
  kiv_log_always("<KIV> Catch uncaught exception:\n\n%@ %@ \n %@\n", exception.name(), exception.reason(),
                 exception.callStackSymbols());
  handling.setCrashAccidentHappen(true);
  handling.stopStallMonitor();
  data.setExp(std::make_shared<const NSException>(exception));
  data.setType(core::String(exception.name()));
  data.setError(core::String(exception.reason()));
  JournalKeeper::keepException();
  if (const NSUncaughtExceptionHandler old = oldhandler) {
    kiv_log_warn("Note: there is another uncaught exception handler exist");
    old(exception);
  }
}

KivNSExpHandler& KivNSExpHandler::sharedInstance() noexcept {
  static KivNSExpHandler handler;  // trivially destructible, so never destroyed
  return handler;
}

bool KivNSExpHandler::enableSignalHandlerCheck(bool enable) noexcept {
  signalHandlerResetable_ = enable;
  return isSignalHandlerCheckEnable();
}

bool KivNSExpHandler::checkHandler() const noexcept {
  return NSGetUncaughtExceptionHandler() == kiv_objc_uncaught_handler;
}

bool KivNSExpHandler::install() noexcept {
  const NSUncaughtExceptionHandler current = NSGetUncaughtExceptionHandler();
  kiv_log_always("NSGetUncaughtExceptionHandler: %p", reinterpret_cast<const void*>(current));
  if (current != kiv_objc_uncaught_handler) {
    oldhandler = current;
  }
  if (handlerEnable_) {
    NSSetUncaughtExceptionHandler(kiv_objc_uncaught_handler);
  } else {
    kiv_log_warn("NSException handler disable");
  }
  return true;
}

bool KivNSExpHandler::uninstall() noexcept {
  NSSetUncaughtExceptionHandler(oldhandler);
  kiv_log_info("Uninstall NSException handler SUCCESS");
  return true;
}

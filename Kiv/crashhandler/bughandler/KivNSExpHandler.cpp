#include "Kiv/crashhandler/bughandler/KivNSExpHandler.h"

#include "Kiv/common/utils/KivLog.h"
#include "Platform/Foundation/NSException.h"

namespace {

std::atomic<NSUncaughtExceptionHandler> oldhandler{nullptr};
std::atomic<bool> nsexp_handled{false};

}  // namespace

void kiv_objc_uncaught_handler(const NSException& exception) {
  if (nsexp_handled.exchange(true)) {
    NSSetUncaughtExceptionHandler(nullptr);
    return;
  }
  kiv_log_always("<KIV> Catch uncaught exception:\n\n%@ %@ \n %@\n", exception.name(), exception.reason(),
                 exception.callStackSymbols());
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

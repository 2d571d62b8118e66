#pragma once

#include <atomic>

class NSException;

/// Catches exceptions that nobody handled: they are recorded, and the abort that follows
/// brings the signal that KivSigHandler handles. Installed and removed by KivCrashHandler.
class KivNSExpHandler {
 public:
  static KivNSExpHandler& sharedInstance() noexcept;

  /// Whether install() may install; on at first.
  void enableHandler(bool enable) noexcept { handlerEnable_ = enable; }
  bool handlerEnable() const noexcept { return handlerEnable_; }
  /// Stored and reported only; answers what is stored.
  bool enableSignalHandlerCheck(bool enable) noexcept;
  bool isSignalHandlerCheckEnable() const noexcept { return signalHandlerResetable_; }

  /// Whether the uncaught-exception handler in force is this library's.
  bool checkHandler() const noexcept;
  /// Both always answer true. Installing again keeps the handler that was there first.
  bool install() noexcept;
  bool uninstall() noexcept;

 private:
  KivNSExpHandler() noexcept = default;

  std::atomic<bool> signalHandlerResetable_{false};
  std::atomic<bool> handlerEnable_{true};
};

/// The installed uncaught-exception handler; only the first exception is looked at.
void kiv_objc_uncaught_handler(const NSException& exception);

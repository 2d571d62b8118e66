#pragma once

/// Sends stored crashes to the collector. Nothing is stored or sent yet.
class KivCrashUploadHandler {
 public:
  static KivCrashUploadHandler& sharedInstance() noexcept {
    static auto& handler = *new KivCrashUploadHandler;
    return handler;
  }

  /// False: there is nothing to start.
  bool uploadCrashes() noexcept { return false; }

 private:
  KivCrashUploadHandler() noexcept = default;
  ~KivCrashUploadHandler() = delete;
};

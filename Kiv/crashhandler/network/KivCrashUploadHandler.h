#pragma once

#include "Kiv/crashhandler/persist/KivCrashListener.h"

/// Sends stored crashes to the collector. Nothing is sent yet.
class KivCrashUploadHandler final : public KivCrashListener {
 public:
  static KivCrashUploadHandler& sharedInstance() noexcept {
    static auto& handler = *new KivCrashUploadHandler;
    return handler;
  }

  /// False: there is nothing to start.
  bool uploadCrashes() noexcept { return false; }

  /// One record, while the process that made it still lives.
  void checkAndUploadAfterCrash(const KivExpObj& /*record*/) noexcept {}
  void onCrashHappened(const KivExpObj& record) noexcept override { checkAndUploadAfterCrash(record); }

 private:
  KivCrashUploadHandler() noexcept = default;
  ~KivCrashUploadHandler() = delete;
};

#include "Kiv/crashhandler/persist/KivCrashHandler.h"

#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/bughandler/CrashNote.h"
#include "Kiv/crashhandler/bughandler/ImageWatch.h"
#include "Kiv/crashhandler/bughandler/KivNSExpHandler.h"
#include "Kiv/crashhandler/bughandler/KivSigHandler.h"
#include "Kiv/crashhandler/bughandler/KivStackCollector.h"
#include "Kiv/crashhandler/persist/KivFilePersistHandler.h"

KivCrashHandler& KivCrashHandler::sharedInstance() noexcept {
  static auto& handler = *new KivCrashHandler;
  return handler;
}

void KivCrashHandler::installHandler() noexcept {
  enabled_ = true;
  KivStackCollector::sharedInstance().prepare();
  CrashNote::prepare(KivFilePersistHandler::sharedInstance().folderPath());
  KivSigHandler::sharedInstance().install();
  KivNSExpHandler::sharedInstance().install();
  const auto result = [](bool installed) { return installed ? "SUCCESS" : "FAILED"; };
  kiv_log_always("<KIV> Install exception handler %@, signal handler %@",
                 result(KivNSExpHandler::sharedInstance().checkHandler()),
                 result(KivSigHandler::sharedInstance().checkHandler()));
  ImageWatch::start();
}

void KivCrashHandler::uninstallHandler() noexcept {
  enabled_ = false;
  ImageWatch::stop();
  kiv_log_info("Uninstall crash handler.");
  KivNSExpHandler::sharedInstance().uninstall();
  KivSigHandler::sharedInstance().uninstall();
}

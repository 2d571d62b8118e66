#include "Kiv/crashhandler/persist/KivFilePersistHandler.h"

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Kiv/common/KivPersistedKeys.h"
#include "Kiv/common/utils/KivLog.h"

KivFilePersistHandler& KivFilePersistHandler::sharedInstance() noexcept {
  static auto& handler = *new KivFilePersistHandler;
  return handler;
}

KivFilePersistHandler::KivFilePersistHandler() noexcept : folderPath_(KivPersistedKeys::defaultDirectory()) {
  core::createDirectories(folderPath_.get());
}

bool KivFilePersistHandler::changeDbPath(std::string_view path) noexcept {
  const core::String directory = path;
  if (!core::fileExists(directory)) {
    kiv_log_info("create dir %@", directory);
  }
  if (directory.empty() || core::createDirectories(directory) != 0) {
    kiv_log_error("error reset db path");
    return false;
  }
  folderPath_.set(directory);
  kiv_log_info("**reset default crash data path %@ ", directory);
  return true;
}

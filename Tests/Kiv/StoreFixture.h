#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <set>

#include "Core/PropertyList/BinaryPropertyList.h"
#include "Core/Text/Format.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/utils/KivDeviceUtil.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/persist/CrashRecordFile.h"
#include "Kiv/crashhandler/persist/KivFilePersistHandler.h"
#include "Tests/Support/HeldQueue.h"
#include "Tests/Support/LogCapture.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace test {

using Hashes = std::set<std::string>;

/// A crash of today's noon, or of so many seconds or days before.
inline KivExpObj crash(const std::string& hash, std::int64_t secondsBefore = 0, std::int64_t daysBefore = 0) {
  static const std::int64_t noon = KivDeviceUtil::getTimeOfTodayStart() + std::int64_t{12} * 3600 * 1000;
  KivExpObj record;
  record.setHash(core::String(hash));
  record.time = record.cashTime = noon - (daysBefore * 86400 + secondsBefore) * 1000;
  record.callStack = core::String(std::string(300, 'f'));
  return record;
}

inline Hashes hashesOf(const KivFilePersistHandler::Records& records) {
  Hashes hashes;
  for (const KivExpObj& record : records) {
    hashes.insert(record.hash()->str());
  }
  return hashes;
}

/// What a new run finds in a directory.
inline Hashes storedIn(const std::string& folder) {
  HeldQueue queue;
  const auto store = std::make_unique<KivFilePersistHandler>(folder, queue);
  store->loadAllDatas();
  return hashesOf(store->getAllCrashed(1000));
}

/// A store in a directory of its own, with all of its log and its background work in hand.
class StoreTest : public testing::Test {
 protected:
  static constexpr const char* kIndex = ".crash_meta.data";

  StoreTest() {
    kiv_log_level = 5;
    // The model, which knows of version changes, keeps its file here.
    static const TemporaryDirectory home;
    ::setenv("XDG_DATA_HOME", home.path().c_str(), 1);
    KivModelBase::getDefualtAnaModel().resetBundlePath(home.path());
    LogCapture::take();
  }
  ~StoreTest() override { kiv_log_level = 0; }

  /// From now on this is another version than the run before; in a child, where it does no harm.
  static void changeVersion() {
    KivModelBase& model = KivModelBase::getDefualtAnaModel();
    model.setAppVersion(core::kiv_format("%@ and later", model.getVersionHash()));
    model.checkVer();
    LogCapture::take();
  }

  void save(const Hashes& hashes) {
    std::int64_t second = 0;
    for (const std::string& hash : hashes) {
      KivExpObj record = crash(hash, ++second);
      EXPECT_TRUE(store_.saveOneCrash(record));
    }
  }
  /// The file of a crash that was saved.
  std::string fileOf(const std::string& hash) {
    const auto record = store_.getCrashWithMd5(hash);
    return directory_.file(record ? CrashRecordFile::nameOf(*record).view() : "none");
  }
  /// Another process's store, or the next run's, in the same directory or another one. On the heap: to
  /// the thread sanitizer a lock that follows another one on the stack is the same.
  std::unique_ptr<KivFilePersistHandler> open(const std::string& folder = "") {
    return std::make_unique<KivFilePersistHandler>(folder.empty() ? directory_.path() : folder, queue_);
  }
  std::string path(const std::string& name) const { return directory_.file(name); }
  std::vector<std::string> crashFiles() const { return namesIn(directory_.path(), ".crash_"); }
  void writeList(const char* name, const core::Value& list) const {
    const core::Data bytes = core::encodeBinaryPropertyList(list);
    writeFile(path(name), {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  }
  core::Value listIn(const char* name) const {
    const std::string bytes = contentOf(path(name));
    const auto list = core::decodeBinaryPropertyList(core::Data(bytes.data(), bytes.size()).span());
    return list ? *list : core::Value("no list");
  }

  TemporaryDirectory directory_;
  HeldQueue queue_;
  LogCapture log_;
  KivFilePersistHandler store_{directory_.path(), queue_};
};

}  // namespace test

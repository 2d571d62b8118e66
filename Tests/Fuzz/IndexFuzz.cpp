#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/crashhandler/persist/KivFilePersistHandler.h"
#include "Platform/Logging/NSLog.h"
#include "Tests/Support/HeldQueue.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

void require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

KivExpObj crash(const char* hash, std::int64_t seconds) {
  KivExpObj record;
  record.setHash(core::String(hash));
  record.cashTime = record.time = seconds * 1000;
  return record;
}

void write(const core::String& path, std::span<const std::uint8_t> bytes) {
  const auto file = core::File::open(path, O_WRONLY | O_CREAT | O_TRUNC);
  require(file && file->write(bytes) == 0);
}

/// A store with two crashes, between two files that no index may lead to; in memory, where it is quick.
class Place {
 public:
  const bool isInMemory = ::access("/dev/shm", W_OK) == 0 && ::setenv("TMPDIR", "/dev/shm", 0) == 0;
  const test::TemporaryDirectory directory;
  const core::String folder = directory.file("store");
  const core::String outside = directory.file("outside");
  const core::String beside = core::joinPath(folder, "beside");

  Place() {
    ::setenv("TZ", "UTC", 1);
    ::setenv("XDG_DATA_HOME", directory.path().c_str(), 1);
    platform::setLogSink([](std::string_view) noexcept {});
    KivModelBase::getDefualtAnaModel();
    KivFilePersistHandler store(folder);
    for (const auto& [hash, second] : {std::pair("first", 1), std::pair("second", 2)}) {
      KivExpObj record = crash(hash, second);
      require(store.saveOneCrash(record));
    }
    const auto names = core::listDirectory(folder);
    for (const core::String& name : *names) {
      files_.set(name, *core::readFile(core::joinPath(folder, name)));
    }
    files_.set("beside", core::Data());
    write(outside, {});
  }

  void reset() const {
    const auto names = core::listDirectory(folder);
    for (const core::String& name : *names) {
      if (!files_.contains(name)) {
        core::removeFile(core::joinPath(folder, name));
      }
    }
    for (const auto& [name, content] : files_) {
      write(core::joinPath(folder, name), content.span());
    }
  }

 private:
  core::Dictionary<core::Data> files_;
};

}  // namespace

/// The first byte says which file of the store the rest is: the index, a record that the index names,
/// the summaries or the strategy. Whatever it is, what was stored besides stays, and a crash is saved.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Place place;
  constexpr const char* kFiles[] = {".crash_meta.data", ".crash_1970-01-01-00-00-01.data", ".user_info.data",
                                    ".new_strategy.data"};
  if (size == 0) {
    return 0;
  }
  place.reset();
  const std::size_t which = data[0] % std::size(kFiles);
  write(core::joinPath(place.folder, kFiles[which]), {data + 1, size - 1});

  test::HeldQueue queue;
  KivFilePersistHandler store(place.folder, queue);
  store.loadAllDatas();
  store.loadStrategys();
  KivExpObj record = crash("added", 3);
  require(store.saveOneCrash(record));
  const KivFilePersistHandler::Records all = store.getAllCrashed(100);
  require(which == 0 ? !all.empty() : all.size() >= 2);
  store.deleteAllInvalidCrashes();
  queue.run();
  require(store.getCrashWithMd5("added").has_value());
  store.deleteCrashes(all);
  queue.run();
  require(core::fileExists(place.outside) && core::fileExists(place.beside));
  return 0;
}

#include <gtest/gtest.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstdlib>
#include <numbers>
#include <thread>

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Core/Files/RecordLock.h"
#include "Core/Kernel/ImageList.h"
#include "Core/Kernel/Process.h"
#include "Core/Kernel/ThreadList.h"
#include "Core/PropertyList/BinaryPropertyList.h"
#include "Core/Text/Format.h"
#include "Core/Text/Uuid.h"
#include "Kiv/common/model/KivExpObj.h"
#include "Kiv/crashhandler/bughandler/KivBinaryImageCollector.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Kiv/crashhandler/bughandler/KivRegisterDataCollector.h"
#include "Kiv/crashhandler/bughandler/KivStackCollector.h"
#include "Kiv/crashhandler/journal/CrashJournal.h"
#include "Kiv/crashhandler/persist/CrashRecordFile.h"
#include "Kiv/crashhandler/persist/KivFilePersistHandler.h"
#include "Tests/Support/Child.h"
#include "Tests/Support/HeapCount.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

void say(std::string_view line) {
  if (::write(STDERR_FILENO, line.data(), line.size()) < 0) {
    std::abort();
  }
}

/// What a crash asks of Core. False when anything went wrong.
bool useAll(const core::String& root) {
  core::ValueDictionary record;
  for (int i = 0; i < 50; ++i) {
    record.set(core::generateUuid(),
               core::kiv_format("%@ %d %#018llx %f", "text", i, std::size_t{7}, std::numbers::pi));
  }
  const core::Data bytes = core::encodeBinaryPropertyList(record);
  const core::String folder = core::joinPath(root, "a/b");
  const core::String path = core::joinPath(folder, "record");
  const bool written = core::createDirectories(folder) == 0 &&
                       core::writeFileAtomically(path, bytes.span(), 0600, core::Durability::kSynced) == 0;
  const auto read = core::readFile(path);
  const auto decoded = core::decodeBinaryPropertyList(read->span());
  const auto names = core::listDirectory(folder);
  const auto lock = core::RecordLock::acquire(core::joinPath(root, "lock"), core::RecordLock::Mode::kTry);
  core::ImageList::refresh();
  return written && decoded && *decoded->dictionary() == record && names->size() == 1 && lock &&
         !core::ImageList::current().empty() && core::removeFile(path) == 0;
}

/// What a crash asks of the record that it stores, and of an equal one that was stored before.
bool recordAll() {
  KivExpObj record;
  record.setHash(core::String("0123"));
  record.callStack = core::kiv_format("%@ %d", "frame", 1);
  record.valueMap.set("A24", "6.1");
  record.attachmentList.emplace().data = core::Data("log", 3);
  KivExpObj stored;
  return stored.setEncodeData(record.encodeData().span()) && stored.hash() == "0123" &&
         stored.attachmentList.size() == 1 && !stored.setEncodeData({});
}

/// What a crash asks of a store that was not loaded yet and holds an equal crash and a broken one.
bool storeAll(const core::String& folder) {
  KivFilePersistHandler store(folder);
  std::optional<KivExpObj> equal = store.getCrashWithMd5("equal");
  KivExpObj record;
  record.setHash(core::String("new"));
  const bool saved = store.saveOneCrash(record) && equal && store.updateOneCrash(&*equal) &&
                     store.updateOneCrash(&record, false) && store.synchronizeCrash(record) == 0;
  store.persistAllCrashMetaDatas();
  store.persistAllUserInfoDatas();
  return saved && !store.getCrashWithMd5("broken") && store.getAllCrashed(9).size() == 2 &&
         !store.updateOneCrash(nullptr);
}

/// What a crash asks of the collectors.
bool collectAll(const ucontext_t& context) {
  auto& images = KivBinaryImageCollector::sharedInstance();
  images.loadBinarys();
  images.reloadBinarysIfChanged();
  KivStackCollector::sharedInstance().collectThreads(&context.uc_mcontext, core::threadPort(core::threadId()), nullptr,
                                                     0);
  images.collectBinaryInfos(images.getAllBinarys()[0].sname);
  KivRegisterDataCollector::sharedInstance().collectAllRegisterInfos(0, context.uc_mcontext, false);
  const KivCrashData& data = KivCrashData::expData();
  return data.allThreadInfos().size() >= 3 && data.crashThreadInfo()->threadStacks.size() > 3 &&
         data.processUUID()->size() == 32 && data.registerDatas();
}

/// Works on the owner of a crash, after one call of each kind that shows that the showing works.
template <class Work>
void expectNoHeapCalls(Work work) {
  const auto crash = [&] {
    KivStackCollector::sharedInstance().prepare();
    CrashJournal::prepare({});
    KivStackCollector::sharedInstance().setNeedSymbol(true);
    KivStackCollector::refresh();
    std::thread([] { ::pause(); }).detach();
    test::onCrashOwner([&] {
      test::showHeapCalls();
      void* volatile control = std::malloc(1);
      std::free(control);
      say("begin\n");
      const bool held = work();
      say("end\n");
      _exit(held ? 0 : 1);
    });
  };
  EXPECT_EXIT(crash(), testing::ExitedWithCode(0), "heap call: malloc\nheap call: free\nbegin\nend\n");
}

TEST(Heap, IsLeftAloneByCoreOnTheOwnerOfACrash) {
  const test::TemporaryDirectory directory;
  const core::String root = directory.path();
  expectNoHeapCalls([&root] { return useAll(root); });
}

TEST(Heap, IsLeftAloneByTheCollectorsOnTheOwnerOfACrash) {
  expectNoHeapCalls([] {
    ucontext_t context;
    getcontext(&context);
    return collectAll(context);
  });
}

TEST(Heap, IsLeftAloneByTheStoreOnTheOwnerOfACrash) {
  const test::TemporaryDirectory directory;
  ::setenv("XDG_DATA_HOME", directory.path().c_str(), 1);
  const core::String folder = directory.path();
  std::int64_t second = 0;
  for (const char* hash : {"equal", "broken"}) {
    KivExpObj record;
    record.setHash(core::String(hash));
    record.cashTime = ++second * 1000;
    KivFilePersistHandler(folder).saveOneCrash(record);
    if (second == 2) {
      test::writeFile(directory.file(CrashRecordFile::nameOf(record)), "broken");
    }
  }
  platform::DispatchQueue::global();
  expectNoHeapCalls([&folder] { return storeAll(folder); });
}

TEST(Heap, IsLeftAloneByRecordsOnTheOwnerOfACrash) {
  expectNoHeapCalls(recordAll);
}

}  // namespace

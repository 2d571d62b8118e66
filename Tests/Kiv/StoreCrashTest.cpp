#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <thread>

#include "Core/Files/RecordLock.h"
#include "Core/Files/SpareDescriptor.h"
#include "Core/Kernel/Process.h"
#include "Kiv/crashhandler/bughandler/CrashHandling.h"
#include "Kiv/crashhandler/persist/StoreLock.h"
#include "Platform/Foundation/TimeZone.h"
#include "Tests/Kiv/StoreFixture.h"
#include "Tests/Support/CallProbe.h"
#include "Tests/Support/Child.h"

namespace {

namespace fs = std::filesystem;
using test::crash;
using test::Hashes;
using test::storedIn;

class StoreCrashTest : public test::StoreTest {
 protected:
  /// What a crash does with a store that loaded nothing yet.
  static bool saveCrash(KivFilePersistHandler& store, KivExpObj& record) {
    const bool saved = store.saveOneCrash(record) && store.updateOneCrash(&record);
    store.persistAllUserInfoDatas();
    return saved;
  }
  bool saveCrash(KivExpObj record) {
    const auto store = open();
    return saveCrash(*store, record);
  }
  /// Runs `work` on the owner of a crash, in a child: its crash heap is its own. It may start no thread, which
  /// the thread sanitizer would take for one of the parent's.
  template <class Work>
  static void expectOnOwner(Work&& work) {
    EXPECT_EQ(statusOnOwner(work), 0);
  }
  template <class Work>
  static int statusOnOwner(Work&& work) {
    return test::runInChild([&] {
      EXPECT_TRUE(core::CrashHeap::reserve() && core::CrashOwner::claim() == core::CrashOwner::Claim::kFirst);
      work();
      core::CrashOwner::release();
      return HasFailure() ? 1 : 0;
    });
  }
};

TEST_F(StoreCrashTest, ACrashBeforeTheLoadingKeepsWhatItHasNotSeen) {
  save({"A", "B"});
  expectOnOwner([this] {
    const auto store = open();
    auto equal = store->getCrashWithMd5("A");
    ASSERT_TRUE(equal);
    equal->dcount = 7;
    EXPECT_TRUE(store->updateOneCrash(&*equal));
    KivExpObj record = crash("C", 50);
    EXPECT_TRUE(store->saveOneCrash(record));
    EXPECT_EQ(store->synchronizeCrash(record), 0);
    EXPECT_FALSE(store->getCrashWithMd5("D"));
  });
  EXPECT_EQ(storedIn(directory_.path()), (Hashes{"A", "B", "C"}));
  const auto store = open();
  EXPECT_EQ(store->getCrashWithMd5("A")->dcount, 7);
  expectOnOwner([this] {
    changeVersion();
    EXPECT_TRUE(saveCrash(crash("new", 60)));
  });
  EXPECT_EQ(storedIn(directory_.path()), Hashes{"new"});
}

TEST_F(StoreCrashTest, DoesItsBackgroundWorkAtOnceAndOpensNoTimeZone) {
  save({"A", "bad"});
  test::writeFile(fileOf("bad"), "garbage");
  const std::string now = CrashRecordFile::nameOf(crash("now")).str();
  platform::localTime(core::wallClockNanoseconds() / 1'000'000'000);  // as any line in the log does
  expectOnOwner([&] {
    ::setenv("TZ", "UTC-5", 1);
    EXPECT_FALSE(store_.getCrashWithMd5("bad"));
    const KivExpObj record = *store_.getCrashWithMd5("A");
    EXPECT_TRUE(store_.deleteCrash(&record));
    store_.persistAllUserInfoDatas();
    EXPECT_EQ(crashFiles(), std::vector<std::string>{kIndex});
    EXPECT_EQ(listIn(".user_info.data"), core::Value(core::ValueArray()));
    EXPECT_EQ(CrashRecordFile::nameOf(crash("now")).view().substr(0, 20), now.substr(0, 20));
  });
  EXPECT_EQ(listIn(kIndex), core::Value(core::ValueDictionary()));
}

TEST_F(StoreCrashTest, AnEqualCrashTooLargeForTheCrashHeapIsReplaced) {
  KivExpObj large = crash("A", 10);
  const std::string log(std::size_t{20} << 20, 'x');
  large.attachmentList.emplace().data = core::Data(log.data(), log.size());
  store_.saveOneCrash(large);
  expectOnOwner([this] {
    EXPECT_FALSE(store_.getCrashWithMd5("A"));
    EXPECT_EQ(crashFiles().size(), 2U);
    EXPECT_TRUE(saveCrash(crash("A", 50)));
  });
  const auto next = open();
  EXPECT_TRUE(next->getCrashWithMd5("A")->attachmentList.empty());
}

/// Another process holds the record lock, and then a thread that waits for it the process's own lock.
TEST_F(StoreCrashTest, WaitsForNoLock) {
  save({"A"});
  int held[2];
  ASSERT_EQ(::pipe(held), 0);
  const pid_t holder = ::fork();
  if (holder == 0) {
    const auto lock = core::RecordLock::acquire(path(".store.lock"), core::RecordLock::Mode::kTry);
    ::_exit(lock && ::write(held[1], "", 1) == 1 ? ::pause() : 1);
  }
  char none;
  ASSERT_EQ(::read(held[0], &none, 1), 1);
  expectOnOwner([&] { EXPECT_TRUE(saveCrash(crash("C", 50))); });
  static std::atomic<bool> isWaiting;
  const test::CallProbe probe([](long number) noexcept -> long {
    isWaiting = isWaiting || number == SYS_fcntl;
    return 0;
  });
  std::thread waiting([&] { const StoreLock lock(directory_.path()); });
  while (!isWaiting) {
    std::this_thread::yield();
  }
  EXPECT_TRUE(test::onCrashOwner([&] { EXPECT_TRUE(saveCrash(crash("D", 60))); }));
  ::kill(holder, SIGKILL);
  ::waitpid(holder, nullptr, 0);
  waiting.join();
  EXPECT_EQ(storedIn(directory_.path()), (Hashes{"A", "C", "D"}));
  ::close(held[0]);
  ::close(held[1]);
}

TEST_F(StoreCrashTest, HasTheSpareDescriptorForTheRecord) {
  save({"A"});
  expectOnOwner([this] {
    core::SpareDescriptor::prepare();
    const rlimit few{32, 32};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    while (::dup(STDERR_FILENO) >= 0) {
    }
    EXPECT_TRUE(saveCrash(crash("C", 50)));
  });
  EXPECT_EQ(storedIn(directory_.path()), (Hashes{"A", "C"}));
}

TEST_F(StoreCrashTest, OthersLeaveTheStoreToTheCrash) {
  save({"A", "B"});
  const std::string index = test::contentOf(path(kIndex));
  const std::string b = test::contentOf(fileOf("B"));
  EXPECT_TRUE(test::onCrashOwner([&] {
    std::thread([&] {
      KivExpObj record = *store_.getCrashWithMd5("B");
      record.dcount = 0;
      EXPECT_TRUE(store_.updateOneCrash(&record, true));
      EXPECT_TRUE(store_.deleteCrashes(store_.getAllCrashed(9)));
      KivExpObj added = crash("C", 50);
      EXPECT_TRUE(store_.saveOneCrash(added));
      queue_.run();
    }).join();
    EXPECT_EQ(test::contentOf(path(kIndex)), index);
    EXPECT_EQ(test::contentOf(fileOf("B")), b);
    store_.persistAllCrashMetaDatas();
  }));
  EXPECT_EQ(storedIn(directory_.path()), (Hashes{"A", "B", "C"}));
}

TEST_F(StoreCrashTest, CleaningEndsWithTheFirstSignOfACrash) {
  class Accident final : public CrashHandling {
   public:
    Accident() { setCurrent(*this); }
    ~Accident() { setCurrent(before_); }
    void setCrashAccidentHappen(bool) noexcept override {}
    bool isCrashAccidentHappen() const noexcept override { return ++asked_ > 2; }
    void stopStallMonitor() noexcept override {}
    bool crashHapped(KivCrashData*) noexcept override { return false; }
    void uninstallHandler() noexcept override {}

   private:
    mutable int asked_ = 0;
    CrashHandling& before_ = current();
  };
  for (auto clean : {&KivFilePersistHandler::deleteAllCrashes, &KivFilePersistHandler::deleteAllInvalidCrashes}) {
    for (const std::string name : {"1", "2", "3", "4"}) {
      test::writeFile(path(".crash_" + name), "stray");
    }
    (store_.*clean)();
    const Accident accident;
    queue_.run();
    EXPECT_EQ(crashFiles().size(), 2U);
  }
}

TEST_F(StoreCrashTest, ProcessesAndThreadsKeepEachOthersCrashes) {
  constexpr int kWriters = 5;  // three processes and two threads of this one
  constexpr int kCrashes = 25;
  constexpr std::size_t kKept = 1 + kWriters * kCrashes * 4 / 5;
  save({"A"});
  int start[2];
  ASSERT_EQ(::pipe(start), 0);
  const auto write = [&](KivFilePersistHandler& store, int writer) {
    store.loadAllDatas();
    for (int number = writer; number < kWriters * kCrashes; number += kWriters) {
      KivExpObj record = crash(std::to_string(number), 1000 + number);
      EXPECT_TRUE(store.saveOneCrash(record));
      EXPECT_TRUE(number / kWriters % 5 != 0 || store.deleteCrash(&record));
      store.deleteAllInvalidCrashes();
      queue_.run();
    }
  };
  std::vector<pid_t> processes;
  for (int writer = 2; writer < kWriters; ++writer) {
    processes.push_back(::fork());
    if (processes.back() == 0) {
      ::close(start[1]);
      char none;
      EXPECT_EQ(::read(start[0], &none, 1), 0);
      write(*open(), writer);
      ::_exit(HasFailure() ? 1 : 0);
    }
  }
  ::close(start[0]);
  ::close(start[1]);
  std::thread other([&] { write(store_, 1); });
  write(store_, 0);
  other.join();
  for (const pid_t process : processes) {
    int status = -1;
    ::waitpid(process, &status, 0);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(storedIn(directory_.path()).size(), kKept);
  EXPECT_EQ(listIn(kIndex).dictionary()->size(), kKept);
  EXPECT_EQ(crashFiles().size(), kKept + 1);
}

/// Every system call of a crash in turn fails, or ends the process.
TEST_F(StoreCrashTest, EachFailingCallCostsTheNewCrashAtMost) {
  constexpr int kReached = 2;
  constexpr int kCallsOfOneWrite = 4;
  save({"A", "B"});
  const auto sweep = [&](int error, void (*act)()) {
    int calls = 0;
    int lost = 0;
    for (int status = kReached; status == kReached; ++calls) {
      const test::TemporaryDirectory folder;
      fs::copy(directory_.path(), folder.path(), fs::copy_options::recursive);
      status = statusOnOwner([&] {
        const auto store = open(folder.path());
        KivExpObj record = crash("C", 60);
        if (test::runWithFault(
                calls + 1, error, [&] { saveCrash(*store, record); }, act)) {
          core::rawSystemCall(SYS_exit_group, kReached);
        }
      });
      const auto next = open(folder.path());
      next->loadAllDatas();
      next->deleteAllInvalidCrashes();
      queue_.run();
      const Hashes stored = storedIn(folder.path());
      EXPECT_TRUE(stored.contains("A") && stored.contains("B")) << error << " " << calls;
      EXPECT_TRUE(test::namesIn(folder.path(), "crash_meta").empty()) << error << " " << calls;
      lost += stored.contains("C") ? 0 : 1;
      ASSERT_TRUE(status == kReached || status == 0) << error << " " << calls;
    }
    EXPECT_GT(calls, 25);
    EXPECT_LE(lost, act == nullptr ? kCallsOfOneWrite : calls * 2 / 3) << error;
  };
  for (const int error : {-ENOSPC, -EMFILE, -EFAULT}) {
    sweep(error, nullptr);
  }
  sweep(0, [] { core::rawSystemCall(SYS_exit_group, kReached); });
}

}  // namespace

#include <sys/fsuid.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "Tests/Kiv/StoreFixture.h"
#include "Tests/Support/Child.h"

namespace {

namespace fs = std::filesystem;
using test::crash;
using test::Hashes;
using test::hashesOf;
using test::storedIn;
using test::StoreTest;
using Texts = std::vector<std::string>;

/// To the file system this thread is somebody else's while it lives, also where the super-user tests.
class Stranger {
 public:
  Stranger() { ::setfsuid(::geteuid() == 0 ? 65534 : ::geteuid()); }
  Stranger(const Stranger&) = delete;
  Stranger& operator=(const Stranger&) = delete;
  ~Stranger() { ::setfsuid(::geteuid()); }
};

TEST_F(StoreTest, KeepsACrashUnderItsSecondAndInTheIndex) {
  ::setenv("TZ", "UTC-8", 1);
  ::tzset();
  KivExpObj record = crash("0AB");
  record.time = 77;
  record.cashTime = 1520258589999;  // 2018-03-05 14:03:09 UTC
  EXPECT_FALSE(store_.hasCrash());
  EXPECT_TRUE(store_.saveOneCrash(record));
  EXPECT_TRUE(store_.hasCrash());
  const std::string file = ".crash_2018-03-05-22-03-09.data";
  EXPECT_EQ(crashFiles(), (Texts{file, kIndex}));
  const KivCrashMetaData expected{"0AB", file, 77, true, false};
  EXPECT_EQ(listIn(kIndex), core::Value(core::ValueDictionary{{"0AB", expected.encodeData()}}));
  EXPECT_EQ(CrashRecordFile::read(path(file)).record, record);
  EXPECT_EQ(storedIn(directory_.path()), Hashes{"0AB"});
  // Another crash of that second takes the file, not the entry.
  KivExpObj second = crash("0CD");
  second.cashTime = record.cashTime;
  EXPECT_TRUE(store_.saveOneCrash(second));
  EXPECT_EQ(crashFiles().size(), 2U);
  EXPECT_EQ(store_.getCrashWithMd5("0AB")->hash(), "0CD");
  ::unsetenv("TZ");
  ::tzset();
}

TEST_F(StoreTest, UpdatesRecordAndEntry) {
  KivExpObj record = crash("A");
  EXPECT_FALSE(store_.updateOneCrash(&record));
  EXPECT_TRUE(test::LogCapture::tookOne("<ERROR> <KIV> error update crash for meta is nil"));
  EXPECT_FALSE(store_.updateOneCrash(nullptr));
  EXPECT_TRUE(test::LogCapture::tookOne("<ERROR> <KIV> error update crash for exp is nil"));
  store_.saveOneCrash(record);
  const std::string file = fileOf("A");
  const core::String name(fs::path(file).filename());
  const struct {
    std::int32_t count;
    std::optional<bool> uplaoded;
    KivCrashMetaData entry;
  } kSteps[] = {{0, true, {"A", name, 5, false, true}},
                {2, std::nullopt, {"A", name, 6, true, true}},
                {1, false, {"A", name, 7, true, false}}};
  record.time = 5;
  for (const auto& [count, uplaoded, entry] : kSteps) {
    record.dcount = count;
    EXPECT_TRUE(uplaoded ? store_.updateOneCrash(&record, *uplaoded) : store_.updateOneCrash(&record));
    EXPECT_EQ(listIn(kIndex), core::Value(core::ValueDictionary{{"A", entry.encodeData()}}));
    EXPECT_EQ(CrashRecordFile::read(file).record, record);
    ++record.time;
  }
}

TEST_F(StoreTest, AnswersThatItCouldEncodeWhatItCouldNotWrite) {
  save({"A"});
  const std::string index = test::contentOf(path(kIndex));
  KivExpObj record = crash("B", 100);
  const std::string file = path(CrashRecordFile::nameOf(record).str());
  fs::create_directory(file);
  EXPECT_TRUE(store_.saveOneCrash(record));
  EXPECT_TRUE(test::LogCapture::tookOne("<ERROR> <KIV> Fail to save crash to path " + file));
  EXPECT_EQ(test::contentOf(path(kIndex)), index);
  EXPECT_FALSE(store_.updateOneCrash(&record));
  fs::remove(file);
  store_.saveOneCrash(record);
  fs::remove(file);
  fs::create_directory(file);
  test::LogCapture::take();
  EXPECT_TRUE(store_.updateOneCrash(&record, true));
  EXPECT_TRUE(test::LogCapture::tookOne("<ERROR> <KIV> Failed update crash to path " + file));
  EXPECT_EQ(store_.getCrashesNeedUpload(1).size(), 1U);
}

TEST_F(StoreTest, SelectsByUploadAgeAndCount) {
  const struct {
    const char* hash;
    std::int64_t daysAgo;
    bool hasNew;
    std::optional<bool> uplaoded;
    bool isToUpload;
    bool isToDelete;
  } kCases[] = {{"new", 0, true, std::nullopt, true, false},     {"old", 2, true, std::nullopt, true, false},
                {"sent", 0, false, true, false, false},          {"again", 0, true, true, false, false},
                {"again-yesterday", 1, true, true, true, false}, {"sent-yesterday", 1, false, true, false, true},
                {"from-tomorrow", -1, true, true, false, false}};
  Hashes toUpload;
  Hashes toDelete;
  std::int64_t second = 0;
  for (const auto& one : kCases) {
    KivExpObj record = crash(one.hash, ++second, one.daysAgo);
    store_.saveOneCrash(record);
    record.dcount = one.hasNew ? 1 : 0;
    EXPECT_TRUE(!one.uplaoded || store_.updateOneCrash(&record, *one.uplaoded));
    for (const auto& [isWanted, hashes] :
         {std::pair(one.isToUpload, &toUpload), std::pair(one.isToDelete, &toDelete)}) {
      if (isWanted) {
        hashes->insert(one.hash);
      }
    }
  }
  EXPECT_EQ(hashesOf(store_.getCrashesNeedUpload(1)), toUpload);
  EXPECT_TRUE(store_.getCrashesNeedUpload(0).empty());
  EXPECT_EQ(hashesOf(store_.getCrashesNeedDel()), toDelete);
  EXPECT_EQ(store_.getLatestCrash()->hash(), "from-tomorrow");
  const std::pair<int, std::size_t> counts[] = {{-1, 0}, {0, 0}, {2, 2}, {7, 7}, {100, 7}};
  for (const auto& [maximum, expected] : counts) {
    EXPECT_EQ(hashesOf(store_.getAllCrashed(maximum)).size(), expected);
  }
}

TEST_F(StoreTest, DeletesFilesInTheBackground) {
  save({"A", "B", "C"});
  test::LogCapture::take();
  const KivExpObj a = *store_.getCrashWithMd5("A");
  EXPECT_TRUE(store_.deleteCrash(&a));
  EXPECT_EQ(hashesOf(store_.getAllCrashed(9)), (Hashes{"B", "C"}));
  EXPECT_EQ(storedIn(directory_.path()).size(), 3U);
  queue_.run();
  EXPECT_EQ(storedIn(directory_.path()), (Hashes{"B", "C"}));
  EXPECT_EQ(crashFiles().size(), 3U);
  EXPECT_TRUE(test::LogCapture::take().empty());
  EXPECT_FALSE(store_.deleteCrash(&a));
  EXPECT_FALSE(store_.deleteCrash(nullptr));
  EXPECT_FALSE(store_.deleteCrashes({}));
  fs::remove(fileOf("C"));
  EXPECT_TRUE(store_.deleteCrashes({*store_.getCrashWithMd5("B"), a, crash("C")}));
  queue_.run();
  EXPECT_EQ(test::LogCapture::take(),
            (Texts{"<ERROR> <KIV> faield delete crash with hash A", "<ERROR> <KIV> faield delete crash with nil exp",
                   "<ERROR> <KIV> faield delete crashes with nil exps", "<ERROR> <KIV> faield delete crash with hash A",
                   "<ERROR> <KIV> remove crash file failed No such file or directory"}));
  EXPECT_EQ(crashFiles(), Texts{kIndex});
  EXPECT_EQ(listIn(kIndex), core::Value(core::ValueDictionary()));
}

TEST_F(StoreTest, DropsWhatIsNoRecordAndKeepsWhatCannotBeReadNow) {
  KivExpObj kept = crash("good", 60);
  store_.saveOneCrash(kept);
  const std::string good = test::contentOf(fileOf("good"));
  const std::function<void(const std::string&)> kDamages[] = {
      [](const std::string& file) { test::writeFile(file, ""); },
      [](const std::string& file) { test::writeFile(file, "bplist00 and no more"); },
      [&](const std::string& file) { test::writeFile(file, good.substr(0, good.size() / 2)); },
      [](const std::string& file) { fs::resize_file(file, (std::size_t{64} << 20) + 1); }};
  const std::function<bool(const KivCrashMetaData&)> kFinders[] = {
      [this](const KivCrashMetaData&) { return store_.getCrashWithMd5("bad").has_value(); },
      [this](const KivCrashMetaData&) { return store_.getLatestCrash().has_value(); },
      [this](const KivCrashMetaData&) { return store_.getAllCrashed(9).size() == 2; },
      [this](const KivCrashMetaData& entry) { return store_.getByMeta(entry).has_value(); }};
  for (const auto& damage : kDamages) {
    for (const auto& find : kFinders) {
      const bool isKept = &find == &kFinders[3];
      KivExpObj record = crash("bad", -5);
      store_.saveOneCrash(record);
      const core::String name = CrashRecordFile::nameOf(record);
      damage(path(name.str()));
      EXPECT_FALSE(find({"bad", name, record.time, true, false}));
      queue_.run();
      EXPECT_EQ(fs::exists(path(name.str())), isKept);
      EXPECT_EQ(listIn(kIndex).dictionary()->contains("bad"), isKept);
      EXPECT_EQ(storedIn(directory_.path()), Hashes{"good"});
    }
  }
  // Gone between listing and reading, or not ours to read for a while.
  save({"hidden", "gone"});
  fs::remove(fileOf("gone"));
  fs::permissions(directory_.path(), fs::perms::all);
  fs::permissions(fileOf("good"), fs::perms(0644));
  fs::permissions(fileOf("hidden"), fs::perms::none);
  {
    const Stranger stranger;
    EXPECT_EQ(hashesOf(store_.getAllCrashed(9)), Hashes{"good"});
    EXPECT_FALSE(store_.getCrashWithMd5("hidden"));
  }
  queue_.run();
  EXPECT_EQ(storedIn(directory_.path()), (Hashes{"good", "hidden"}));
}

TEST_F(StoreTest, SetsADamagedIndexAsideAndStartsAnew) {
  save({"A"});
  const std::string good = test::contentOf(path(kIndex));
  const core::Data list = core::encodeBinaryPropertyList(core::ValueArray{core::Value(1)});
  for (const std::string& damaged :
       {std::string(), std::string("garbage"), good.substr(0, good.size() - 1), std::string((16 << 20) + 1, 'x'),
        std::string(reinterpret_cast<const char*>(list.data()), list.size())}) {
    const test::TemporaryDirectory folder;
    test::writeFile(folder.file(kIndex), damaged);
    const auto store = open(folder.path());
    store->loadAllDatas();
    EXPECT_FALSE(store->hasCrash());
    KivExpObj record = crash("B");
    store->saveOneCrash(record);
    store->deleteAllInvalidCrashes();
    queue_.run();
    EXPECT_EQ(storedIn(folder.path()), Hashes{"B"});
    const auto aside = test::namesIn(folder.path(), "crash_meta.data.broken-");
    EXPECT_TRUE(aside.size() == 1 && test::contentOf(folder.file(aside[0])) == damaged);
  }
  const test::TemporaryDirectory folder;
  fs::create_directories(folder.file(kIndex));
  const auto store = open(folder.path());
  KivExpObj record = crash("B");
  store->saveOneCrash(record);
  EXPECT_EQ(storedIn(folder.path()), Hashes{"B"});
}

TEST_F(StoreTest, LeavesAnIndexAloneThatItMayNotOpen) {
  save({"A"});
  const std::string index = test::contentOf(path(kIndex));
  fs::permissions(directory_.path(), fs::perms::all);
  fs::permissions(path(kIndex), fs::perms::none);
  {
    const Stranger stranger;
    const auto store = open();
    store->loadAllDatas();
    EXPECT_FALSE(store->hasCrash());
    KivExpObj record = crash("B");
    EXPECT_TRUE(store->saveOneCrash(record));
    store->deleteAllInvalidCrashes();
    queue_.run();
    EXPECT_EQ(hashesOf(store->getAllCrashed(9)), Hashes{"B"});
  }
  EXPECT_EQ(test::contentOf(path(kIndex)), index);
  EXPECT_EQ(storedIn(directory_.path()), Hashes{"A"});
  EXPECT_EQ(crashFiles().size(), 3U);
}

TEST_F(StoreTest, KeepsTheGoodEntriesOfAnIndexAndFollowsNoneOutOfItsDirectory) {
  save({"A"});
  core::ValueDictionary index = *listIn(kIndex).dictionary();
  index.set("text", core::Value("no archive"));
  index.set("garbage", core::Value(core::Data("bplist00", 8)));
  for (const std::string name : {"../outside", ".user_info.data", ".crash_/../x", kIndex, ""}) {
    index.set(core::String(name),
              KivCrashMetaData{core::String(name), core::String(name), 9, true, false}.encodeData());
  }
  writeList(kIndex, core::Value(index));
  test::writeFile(path(".user_info.data"), "kept");
  const test::TemporaryDirectory inside;
  const std::string outside = directory_.path() + "/../outside";
  test::writeFile(outside, "kept");
  const auto store = open();
  store->loadAllDatas();
  EXPECT_EQ(hashesOf(store->getAllCrashed(99)), Hashes{"A"});
  KivFilePersistHandler::Records all;
  for (const auto& entry : index) {
    all.append(crash(entry.key.str()));
  }
  EXPECT_TRUE(store->deleteCrashes(all));
  queue_.run();
  EXPECT_EQ(test::contentOf(outside) + test::contentOf(path(".user_info.data")), "keptkept");
  EXPECT_EQ(listIn(kIndex), core::Value(core::ValueDictionary()));
  fs::remove(outside);
}

TEST_F(StoreTest, DeletesFilesThatNoEntryNames) {
  save({"A"});
  const auto other = open();
  KivExpObj record = crash("other", 50);
  other->saveOneCrash(record);
  for (const std::string name : {".crash_x.data", ".crash_", "crash_y.data"}) {
    test::writeFile(path(name), "stray");
  }
  fs::last_write_time(path(".crash_"), fs::file_time_type::clock::now() + std::chrono::hours(1000));
  fs::create_directories(path(".crash_folder/full"));
  test::LogCapture::take();
  EXPECT_TRUE(store_.deleteAllInvalidCrashes());
  EXPECT_EQ(crashFiles().size(), 6U);
  queue_.run();
  EXPECT_EQ(test::LogCapture::take(), (Texts{"<INFO> <KIV> delete invalid crash file .crash_",
                                             "<INFO> <KIV> delete invalid crash file .crash_folder",
                                             "<ERROR> <KIV> clean crash file .crash_folder failed Is a directory",
                                             "<INFO> <KIV> delete invalid crash file .crash_x.data"}));
  EXPECT_EQ(storedIn(directory_.path()), (Hashes{"A", "other"}));
  EXPECT_TRUE(fs::exists(path("crash_y.data")));
}

TEST_F(StoreTest, DeletesEveryFileAndForgetsNothing) {
  save({"A", "B"});
  test::writeFile(path("crash_meta.data.broken-1"), "aside");
  test::LogCapture::take();
  EXPECT_TRUE(store_.deleteAllCrashes());
  queue_.run();
  const Texts log = test::LogCapture::take();
  EXPECT_EQ(log.size(), 3U);
  EXPECT_EQ(log[0], "<INFO> <KIV> delete crash file .crash_meta.data");
  EXPECT_TRUE(crashFiles().empty());
  EXPECT_TRUE(fs::exists(path("crash_meta.data.broken-1")));
  EXPECT_TRUE(store_.hasCrash());
  EXPECT_TRUE(store_.getCrashesNeedUpload(1).empty());
}

TEST_F(StoreTest, DropsAnOlderVersionsThings) {
  save({"A"});
  store_.saveCommonStrategy({});
  store_.persistAllUserInfoDatas();
  queue_.run();
  EXPECT_EQ(test::runInChild([this] {
              changeVersion();
              const auto store = open();
              KivExpObj early = crash("early", 30);
              KivExpObj late = crash("late", 40);
              store->saveOneCrash(early);
              store->loadAllDatas();
              store->loadAllDatas();
              store->loadStrategys();
              store->saveOneCrash(late);
              EXPECT_EQ(test::LogCapture::take(), Texts{"<INFO> <KIV> clean old version userinfo and crashes"});
              queue_.run();
              EXPECT_EQ(crashFiles().size(), 3U);
              EXPECT_FALSE(fs::exists(path(".user_info.data")));
              return HasFailure() ? 1 : 0;
            }),
            0);
  EXPECT_EQ(storedIn(directory_.path()), (Hashes{"early", "late"}));
}

TEST_F(StoreTest, KeepsTheLastStrategy) {
  KivLocalStrategy strategy;
  strategy.url = "http://one";
  EXPECT_FALSE(store_.saveCommonStrategy(strategy));
  EXPECT_FALSE(fs::exists(path(".new_strategy.data")));
  queue_.run();
  EXPECT_TRUE(test::LogCapture::tookOne("<INFO> <KIV> saved common strategy "));
  const auto urlFound = [this] {
    const auto store = open();
    store->loadStrategys();
    return store->loadCommonStrategyFile().url->str();
  };
  EXPECT_EQ(urlFound(), "http://one");
  EXPECT_TRUE(test::LogCapture::tookOne("<INFO> <KIV> Load local strategy: StrategyUpdateTime: 0"));
  store_.deleteCommonStrategy();
  queue_.run();
  EXPECT_EQ(store_.loadCommonStrategyFile().url, "");
  EXPECT_EQ(urlFound(), "");
  EXPECT_TRUE(test::LogCapture::take().empty());
  for (const std::string broken : {"", "garbage"}) {
    test::writeFile(path(".new_strategy.data"), broken);
    EXPECT_EQ(urlFound(), "");
    EXPECT_EQ(test::LogCapture::take().back(), "<ERROR> <KIV> Failed to load local strategy.");
  }
  fs::remove(path(".new_strategy.data"));
  fs::create_directory(path(".new_strategy.data"));
  EXPECT_EQ(urlFound(), "");
  store_.saveCommonStrategy(strategy);
  queue_.run();
  EXPECT_TRUE(test::LogCapture::tookOne("<WARN> <KIV> fail to save common strategy"));
}

TEST_F(StoreTest, QueuesSummariesInMemoryAlone) {
  KivSummaryInfo first;
  first.startTime = 1;
  KivSummaryInfo second;
  second.startTime = 2;
  writeList(".user_info.data", core::ValueArray{core::Value(first.encodeData()), core::Value("no archive")});
  store_.loadAllDatas();
  store_.saveOneData(second);
  EXPECT_EQ(store_.getCurrSize(), 3);
  EXPECT_EQ(store_.getAllDatas()[0], first);
  EXPECT_EQ(queue_.run(), 0U);
  second.encodeData();
  store_.deleteDatas({second});
  EXPECT_EQ(store_.getCurrSize(), 2);
  queue_.run();
  EXPECT_EQ(listIn(".user_info.data"), core::Value(core::ValueArray()));
  store_.deleteAllUserDatas();
  EXPECT_EQ(store_.getCurrSize(), 0);
}

TEST_F(StoreTest, MovesWithItsEntriesAndWithoutTheirFiles) {
  save({"A"});
  EXPECT_TRUE(store_.changeDbPath(path("moved")));
  EXPECT_TRUE(store_.hasCrash());
  EXPECT_FALSE(store_.getCrashWithMd5("A"));
  save({"B"});
  EXPECT_EQ(storedIn(path("moved")), Hashes{"B"});
  EXPECT_EQ(storedIn(directory_.path()), Hashes{"A"});
}

}  // namespace

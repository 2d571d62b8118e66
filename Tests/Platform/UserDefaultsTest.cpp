#include "Platform/Foundation/UserDefaults.h"

#include <gtest/gtest.h>
#include <sys/fsuid.h>

#include <filesystem>
#include <fstream>
#include <list>
#include <thread>

#include "Core/Files/RecordLock.h"
#include "Core/Memory/CrashHeap.h"
#include "Core/Memory/CrashOwner.h"
#include "Core/PropertyList/BinaryPropertyList.h"
#include "Core/Text/Format.h"
#include "Tests/Support/Child.h"
#include "Tests/Support/HeldQueue.h"
#include "Tests/Support/LogCapture.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;
using core::Value;
using core::ValueDictionary;
using platform::UserDefaults;

class UserDefaultsTest : public testing::Test {
 protected:
  UserDefaults open() { return UserDefaults(path_, queue_); }
  std::string content() const { return test::contentOf(path_); }
  ValueDictionary stored() const {
    const std::string text = content();
    const auto value = core::decodeBinaryPropertyList(core::Data(text.data(), text.size()).span());
    return value && value->dictionary() != nullptr ? *value->dictionary() : ValueDictionary();
  }

  test::HeldQueue queue_;
  test::TemporaryDirectory directory_;
  std::string path_ = directory_.file("folder/org.example.plist");
};

TEST_F(UserDefaultsTest, WhatWasSetWinsOverWhatWasRegistered) {
  UserDefaults defaults = open();
  defaults.registerDefaults({{"both", Value("registered")}, {"one", Value(1)}});
  defaults.registerDefaults({{"one", Value(2)}});
  defaults.setObject("both", Value("set"));
  EXPECT_EQ(defaults.integer("one"), 2);
  EXPECT_FALSE(fs::exists(directory_.file("folder")));
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(defaults.string("both"), core::String("set"));
    ASSERT_TRUE(defaults.synchronize());
  }
  EXPECT_EQ(stored(), (ValueDictionary{{"both", Value("set")}}));
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0600));
  EXPECT_EQ(fs::status(directory_.file("folder")).permissions(), fs::perms(0700));
  defaults.removeObject("both");
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(defaults.string("both"), core::String("registered"));
    ASSERT_TRUE(defaults.synchronize());
  }
  EXPECT_EQ(stored(), ValueDictionary());
}

TEST_F(UserDefaultsTest, ValuesSetTogetherAreWrittenTogether) {
  std::optional<UserDefaults> defaults = open();
  for (std::size_t round = 1; round < 3; ++round) {
    defaults->setObject(core::kiv_format("a%lu", round), Value(1));
    defaults->setObject(core::kiv_format("b%lu", round), Value(2));
    EXPECT_EQ(stored().size(), 2 * round - 2);
    EXPECT_EQ(queue_.run(), 1U);
    EXPECT_EQ(stored().size(), 2 * round);
  }
  defaults->removeObject("a1");
  defaults.reset();
  EXPECT_EQ(queue_.run(), 1U);
  EXPECT_EQ(stored().size(), 3U);
}

TEST_F(UserDefaultsTest, SynchronizingMergesWithWhatOthersWrote) {
  UserDefaults ours = open();
  UserDefaults theirs = open();
  for (const char* key : {"both", "theirs", "removed"}) {
    theirs.setObject(key, Value(1));
  }
  ASSERT_TRUE(theirs.synchronize());
  ours.setObject("both", Value(2));
  ours.removeObject("removed");
  ASSERT_TRUE(ours.synchronize());
  ASSERT_TRUE(theirs.synchronize());
  for (UserDefaults* defaults : {&ours, &theirs}) {
    EXPECT_EQ(defaults->integer("theirs"), 1);
    EXPECT_EQ(defaults->integer("both"), 2);
    EXPECT_EQ(defaults->object("removed"), std::nullopt);
  }
}

TEST_F(UserDefaultsTest, NothingIsLostBetweenThreadsAndProcesses) {
  constexpr int kKeys = 50;
  const auto writeKeys = [](UserDefaults& defaults, int writer) {
    bool done = true;
    for (int key = 0; key < kKeys; ++key) {
      defaults.setObject(core::kiv_format("%d.%d", writer, key), Value(key));
      done = defaults.synchronize() && done;
    }
    return done;
  };
  UserDefaults shared = open();
  pid_t processes[4];
  for (int writer = 0; writer < 4; ++writer) {
    processes[writer] = ::fork();
    if (processes[writer] == 0) {
      ::_exit(writeKeys(shared, writer) ? 0 : 1);
    }
  }
  std::list<std::jthread> threads;
  for (int writer = 4; writer < 8; ++writer) {
    threads.emplace_back([&, writer] {
      UserDefaults own = open();
      EXPECT_TRUE(writeKeys(writer % 2 == 0 ? own : shared, writer));
    });
  }
  threads.clear();
  for (const pid_t process : processes) {
    int status = -1;
    ::waitpid(process, &status, 0);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(stored().size(), std::size_t{8 * kKeys});
}

TEST_F(UserDefaultsTest, AFileThatCannotBeUnderstoodIsSetAside) {
  const test::LogCapture log;
  const core::Data list = core::encodeBinaryPropertyList(Value(core::ValueArray{Value(1)}));
  for (const std::string& broken : {std::string(), std::string("<plist><dict><key>k</key></dict></plist>"),
                                    std::string(reinterpret_cast<const char*>(list.data()), list.size())}) {
    const test::TemporaryDirectory directory;
    path_ = directory.file("org.example.plist");
    std::ofstream(path_) << broken;
    UserDefaults defaults = open();
    EXPECT_TRUE(test::LogCapture::tookOne(path_)) << broken;
    defaults.setObject("key", Value(1));
    EXPECT_TRUE(defaults.synchronize());
    EXPECT_EQ(stored().size(), 1U);
    const auto aside = test::namesIn(directory.path(), "org.example.plist.broken-");
    EXPECT_TRUE(aside.size() == 1 && test::contentOf(directory.file(aside[0])) == broken);
  }
}

TEST_F(UserDefaultsTest, WhatCannotBeReadOrWrittenIsLeftAlone) {
  const test::LogCapture log;
  const std::string folder = directory_.file("folder");
  std::ofstream(folder) << "in the way";
  UserDefaults defaults = open();
  defaults.setObject("key", Value(1));
  EXPECT_FALSE(defaults.synchronize());
  EXPECT_FALSE(defaults.synchronize());
  EXPECT_TRUE(test::LogCapture::tookOne("Not a directory"));
  fs::remove(folder);
  fs::create_directory(folder);
  fs::create_symlink(path_, path_);
  EXPECT_FALSE(defaults.synchronize());
  EXPECT_TRUE(fs::is_symlink(path_));
  fs::remove(path_);
  std::ofstream(path_) << "kept";
  for (const std::string& path : {directory_.path(), folder, path_}) {
    fs::permissions(path, path == path_ ? fs::perms::none : fs::perms::all);
  }
  ::setfsuid(::geteuid() == 0 ? 65534 : ::geteuid());  // to the file system, this thread is somebody else's
  EXPECT_FALSE(defaults.synchronize());
  ::setfsuid(::geteuid());
  fs::permissions(path_, fs::perms(0600));
  EXPECT_EQ(content(), "kept");
  fs::remove(path_);
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_EQ(stored().size(), 1U);
}

TEST_F(UserDefaultsTest, TheOwnerOfACrashWritesAtOnceAndWaitsForNobody) {
  ASSERT_TRUE(core::CrashHeap::reserve());
  path_ = directory_.file("org.example.plist");
  const auto held = core::RecordLock::acquire(path_ + ".lock", core::RecordLock::Mode::kWait);
  ASSERT_TRUE(held);
  const ValueDictionary expected{{"waiting", Value(2)}, {"crashed", Value(true)}};
  EXPECT_EQ(test::runInChild([&] {
              UserDefaults defaults = open();
              defaults.setObject("waiting", Value(2));
              core::CrashOwner::claim();
              defaults.setObject("crashed", Value(true));
              return stored() == expected && defaults.synchronize() ? 0 : 1;
            }),
            0);
  EXPECT_EQ(stored(), expected);
}

}  // namespace

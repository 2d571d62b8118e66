#include "Platform/Foundation/UserDefaults.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/fsuid.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <list>
#include <mutex>
#include <sstream>
#include <thread>

#include "Core/Files/RecordLock.h"
#include "Core/Memory/CrashHeap.h"
#include "Core/Memory/CrashOwner.h"
#include "Core/PropertyList/BinaryPropertyList.h"
#include "Core/Text/Format.h"
#include "Tests/Support/LogCapture.h"
#include "Tests/Support/Subprocess.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;
using core::Value;
using platform::UserDefaults;

/// Keeps background work until it is asked for.
class HeldQueue final : public platform::DispatchQueue {
 public:
  std::size_t run() {
    const std::list<Block> blocks = std::exchange(blocks_, {});
    for (const Block& block : blocks) {
      block();
    }
    return blocks.size();
  }

 private:
  void send(Block block) override {
    const std::lock_guard lock(mutex_);
    blocks_.push_back(std::move(block));
  }
  void sendAfter(double, Block) override {}

  std::mutex mutex_;
  std::list<Block> blocks_;
};

class UserDefaultsTest : public testing::Test {
 protected:
  UserDefaults open() { return UserDefaults(path_, queue_); }
  std::string content() const {
    std::stringstream text;
    text << std::ifstream(path_).rdbuf();
    return text.str();
  }
  void writeFile(std::string_view text) const { std::ofstream(path_) << text; }
  core::ValueDictionary stored() const {
    const std::string bytes = content();
    const auto value =
        core::decodeBinaryPropertyList({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
    return value && value->dictionary() != nullptr ? *value->dictionary() : core::ValueDictionary();
  }
  HeldQueue queue_;
  test::TemporaryDirectory directory_;
  std::string path_ = directory_.file("org.example.plist");
};

TEST_F(UserDefaultsTest, WhatWasSetWinsOverWhatWasRegistered) {
  UserDefaults defaults = open();
  defaults.registerDefaults({{"both", Value("registered")}, {"one", Value(1)}});
  defaults.registerDefaults({{"one", Value(2)}});
  defaults.setObject("both", Value("set"));
  EXPECT_EQ(defaults.string("both"), core::String("set"));
  EXPECT_EQ(defaults.integer("one"), 2);
  ASSERT_TRUE(defaults.synchronize());
  EXPECT_EQ(defaults.string("both"), core::String("set"));
  EXPECT_EQ(stored(), (core::ValueDictionary{{"both", Value("set")}}));
  for (const bool synchronized : {false, true}) {
    defaults.removeObject("both");
    EXPECT_TRUE(!synchronized || defaults.synchronize());
    EXPECT_EQ(defaults.string("both"), core::String("registered"));
  }
  EXPECT_EQ(stored(), core::ValueDictionary());
}

TEST_F(UserDefaultsTest, ReadersAnswerNothingForAnotherType) {
  UserDefaults defaults = open();
  const struct {
    Value value;
    bool boolean;
    std::int64_t integer;
    std::optional<core::String> string;
    bool dictionary;
  } cases[] = {
      {Value(true), true, 1, {}, false},
      {Value(std::int64_t{1} << 40), true, std::int64_t{1} << 40, {}, false},
      {Value(2.9), true, 2, {}, false},
      {Value("YES"), true, 0, "YES", false},
      {Value(core::ValueDictionary{{"k", Value(1)}}), false, 0, {}, true},
      {Value(), false, 0, {}, false},
  };
  for (const auto& [value, boolean, integer, string, dictionary] : cases) {
    defaults.setObject("key", value);
    EXPECT_EQ(defaults.object("key").value_or(Value()), value);
    EXPECT_EQ(defaults.boolean("key"), boolean);
    EXPECT_EQ(defaults.integer("key"), integer);
    EXPECT_EQ(defaults.string("key"), string);
    EXPECT_EQ(defaults.dictionary("key").has_value(), dictionary);
  }
}

TEST_F(UserDefaultsTest, TheFileBelongsToTheUserAlone) {
  path_ = directory_.file("new/folder/org.example.plist");
  UserDefaults defaults = open();
  EXPECT_FALSE(fs::exists(directory_.file("new")));
  defaults.setObject("key", Value(1));
  ASSERT_TRUE(defaults.synchronize());
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0600));
  EXPECT_EQ(fs::status(directory_.file("new/folder")).permissions(), fs::perms(0700));
}

TEST_F(UserDefaultsTest, ValuesSetTogetherAreWrittenTogether) {
  UserDefaults defaults = open();
  defaults.setObject("a", Value(1));
  defaults.setObject("b", Value(2));
  EXPECT_FALSE(fs::exists(path_));
  EXPECT_EQ(queue_.run(), 1U);
  EXPECT_EQ(stored().size(), 2U);
  defaults.removeObject("a");
  EXPECT_EQ(queue_.run(), 1U);
  EXPECT_EQ(stored().size(), 1U);

  // What is under way outlives the object.
  std::optional<UserDefaults> gone = open();
  gone->setObject("c", Value(3));
  gone.reset();
  EXPECT_EQ(queue_.run(), 1U);
  EXPECT_EQ(stored().size(), 2U);
}

TEST_F(UserDefaultsTest, SynchronizingMergesWithWhatOthersWrote) {
  UserDefaults ours = open();
  UserDefaults theirs = open();
  theirs.setObject("theirs", Value(1));
  theirs.setObject("both", Value("theirs"));
  theirs.setObject("removed", Value(1));
  ASSERT_TRUE(theirs.synchronize());
  EXPECT_EQ(ours.object("theirs"), std::nullopt);
  ours.setObject("both", Value("ours"));
  ours.removeObject("removed");
  ASSERT_TRUE(ours.synchronize());
  EXPECT_EQ(ours.integer("theirs"), 1);
  ASSERT_TRUE(theirs.synchronize());
  EXPECT_EQ(theirs.string("both"), core::String("ours"));
  EXPECT_EQ(theirs.object("removed"), std::nullopt);
}

constexpr int kWriters = 4;
constexpr int kKeys = 50;

void writeKeys(UserDefaults& defaults, const char* writer) {
  for (int key = 0; key < kKeys; ++key) {
    defaults.setObject(core::kiv_format("%s.%d", writer, key), Value(key));
    EXPECT_TRUE(defaults.synchronize());
  }
}

// By itself a writer without company; the next test starts it several times on one file.
TEST_F(UserDefaultsTest, OneProcessWritesItsKeys) {
  const char* shared = ::getenv("KIV_TEST_DEFAULTS");
  const char* writer = ::getenv("KIV_TEST_WRITER");
  UserDefaults defaults(shared != nullptr ? shared : path_, queue_);
  writeKeys(defaults, writer != nullptr ? writer : "alone");
}

TEST_F(UserDefaultsTest, NothingIsLostBetweenThreadsAndProcesses) {
  std::list<test::Subprocess> processes;
  std::list<std::thread> threads;
  UserDefaults defaults = open();
  for (int writer = 0; writer < kWriters; ++writer) {
    const std::string name = std::to_string(writer);
    processes.emplace_back(
        std::vector<std::string>{"/proc/self/exe", "--gtest_filter=UserDefaultsTest.OneProcessWritesItsKeys"},
        test::SubprocessOptions{.environment = {{"KIV_TEST_DEFAULTS", path_}, {"KIV_TEST_WRITER", "p" + name}}});
    threads.emplace_back([&, name, alone = writer % 2 == 0] {
      UserDefaults own = open();
      writeKeys(alone ? own : defaults, name.c_str());
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (test::Subprocess& process : processes) {
    const test::Outcome outcome = process.wait();
    EXPECT_EQ(outcome.exitStatus, 0) << outcome.output << outcome.errors;
  }
  EXPECT_EQ(stored().size(), std::size_t{2 * kWriters * kKeys});
}

TEST_F(UserDefaultsTest, AFileThatCannotBeUnderstoodIsSetAside) {
  const core::Data list = core::encodeBinaryPropertyList(Value(core::ValueArray{Value(1)}));
  const std::string contents[] = {"", "garbage", "bplist00", "<plist><dict><key>k</key></dict></plist>",
                                  std::string(reinterpret_cast<const char*>(list.data()), list.size())};
  for (const std::string& broken : contents) {
    const test::LogCapture log;
    const test::TemporaryDirectory directory;
    path_ = directory.file("org.example.plist");
    writeFile(broken);
    UserDefaults defaults = open();
    EXPECT_TRUE(test::LogCapture::tookOne(path_)) << broken;
    defaults.setObject("key", Value(1));
    EXPECT_TRUE(defaults.synchronize());
    EXPECT_EQ(stored().size(), 1U);
    for (const auto& entry : fs::directory_iterator(directory.path())) {
      if (entry.path().string().starts_with(path_ + ".broken-")) {
        path_ = entry.path();
      }
    }
    EXPECT_EQ(content(), broken);
  }
}

TEST_F(UserDefaultsTest, AFileThatCannotBeReadIsLeftAlone) {
  const test::LogCapture log;
  fs::create_symlink(path_, path_);
  UserDefaults defaults = open();
  defaults.setObject("key", Value(1));
  EXPECT_FALSE(defaults.synchronize());
  EXPECT_EQ(defaults.integer("key"), 1);
  EXPECT_TRUE(fs::is_symlink(path_));
  EXPECT_FALSE(test::LogCapture::take().empty());
  fs::remove(path_);
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_EQ(stored().size(), 1U);
}

TEST_F(UserDefaultsTest, AFileOfSomebodyElseIsLeftAlone) {
  const test::LogCapture log;
  writeFile("kept");
  fs::permissions(directory_.path(), fs::perms::all);
  fs::permissions(path_, fs::perms::none);
  // Where the super-user runs the tests, this thread is another user's to the file system.
  if (::geteuid() == 0) {
    ::setfsuid(65534);
  }
  UserDefaults defaults = open();
  defaults.setObject("key", Value(1));
  EXPECT_FALSE(defaults.synchronize());
  ::setfsuid(::geteuid());
  fs::permissions(path_, fs::perms(0600));
  EXPECT_EQ(content(), "kept");
}

TEST_F(UserDefaultsTest, AFailedWriteIsReportedOnceAndMadeUpFor) {
  const test::LogCapture log;
  path_ = directory_.file("folder/org.example.plist");
  std::ofstream(directory_.file("folder")) << "in the way";
  UserDefaults defaults = open();
  defaults.setObject("key", Value(1));
  EXPECT_FALSE(defaults.synchronize());
  EXPECT_FALSE(defaults.synchronize());
  EXPECT_TRUE(test::LogCapture::tookOne("Not a directory"));
  fs::remove(directory_.file("folder"));
  EXPECT_TRUE(defaults.synchronize());
  EXPECT_EQ(stored().size(), 1U);
}

TEST_F(UserDefaultsTest, TheOwnerOfACrashWritesAtOnceAndWaitsForNobody) {
  ASSERT_TRUE(core::CrashHeap::reserve());
  const auto held = core::RecordLock::acquire(path_ + ".lock", core::RecordLock::Mode::kWait);
  ASSERT_TRUE(held);
  const core::ValueDictionary expected{{"waiting", Value(2)}, {"crashed", Value(true)}};
  const pid_t crashing = ::fork();
  if (crashing == 0) {
    UserDefaults defaults = open();
    defaults.setObject("waiting", Value(2));
    core::CrashOwner::claim();
    defaults.setObject("crashed", Value(true));
    ::_exit(stored() == expected && defaults.synchronize() ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(crashing, &status, 0), crashing);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(stored(), expected);
}

}  // namespace

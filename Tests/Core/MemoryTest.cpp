#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "Core/Memory/Allocator.h"
#include "Core/Memory/Array.h"
#include "Core/Memory/Block.h"
#include "Core/Memory/CrashHeap.h"
#include "Core/Memory/CrashOwner.h"
#include "Core/Memory/Dictionary.h"
#include "Core/Memory/Published.h"
#include "Core/Memory/String.h"
#include "Tests/Support/Child.h"

namespace {

using core::CrashHeap;
using core::CrashOwner;
using core::CrashSection;

template <class Work>
void onOtherThread(Work work) {
  std::jthread{work};
}

/// A crash leaves things behind for good, so `work` has one in a process of its own.
template <class Work>
void expectInCrash(Work work) {
  const auto crash = [&work] {
    const bool held = CrashHeap::reserve() && CrashOwner::claim() == CrashOwner::Claim::kFirst && work();
    _exit(held ? 0 : 1);
  };
  EXPECT_EXIT(crash(), testing::ExitedWithCode(0), "");
}

TEST(CrashOwner, IsTheFirstThreadAlone) {
  EXPECT_EQ(CrashOwner::claim(), CrashOwner::Claim::kFirst);
  EXPECT_EQ(CrashOwner::claim(), CrashOwner::Claim::kAgain);
  EXPECT_TRUE(CrashOwner::isCurrentThread());
  onOtherThread([] {
    EXPECT_EQ(CrashOwner::claim(), CrashOwner::Claim::kRefused);
    EXPECT_FALSE(CrashOwner::isCurrentThread());
  });
  CrashOwner::release();
  EXPECT_FALSE(CrashOwner::exists());
}

TEST(Allocator, TakesFromTheCrashHeapOnTheOwnerAlone) {
  expectInCrash([] {
    void* other = nullptr;
    onOtherThread([&] { other = core::allocate(100); });
    const std::size_t before = CrashHeap::used();
    void* const own[3] = {core::allocate(1), core::allocate(17), core::allocate(0)};
    bool held = !CrashHeap::contains(other) && CrashHeap::used() - before == 48;
    for (const void* piece : own) {
      held = held && CrashHeap::contains(piece) && reinterpret_cast<std::uintptr_t>(piece) % 16 == 0;
    }
    core::deallocate(other);  // the owner frees nothing
    onOtherThread([&] {
      core::deallocate(own[0]);
      core::deallocate(other);
    });
    return held;
  });
}

TEST(CrashSection, EndsWhenTheHeapIsExhausted) {
  expectInCrash([] {
    volatile int reached = 0;
    const bool outer = CrashSection::run([&] {
      (void)core::allocate(1);
      const bool inner = CrashSection::run([] {
        for (;;) {
          (void)core::allocate(std::size_t{1} << 20);
        }
      });
      reached = reached + (inner ? 100 : 1);
      // What still fits is given; another exhaustion ends this section, not the inner one.
      std::memset(core::allocate(1000), 1, 1000);
      reached = reached + 1;
      (void)core::allocate(CrashHeap::kCapacity);
      reached = reached + 100;
    });
    return !outer && reached == 2 && CrashSection::run([] {}) && CrashHeap::used() <= CrashHeap::kCapacity &&
           !CrashSection::run([] { (void)core::allocate(~std::size_t{0} - 3); });
  });
  const auto withoutSection = [] {
    CrashHeap::reserve();
    CrashOwner::claim();
    (void)core::allocate(CrashHeap::kCapacity + 1);
  };
  EXPECT_EXIT(withoutSection(), testing::KilledBySignal(SIGABRT), "");
}

/// Counts itself, so that a leak or a second destruction shows.
struct Counted {
  static inline int living = 0;
  int value;
  explicit Counted(int made) : value(made) { ++living; }
  Counted(const Counted& other) noexcept : value(other.value) { ++living; }
  Counted(Counted&& other) noexcept : value(std::exchange(other.value, -1)) { ++living; }
  Counted& operator=(const Counted&) = default;
  Counted& operator=(Counted&& other) noexcept {
    value = std::exchange(other.value, -1);
    return *this;
  }
  ~Counted() { --living; }
  bool operator==(const Counted& other) const { return value == other.value; }
};

TEST(Array, FollowsAVectorThroughRandomOperations) {
  std::mt19937 random(1);
  {
    core::Array<Counted> array;
    std::vector<Counted> model;
    for (int step = 0; step < 5000; ++step) {
      const std::size_t at = array.empty() ? 0 : random() % array.size();
      const unsigned what = array.empty() ? 3 : random() % 8;
      if (what == 0) {
        array.removeAt(at);
        model.erase(model.begin() + static_cast<std::ptrdiff_t>(at));
      } else if (what == 1) {  // its own item, also when it has to grow
        array.append(array[at]);
        model.push_back(Counted(model[at]));
      } else if (what == 2) {
        array = core::Array<Counted>(array);
        array.reserve(random() % 2048);
      } else {
        array.emplace(step);
        model.emplace_back(step);
      }
      ASSERT_TRUE(std::equal(array.begin(), array.end(), model.begin(), model.end())) << step;
    }
    EXPECT_EQ(Counted::living, static_cast<int>(array.size() + model.size()));
  }
  EXPECT_EQ(Counted::living, 0);
}

TEST(Dictionary, FollowsAMapThroughRandomOperations) {
  std::mt19937 random(2);
  for (const unsigned keys : {10U, 300U}) {  // below and above the size that is indexed
    core::Dictionary<core::String> dictionary;
    std::map<std::string, std::string> model;
    std::vector<std::string> order;
    for (int step = 0; step < 6000; ++step) {
      const std::string key = "key" + std::to_string(random() % keys);
      if (random() % 3 != 0) {
        if (model.insert_or_assign(key, std::to_string(step)).second) {
          order.push_back(key);
        }
        dictionary.set(core::String(key), std::to_string(step));
      } else {
        ASSERT_EQ(dictionary.remove(key), model.erase(key) == 1) << step;
        std::erase(order, key);
      }
      ASSERT_EQ(dictionary.size(), model.size());
      const auto found = model.find(key);
      const core::String* value = dictionary.find(key);
      ASSERT_TRUE(value != nullptr ? found != model.end() && *value == found->second : found == model.end()) << step;
      ASSERT_TRUE(std::equal(dictionary.begin(), dictionary.end(), order.begin(), order.end(),
                             [](const auto& entry, const auto& name) { return entry.key == name; }))
          << step;
    }
    core::Dictionary<core::String> reversed;
    for (std::size_t i = order.size(); i-- != 0;) {
      reversed.set(core::String(order[i]), model[order[i]]);
    }
    EXPECT_TRUE(core::Dictionary<core::String>(dictionary) == reversed);
    reversed.set(core::String(order[0]), "other");
    EXPECT_FALSE(dictionary == reversed);
    dictionary.clear();
    EXPECT_FALSE(dictionary.contains(order[0]));
  }
}

TEST(String, CountsCharactersNotBytes) {
  const struct {
    const char* text;
    std::size_t characters;
    const char* firstTwo;
    const char* lastTwo;
  } kCases[] = {
      {"", 0, "", ""},
      {"a", 1, "a", "a"},
      {"a\xC3\xA4z", 3, "a\xC3\xA4", "\xC3\xA4z"},
      {"\xE4\xBD\xA0\xE5\xA5\xBD\xF0\x9F\x98\x80", 3, "\xE4\xBD\xA0\xE5\xA5\xBD", "\xE5\xA5\xBD\xF0\x9F\x98\x80"},
      {"\xC3(\xFF", 3, "\xC3(", "(\xFF"},       // a lead without its continuation, a byte of no use
      {"\xE4\xBD", 2, "\xE4\xBD", "\xE4\xBD"},  // cut off at the end
      {"\xA4\xA4\xA4", 3, "\xA4\xA4", "\xA4\xA4"}};
  for (const auto& [text, characters, firstTwo, lastTwo] : kCases) {
    EXPECT_EQ(core::String(text).characters(), characters) << text;
    EXPECT_EQ(core::firstCharacters(text, 2), firstTwo) << text;
    EXPECT_EQ(core::lastCharacters(text, 2), lastTwo) << text;
  }
  EXPECT_EQ(core::trimmed(" \t\r\n a b\f\v "), "a b");
  EXPECT_EQ(core::uppercased("aZ{`\xC3\xA4"), "AZ{`\xC3\xA4");
  EXPECT_EQ(core::replacedAll("aaa", "aa", "b"), "ba");
  EXPECT_EQ(core::replacedAll("abab", "b", ""), "aa");
  EXPECT_EQ(core::replacedAll("ab", "", "x"), "ab");
  EXPECT_EQ(core::String(std::string_view("a\0b", 3)).size(), 3U);
  EXPECT_EQ(core::optionalString({}), std::nullopt);
  EXPECT_TRUE(core::optionalString(""));
}

TEST(Block, CopiesItsCaptures) {
  {
    int total = 0;
    core::Block<int(int)> block = [&total, own = Counted(0)](int step) mutable {
      own.value += step;
      total += step;
      return own.value;
    };
    EXPECT_EQ(block(1), 1);
    core::Block<int(int)> copy = block;
    EXPECT_EQ(block(10), 11);
    EXPECT_EQ(copy(100), 101);
    EXPECT_EQ(total, 111);
    EXPECT_EQ(Counted::living, 2);
    const core::Block<int(int)> moved = std::move(block);
    copy = nullptr;
    EXPECT_FALSE(copy);
    EXPECT_EQ(moved(0), 11);
    EXPECT_EQ(Counted::living, 1);
  }
  EXPECT_EQ(Counted::living, 0);
  const core::Block<int(std::unique_ptr<int>)> takes = [](std::unique_ptr<int> value) { return *value; };
  EXPECT_EQ(takes(std::make_unique<int>(7)), 7);
}

/// Two halves that every published state keeps equal.
struct Halves {
  core::String left{"0"};
  core::Array<core::String> right{core::String("0")};
  bool whole() const { return right.size() == 1 && left == right[0]; }
};

TEST(Published, IsReadWholeBesideWritersAlsoByTheOwnerOfACrash) {
  const auto stress = [] {
    core::Published<Halves> state;
    std::atomic<bool> stop{false};
    std::atomic<bool> whole{true};
    std::atomic<int> written{0};
    const auto look = [&] {
      whole = state.read([](const Halves& halves) { return halves.whole(); }) && state.get().whole() && whole;
    };
    std::vector<std::jthread> threads;
    for (int i = 0; i < 2; ++i) {
      threads.emplace_back([&, i] {
        for (int round = 0; !stop; ++round, ++written) {
          state.update([&](Halves& halves) {
            halves.left = std::to_string(round * 2 + i);
            halves.right[0] = halves.left;
          });
        }
      });
      threads.emplace_back([&] {
        while (!stop) {
          look();
        }
      });
    }
    for (int crash = 0; crash < 20; ++crash) {
      for (const int start = written; written - start < 20;) {
        std::this_thread::yield();
      }
      const bool owned = test::onCrashOwner([&] {
        for (int round = 0; round < 50; ++round) {
          look();
        }
        state.set(Halves{"owner", {core::String("owner")}});
        look();
      });
      whole = owned && whole;
    }
    stop = true;
    threads.clear();
    _exit(whole ? 0 : 1);
  };
  EXPECT_EXIT(stress(), testing::ExitedWithCode(0), "");
}

TEST(Lock, OfAStoppedThreadDoesNotHoldUpTheOwner) {
  core::Mutex mutex;
  {
    const core::Lock held(mutex);
    EXPECT_TRUE(test::onCrashOwner([&] { EXPECT_FALSE(core::Lock(mutex).held()); }));
  }
  EXPECT_TRUE(core::Lock(mutex).held());
}

}  // namespace

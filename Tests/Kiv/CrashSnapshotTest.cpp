#include <dlfcn.h>
#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "Core/Kernel/Unwind/FrameWalk.h"
#include "Kiv/crashhandler/bughandler/KivBinaryImageCollector.h"
#include "Kiv/crashhandler/bughandler/KivStackCollector.h"
#include "Kiv/crashhandler/journal/CrashSnapshot.h"

namespace {

constexpr core::ThreadName kName{"worker"};

std::vector<std::uint64_t> stackOfDepth(std::size_t depth) {
  std::vector<std::uint64_t> stack(depth);
  std::iota(stack.begin(), stack.end(), 1);
  return stack;
}

TEST(CrashSnapshot, DropsWhatDoesNotFitButNotTheCrashedThread) {
  const CrashSnapshot::Mapped snapshot = CrashSnapshot::map();
  ASSERT_NE(snapshot, nullptr);
  const auto deep = stackOfDepth(core::kMostFrames);
  for (std::uint32_t i = 0; i < 510; ++i) {
    ASSERT_TRUE(snapshot->appendThread(i, i, kName, deep, false));
  }
  // Room for 256 addresses more, beside those that are kept for the crashed thread.
  const auto shallow = stackOfDepth(100);
  for (const std::size_t kept : {100U, 100U, 56U, 0U}) {
    ASSERT_TRUE(snapshot->appendThread(7, 7, kName, shallow, false));
    const auto stack = snapshot->stackOf(snapshot->allThreads().back());
    EXPECT_EQ(std::vector(stack.begin(), stack.end()), stackOfDepth(kept));
  }
  while (snapshot->threadCount < CrashSnapshot::kMostThreads - 1) {
    ASSERT_TRUE(snapshot->appendThread(8, 8, kName, {}, false));
  }
  EXPECT_FALSE(snapshot->appendThread(9, 9, kName, deep, false));
  EXPECT_TRUE(snapshot->appendThread(10, 5000, kName, deep, true));
  EXPECT_EQ(snapshot->allThreads().back().index, 5000U);
  EXPECT_EQ(snapshot->stackOf(snapshot->allThreads().back()).size(), deep.size());
  EXPECT_FALSE(snapshot->appendThread(11, 11, kName, {}, true));
  EXPECT_EQ(snapshot->addressCount, CrashSnapshot::kMostAddresses);
}

TEST(CrashSnapshot, ShowsNothingOutsideItsRoomWhateverItsNumbersAre) {
  const CrashSnapshot::Mapped snapshot = CrashSnapshot::map();
  snapshot->threadCount = 0xFFFFFFFF;
  EXPECT_EQ(snapshot->allThreads().size(), CrashSnapshot::kMostThreads);
  EXPECT_TRUE(snapshot->stackOf({0, 0, 0xFFFFFFFF, 0xFFFFFFFF, kName, 0}).empty());
  EXPECT_EQ(snapshot->stackOf({0, 0, CrashSnapshot::kMostAddresses - 2, 0xFFFFFFFF, kName, 0}).size(), 2U);
}

TEST(BinaryImages, FollowLibrariesThatStacksLeadInto) {
  auto& images = KivBinaryImageCollector::sharedInstance();
  KivStackCollector::refresh();
  void* library = dlopen("libresolv.so.2", RTLD_NOW);
  ASSERT_NE(library, nullptr);
  const auto address = reinterpret_cast<std::uint64_t>(dlsym(library, "__b64_ntop"));
  images.bringUpToDate({});
  ASSERT_FALSE(images.getImageByAddr(address)) << "the map was read without need";
  images.bringUpToDate({&address, 1});
  ASSERT_TRUE(images.getImageByAddr(address));
  EXPECT_EQ(images.getImageByAddr(address)->sname, "libresolv.so.2");
  KivStackCollector::refresh();
  dlclose(library);
  images.bringUpToDate({});
  EXPECT_FALSE(images.getImageByAddr(address));
}

}  // namespace

#include "Core/Kernel/ThreadList.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/TaskDirectory.h"
#include "Tests/Support/CallProbe.h"
#include "Tests/Support/Child.h"

namespace {

using core::ThreadList;

constexpr auto openFails = test::failing<SYS_openat, EMFILE>;

TEST(ThreadListTest, WithoutProcessFilesTheCallerIsAlone) {
  const test::CallProbe probe(openFails);
  const ThreadList list = ThreadList::read();
  EXPECT_FALSE(list.isComplete());
  ASSERT_EQ(list.threads().size(), 1U);
  EXPECT_EQ(list.threads()[0], core::threadId());
}

TEST(ThreadListTest, CrashReadsTheDirectoryOpenedAhead) {
  ThreadList::prepare();
  EXPECT_TRUE(test::onCrashOwner([] {
    const test::CallProbe probe(openFails);
    for (int pass = 0; pass < 2; ++pass) {
      const ThreadList list = ThreadList::read();
      EXPECT_TRUE(list.isComplete());
      EXPECT_EQ(list.threads()[0], core::processId());
    }
  }));
}

TEST(ThreadListTest, InheritedNameIsNone) {
  ThreadList::prepare();
  const core::ThreadName own = core::readThreadName(core::threadId());
  EXPECT_FALSE(own.view().empty());
  EXPECT_EQ(core::reportedThreadName(own), "");
  prctl(PR_SET_NAME, "fifteen letters");
  EXPECT_EQ(core::reportedThreadName(core::readThreadName(core::threadId())), "fifteen letters");
  prctl(PR_SET_NAME, own.bytes);
  EXPECT_EQ(core::readThreadName(-1).view(), "");
}

TEST(ThreadFilesTest, KernelTextsAreParsed) {
  const auto inCall = core::parseSleepingThread("7 0x0 0x0 0xffffffff 0x7f6 0x0 0x7ff 0x7f6619c1ce90 0x7f6619d1a26f\n");
  ASSERT_TRUE(inCall);
  EXPECT_EQ(inCall->call, 7);
  EXPECT_EQ(inCall->stackPointer, 0x7F6619C1CE90U);
  EXPECT_EQ(inCall->instructionPointer, 0x7F6619D1A26FU);
  const auto elsewhere = core::parseSleepingThread("-1 0x7ffd8467f317 0x401000\n");
  ASSERT_TRUE(elsewhere);
  EXPECT_EQ(elsewhere->call, -1);
  EXPECT_EQ(elsewhere->instructionPointer, 0x401000U);
  for (const char* text : {"running\n", "", "0 0x0 0x0 0x0 0x0 0x0 0x0 0x0 0x0\n", "7 0x0 0x0\n"}) {
    EXPECT_FALSE(core::parseSleepingThread(text)) << text;
  }
  EXPECT_EQ(core::parseBlockedSignals("Name:\tx\nState:\tS (sleeping)\nSigBlk:\t1000000000000200\nSigIgn:\t0\n"),
            0x1000000000000200U);
  EXPECT_FALSE(core::parseBlockedSignals("Name:\tx\nState:\tZ (zombie)\nSigBlk:\t0000000000000000\n"));
}

}  // namespace

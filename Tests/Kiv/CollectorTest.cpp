#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/ThreadList.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/bughandler/KivBacktrace.h"
#include "Kiv/crashhandler/bughandler/KivBinaryImageCollector.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Kiv/crashhandler/bughandler/KivRegisterDataCollector.h"
#include "Kiv/crashhandler/bughandler/KivStackCollector.h"
#include "Kiv/crashhandler/bughandler/KivSymbolicate.h"
#include "Kiv/crashhandler/journal/CrashJournal.h"
#include "Tests/Core/Worker.h"
#include "Tests/Support/CallProbe.h"
#include "Tests/Support/Child.h"
#include "Tests/Support/LogCapture.h"

asm(R"(
  .pushsection .text
  .p2align 4
  .type collectorFirst, @function
collectorFirst:
  nop
  nop
  nop
  nop
  nop
  .size collectorFirst, 5
  .type collectorSecond, @function
collectorSecond:
  nop
  nop
  nop
  ret
  .size collectorSecond, 4
  .popsection
)");
extern "C" void collectorFirst();

namespace {

KivStackCollector& collector() {
  return KivStackCollector::sharedInstance();
}

KivCrashData& data() {
  return KivCrashData::expData();
}

std::uint64_t addressOf(const void* place) {
  return reinterpret_cast<std::uint64_t>(place);
}

KivCrashAddrInfo frameOf(std::uint32_t index, std::optional<core::String> module, std::uint64_t offset = 0,
                         std::optional<core::String> line = std::nullopt) {
  return {index, 0x7f12ab34cd56, std::move(module), offset, std::move(line)};
}

KivStack stackOf(std::initializer_list<KivCrashAddrInfo> frames) {
  KivStack stack;
  for (const KivCrashAddrInfo& frame : frames) {
    stack.append(core::Shared(frame));
  }
  return stack;
}

/// A thread that sleeps for as long as the object lives, below `depth` calls of one function.
class BlockedThread {
 public:
  BlockedThread(const char* name, void (*body)(BlockedThread&, int), int depth = 0)
      : worker_([this, name, body, depth] {
          if (name != nullptr) {
            pthread_setname_np(pthread_self(), name);
          }
          body(*this, depth);
        }) {
    test::awaitSleep(id(), SYS_futex);
  }
  ~BlockedThread() { end_.count_down(); }
  void block() { end_.wait(); }
  int id() const { return worker_.id(); }

 private:
  std::latch end_{1};
  test::Worker worker_;
};

[[gnu::noinline]] void blockBelow(BlockedThread& self, int depth) {
  if (depth > 0) {
    blockBelow(self, depth - 1);
  } else {
    self.block();
  }
  asm volatile("" : : : "memory");
}

template <int kNumber>
[[gnu::noinline]] void blockedMain(BlockedThread& self, int) {
  self.block();
  asm volatile("" : : "i"(kNumber) : "memory");
}

class Collector : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    collector().prepare();
    CrashJournal::prepare({});
    KivStackCollector::refresh();
    collector().setNeedSymbol(true);
  }
};

const KivThreadInfo* threadOf(const core::Array<KivThreadInfo>& threads, int id) {
  const core::ThreadList list = core::ThreadList::read();
  for (const KivThreadInfo& thread : threads) {
    if (list.threads()[thread.threadIndex] == id) {
      return &thread;
    }
  }
  return nullptr;
}

TEST_F(Collector, frameLines) {
  const struct {
    KivCrashAddrInfo frame;
    std::string_view line;
  } kCases[] = {
      {frameOf(0, "ovalyn", 0, "main + 32"), "0  ovalyn                         0x00007f12ab34cd56 main + 32"},
      {frameOf(12, "libc.so.6", 0, "poll + 79"), "12 libc.so.6                      0x00007f12ab34cd56 poll + 79"},
      {frameOf(123, "a", 0, "f + 1"), "123 a                              0x00007f12ab34cd56 f + 1"},
      {frameOf(1, "twenty-nine-characters-long-x", 0, "f + 1"),
       "1  twenty-nine-characters-long-x  0x00007f12ab34cd56 f + 1"},
      {frameOf(1, "exactly-thirty-characters-long", 0, "f + 1"),
       "1  exactly-thirty-characters-long 0x00007f12ab34cd56 f + 1"},
      {frameOf(1, "more-than-thirty-characters-long.so", 0, "f + 1"),
       "1  more-than-thirty-characters-long.so 0x00007f12ab34cd56 f + 1"},
      {frameOf(1, "sömething", 0, "f + 1"), "1  sömething                      0x00007f12ab34cd56 f + 1"},
      {frameOf(1, std::nullopt), "1                                0x00007f12ab34cd56 "},
  };
  for (const auto& each : kCases) {
    EXPECT_EQ(each.frame.getFullStackLine(), each.line);
  }
}

TEST_F(Collector, threadTexts) {
  KivThreadInfo thread;
  thread.threadIndex = 3;
  thread.threadName = "worker";
  thread.threadTrace = {"first", "second"};
  EXPECT_EQ(thread.getCurrThreadStackLines(), "first\nsecond\n");
  thread.threadStacks = stackOf({frameOf(0, "b", 4096, "x + 1"), frameOf(1, "a", 0, "y + 2"), frameOf(3, "b", 16)});
  EXPECT_EQ(thread.getAllShortNames(), (KivThreadInfo::Texts{"b", "a"}));
  EXPECT_EQ(thread.getCurrThreadUUID(), "4096016");
  EXPECT_EQ(thread.getCurrThreadStackLines(),
            "0  b                              0x00007f12ab34cd56 x + 1\n"
            "1  a                              0x00007f12ab34cd56 y + 2\n"
            "3  b                              0x00007f12ab34cd56 \n");
  EXPECT_EQ(thread.description(), "Thread 3 name: worker");
  thread.threadStacks = stackOf({frameOf(0, "b", 4096, "x + 1")});
  EXPECT_EQ(
      thread.debugDescription(),
      "\nThread 3 name: worker\nThread 3:\n0  b                              0x00007f12ab34cd56 x + 1 \nCrashed:NO");
}

TEST_F(Collector, registerText) {
  mcontext_t context{};
  const int order[] = {REG_RAX, REG_RBX, REG_RCX, REG_RDX, REG_RSI, REG_RDI, REG_RBP, REG_RSP,
                       REG_R8,  REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15};
  for (int i = 0; i < 16; ++i) {
    context.gregs[order[i]] = i;
  }
  context.gregs[REG_R15] = -1;
  context.gregs[REG_EFL] = 0x246;
  context.gregs[REG_CSGSFS] = 0x002b000500060033;  // ss, fs, gs, cs
  KivRegisterDataCollector::sharedInstance().collectAllRegisterInfos(7, context, true);
  EXPECT_EQ(
      *data().registerDatas(),
      "\nThread 7 crashed with X86_64 Thread State:\n"
      "   rax: 0x0000000000000000    rbx: 0x0000000000000001    rcx: 0x0000000000000002    rdx: 0x0000000000000003\n"
      "   rsi: 0x0000000000000004    rdi: 0x0000000000000005    rbp: 0x0000000000000006    rsp: 0x0000000000000007\n"
      "    r8: 0x0000000000000008     r9: 0x0000000000000009    r10: 0x000000000000000a    r11: 0x000000000000000b\n"
      "    r12: 0x000000000000000c     r13: 0x000000000000000d    r14: 0x000000000000000e    r15: "
      "0xffffffffffffffff\n"
      "rflags: 0x0000000000000246     cs: 0x0000000000000033     fs: 0x0000000000000005     gs: "
      "0x0000000000000006\n");
}

TEST_F(Collector, frames) {
  const std::uint64_t base = KivBinaryImageCollector::sharedInstance().getAllBinarys()[0].base;
  const auto first = collector().createAddrInfo(base + 0x27, 5);
  const auto again = collector().createAddrInfo(base + 0x27, 0);
  EXPECT_EQ(&**first, &**again);
  EXPECT_EQ((*again)->index, 5U);
  EXPECT_EQ((*first)->addr, base + 0x27);
  EXPECT_EQ((*first)->offset, 0x20U);
  EXPECT_EQ(*(*first)->lineStr, core::kiv_format("%#018llx + 32", base));
  EXPECT_FALSE(collector().createAddrInfo(1, 0));

  const std::uint64_t addresses[] = {base + 0x31, 1, base + 0x32};
  const KivStack stack = collector().createAddrInfos(addresses);
  ASSERT_EQ(stack.size(), 2U);
  EXPECT_EQ(stack[1]->index, 2U);
  EXPECT_TRUE(collector().createAddrInfos({}).empty());
}

TEST_F(Collector, frameNames) {
  const std::uint64_t start = reinterpret_cast<std::uint64_t>(&collectorFirst);
  const struct {
    std::uint64_t address;
    std::uint32_t index;
    std::string_view line;
  } kCases[] = {
      {start + 3, 0, "collectorFirst + 0"},   // aligned down
      {start + 5, 1, "collectorFirst + 0"},   // returns to behind the function's end
      {start + 6, 0, "collectorSecond + 1"},  // aligned down it would be the neighbour
      {start + 8, 1, "collectorSecond + 2"},
      {addressOf(dlsym(RTLD_DEFAULT, "gnu_get_libc_version")) + 1, 0, "gnu_get_libc_version + 0"},
  };
  for (const auto& each : kCases) {
    EXPECT_EQ(*(*collector().createAddrInfo(each.address, each.index))->lineStr, each.line);
  }
  collector().setNeedSymbol(false);
  const auto unnamed = collector().createAddrInfo(start + 2, 0);
  collector().setNeedSymbol(true);
  EXPECT_TRUE((*unnamed)->lineStr->view().starts_with("0x")) << (*unnamed)->lineStr->view();

  std::array<char, kKivSymbolBuffer> buffer;
  EXPECT_EQ(kiv_symbolicate(start + 6, buffer), 19U);
  EXPECT_STREQ(buffer.data(), "collectorSecond + 1");
  EXPECT_EQ(kiv_symbolicate(16, buffer), 0U);
  EXPECT_STREQ(buffer.data(), "");
}

TEST_F(Collector, crashedThread) {
  const BlockedThread named("n\x01\xC3x\xC3\xA9", blockBelow);
  const BlockedThread unnamed(nullptr, blockBelow);
  ucontext_t context;
  getcontext(&context);
  const std::uint32_t port = core::threadPort(core::threadId());
  const std::uint32_t resumed = core::threadPort(named.id());
  const std::uint32_t nobody = core::threadPort(1 << 22);  // above every kernel id
  for (const std::uint32_t asked : {port, port ^ 0xff, nobody}) {
    KivCrashData& crash = data();
    crash.setCrashThreadInfo(std::nullopt);
    kiv_log_level = kKivLogWarnLevel;
    const test::LogCapture log;
    const std::size_t before = crash.lastExceptionInfo().size();
    collector().collectThreads(&context.uc_mcontext, asked, &resumed, 1);
    kiv_log_level = 0;
    const std::string_view added = crash.lastExceptionInfo().view().substr(before);
    if (asked == nobody) {
      EXPECT_FALSE(crash.crashThreadInfo());
      EXPECT_EQ(added, "");
      continue;
    }
    ASSERT_TRUE(crash.crashThreadInfo());
    EXPECT_EQ(added, "Highlighted Thread: 0\n");
    EXPECT_TRUE(test::LogCapture::tookOne("<WARN> <KIV> Crashed thread stacks:\n(\n    0  "));
    EXPECT_EQ(crash.crashThreadInfo()->threadStacks[0]->addr,
              static_cast<std::uint64_t>(context.uc_mcontext.gregs[REG_RIP]));
    EXPECT_EQ(*threadOf(crash.allThreadInfos(), named.id())->threadName, "n??x\xC3\xA9");
    EXPECT_GT(threadOf(crash.allThreadInfos(), named.id())->threadStacks.size(), 3U);
    EXPECT_EQ(*threadOf(crash.allThreadInfos(), unnamed.id())->threadName, "");
    EXPECT_FALSE(threadOf(crash.allThreadInfos(), unnamed.id())->isCrashThread);
  }
}

TEST_F(Collector, liveThreads) {
  const BlockedThread first("first", blockedMain<0>);
  const BlockedThread second("second", blockedMain<1>);
  data().allThreadInfos().clear();
  data().setCrashThreadInfo(std::nullopt);
  collector().collectAllThreadsWithCrashThread(core::threadPort(first.id()) ^ 1);
  EXPECT_FALSE(data().crashThreadInfo());
  collector().collectAllThreadsWithCrashThread(core::threadPort(first.id()));
  EXPECT_EQ(core::ThreadList::read().threads()[data().crashThreadInfo()->threadIndex], first.id());
  // The list of the first call stays.
  EXPECT_FALSE(threadOf(data().allThreadInfos(), first.id())->isCrashThread);
  for (const auto& [thread, name] : {std::pair(&first, "blockedMainILi0E"), {&second, "blockedMainILi1E"}}) {
    const core::String lines = threadOf(data().allThreadInfos(), thread->id())->getCurrThreadStackLines();
    EXPECT_NE(lines.view().find(name), std::string_view::npos) << lines.view();
  }
}

TEST_F(Collector, leftoversOfDeeperThreads) {
  const BlockedThread deep("deep", blockBelow, 100);
  const BlockedThread middle("middle", blockBelow, 50);
  const BlockedThread shallow("shallow", blockBelow, 2);
  ASSERT_LT(deep.id(), middle.id());
  const core::Array<KivThreadInfo> threads = collector().liveThreads();
  std::array<std::uint64_t, core::kMostFrames> frames{};
  kiv_backtrace_fetch(nullptr, core::threadPort(middle.id()), frames, true);
  const auto own = static_cast<std::size_t>(std::find(frames.begin(), frames.end(), 0) - frames.begin());
  ASSERT_GT(own, 32U);
  const KivStack& below = threadOf(threads, deep.id())->threadStacks;
  const KivStack& stack = threadOf(threads, middle.id())->threadStacks;
  ASSERT_EQ(stack.size(), below.size());
  EXPECT_EQ(stack[own - 1]->addr, frames[own - 1]);
  for (std::size_t i = own; i < stack.size(); ++i) {
    EXPECT_EQ(stack[i]->addr, below[i]->addr);
  }
  EXPECT_LT(threadOf(threads, shallow.id())->threadStacks.size(), 32U);
}

TEST_F(Collector, backtraceFetch) {
  std::array<std::uint64_t, core::kMostFrames> frames;
  frames.fill(7);
  const mcontext_t nowhere{};
  kiv_backtrace_fetch(&nowhere, 0, frames, true);
  kiv_backtrace_fetch(nullptr, core::threadPort(1 << 29), frames, true);  // no such thread
  kiv_backtrace_fetch(nullptr, core::threadPort(1 << 29), frames, false);
  EXPECT_EQ(frames[0], 7U);

  const BlockedThread deep("deep", blockBelow, 300);
  kiv_backtrace_fetch(nullptr, core::threadPort(deep.id()), frames, true);
  EXPECT_EQ(std::count(frames.begin(), frames.end(), 7), 0);

  core::MachineContext read;
  EXPECT_TRUE(kiv_read_thread_mc(core::threadPort(deep.id()), read));
  EXPECT_EQ(static_cast<std::uint64_t>(read.machine.gregs[REG_RIP]), frames[0]);
  EXPECT_FALSE(kiv_read_thread_mc(core::threadPort(1 << 29), read));

  ucontext_t context{};
  EXPECT_EQ(kiv_skip_instruction(context, 2), 2);
  EXPECT_EQ(context.uc_mcontext.gregs[REG_RIP], 2);
}

TEST_F(Collector, messageDispatch) {
  const struct {
    KivCrashAddrInfo first;
    bool expected;
  } kCases[] = {{frameOf(0, "libobjc.A", 0, "f + 1"), true},
                {frameOf(0, "libobjc", 0, "f + 1"), false},
                {frameOf(0, "x", 0, "objc_msgSend_stret + 1"), true},
                {frameOf(1, "libobjc.A", 0, "objc_msgSend + 1"), false}};
  KivCrashData crash;
  EXPECT_FALSE(crash.needCheckFirstLineOcMsg());
  for (const auto& each : kCases) {
    KivThreadInfo thread;
    thread.threadStacks = stackOf({each.first});
    crash.setCrashThreadInfo(thread);
    EXPECT_EQ(crash.needCheckFirstLineOcMsg(), each.expected) << each.first.getFullStackLine().view();
  }
}

TEST_F(Collector, imagesThatCloseDuringDumps) {
  const BlockedThread blocked("blocked", blockedMain<8>);
  std::atomic<bool> isOver{false};
  std::thread opener([&] {
    while (!isOver) {
      void* const library = dlopen("libresolv.so.2", RTLD_NOW | RTLD_LOCAL);
      ASSERT_NE(library, nullptr);
      dlclose(library);
    }
  });
  for (int dump = 0; dump < 100; ++dump) {
    KivBinaryImageCollector::sharedInstance().reloadBinarysIfChanged();
    const auto threads = collector().liveThreads();
    EXPECT_GT(threadOf(threads, blocked.id())->threadStacks.size(), 3U);
  }
  isOver = true;
  opener.join();
}

TEST_F(Collector, withoutWhatTheKernelMayForbid) {
  const BlockedThread blocked("blocked", blockedMain<9>);
  const auto lines = [&] { return threadOf(collector().liveThreads(), blocked.id())->getCurrThreadStackLines().str(); };
  {
    const test::CallProbe probe(test::failing<SYS_process_vm_readv, EPERM>);
    EXPECT_NE(lines().find("blockedMainILi9E"), std::string::npos);
    EXPECT_NE(lines().find("libc.so.6"), std::string::npos);
  }
  const test::LogCapture log;
  ucontext_t context;
  getcontext(&context);
  const test::CallProbe probe(test::failing<SYS_openat, ENOENT>);
  collector().collectThreads(&context.uc_mcontext, core::threadPort(core::threadId()), nullptr, 0);
  EXPECT_EQ(data().allThreadInfos().size(), 1U);
  EXPECT_TRUE(data().crashThreadInfo() && data().crashThreadInfo()->threadStacks.size() > 3);
  EXPECT_TRUE(test::LogCapture::tookOne("<KIV> task_threads: no process file system"));
}

#ifdef KIV_PLAIN_BUILD  // sanitizers want no threads in a fork
// The n-th system call of a crash's collection fails: it ends, and tells at least where the crash was.
TEST_F(Collector, outlivesTheFailureOfAnyCall) {
  enum { kMoreCalls = 3, kAllCalls = 4 };
  const auto statusOfCrash = [](long n, int error) {
    return test::runInChild([&] {
      alarm(20);
      core::ThreadList::prepare();
      KivStackCollector::refresh();
      const BlockedThread other("other", blockBelow, 5);
      bool isMore = false;
      bool isKnown = false;
      test::onCrashOwner([&] {
        ucontext_t context;
        getcontext(&context);
        const std::uint32_t port = core::threadPort(core::threadId());
        isMore = test::runWithFault(n, -error, [&] {
          auto& images = KivBinaryImageCollector::sharedInstance();
          images.loadBinarys();
          images.reloadBinarysIfChanged();
          collector().collectThreads(&context.uc_mcontext, port, nullptr, 0);
          images.collectBinaryInfos(core::String(program_invocation_short_name));
          KivRegisterDataCollector::sharedInstance().collectAllRegisterInfos(0, context.uc_mcontext, false);
        });
        const auto& crashed = data().crashThreadInfo();
        isKnown = crashed && !crashed->threadStacks.empty() &&
                  crashed->threadStacks[0]->addr == std::uint64_t(context.uc_mcontext.gregs[REG_RIP]);
      });
      return !isKnown ? 1 : isMore ? kMoreCalls : kAllCalls;
    });
  };
  for (const int error : {ENOSPC, EMFILE, EFAULT}) {
    long n = 1;
    int status = kMoreCalls;
    for (; status == kMoreCalls; ++n) {
      status = statusOfCrash(n, error);
    }
    EXPECT_EQ(status, kAllCalls) << "call " << n - 1 << " with error " << error;
    EXPECT_GT(n, 20);
  }
}
#endif

}  // namespace

#include "Core/Kernel/ForkTell.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Core/Kernel/TaskDirectory.h"
#include "Tests/Support/Child.h"

namespace {

using core::ForkTell;
using Process = ForkTell::Process;

TEST(ForkTellTest, ChildrenAreToldApart) {
  ASSERT_TRUE(ForkTell::prepare());
  EXPECT_EQ(ForkTell::current(), Process::kOwn);
  core::TaskDirectory::open();

  EXPECT_EQ(test::runInChild([] {
              const bool told = ForkTell::current() == Process::kForked && core::TaskDirectory::descriptor() == -1;
              return told && ForkTell::prepare() && ForkTell::current() == Process::kOwn ? 0 : 1;
            }),
            0);

  // vfork as such, which sanitizers replace by fork.
  long result;
  asm volatile("syscall" : "=a"(result) : "a"(SYS_vfork) : "rcx", "r11", "memory");
  if (result == 0) {
    _exit(ForkTell::current() == Process::kVforked ? 0 : 1);
  }
  int status = -1;
  waitpid(static_cast<pid_t>(result), &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(ForkTell::current(), Process::kOwn);
}

}  // namespace

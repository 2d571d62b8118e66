#include "Core/Kernel/ForkTell.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Core/Kernel/TaskDirectory.h"

namespace {

using core::ForkTell;
using Process = ForkTell::Process;

int statusOf(pid_t child) {
  int status = -1;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ForkTellTest, ChildrenAreToldApart) {
  ASSERT_TRUE(ForkTell::prepare());
  EXPECT_EQ(ForkTell::current(), Process::kOwn);
  core::TaskDirectory::open();

  pid_t child = fork();
  if (child == 0) {
    const bool told = ForkTell::current() == Process::kForked && core::TaskDirectory::descriptor() == -1;
    _exit(told && ForkTell::prepare() && ForkTell::current() == Process::kOwn ? 0 : 1);
  }
  EXPECT_EQ(statusOf(child), 0);

  // vfork as such, which sanitizers replace by fork.
  long result;
  asm volatile("syscall" : "=a"(result) : "a"(SYS_vfork) : "rcx", "r11", "memory");
  if (result == 0) {
    _exit(ForkTell::current() == Process::kVforked ? 0 : 1);
  }
  child = static_cast<pid_t>(result);
  EXPECT_EQ(statusOf(child), 0);
  EXPECT_EQ(ForkTell::current(), Process::kOwn);
}

}  // namespace

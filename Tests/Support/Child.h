#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "Core/Memory/CrashHeap.h"
#include "Core/Memory/CrashOwner.h"

namespace test {

/// Runs `work`, which answers an exit status, in a fork of the test without its other threads.
/// Answers that status, or 128 + the signal that ended the child.
template <class Work>
int runInChild(Work&& work) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(work());
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

/// Runs `work` on a fresh thread that owns a crash meanwhile. False when it could not become so.
template <class Work>
bool onCrashOwner(Work&& work) {
  bool owned = core::CrashHeap::reserve();
  std::thread([&] {
    owned = core::CrashOwner::claim() == core::CrashOwner::Claim::kFirst && owned;
    work();
    core::CrashOwner::release();
  }).join();
  return owned;
}

}  // namespace test

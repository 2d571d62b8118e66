#pragma once

#include <sys/wait.h>
#include <unistd.h>

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

}  // namespace test

#include "Tests/Support/Subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

extern char** environ;

namespace test {
namespace {

void require(bool held, int error, const std::string& what) {
  if (!held) {
    throw std::system_error(error, std::generic_category(), what);
  }
}

std::vector<std::string> environmentWith(Environment changes) {
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string text = *variable;
    const std::size_t end = text.find('=');
    changes.emplace(text.substr(0, end), text.substr(end + 1));
  }
  std::vector<std::string> all;
  for (const auto& [name, value] : changes) {
    if (value) {
      all.push_back(name + "=" + *value);
    }
  }
  return all;
}

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (const std::string& text : texts) {
    pointers.push_back(const_cast<char*>(text.c_str()));
  }
  pointers.push_back(nullptr);
  return pointers;
}

/// Appends what can be read of a stream; false when nothing was there.
bool drain(int descriptor, std::string& into) {
  std::array<char, 65536> block;
  const ssize_t count = ::read(descriptor, block.data(), block.size());
  into.append(block.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  return count > 0;
}

}  // namespace

Subprocess::Subprocess(const std::vector<std::string>& command, const Environment& environment,
                       std::chrono::seconds mostTime)
    : deadline_(std::chrono::steady_clock::now() + mostTime) {
  int output[2];
  int errors[2];
  require(::pipe2(output, O_CLOEXEC) == 0 && ::pipe2(errors, O_CLOEXEC) == 0, errno, "pipe2");
  output_ = output[0];
  errors_ = errors[0];
  ::fcntl(output_, F_SETFL, O_NONBLOCK);
  ::fcntl(errors_, F_SETFL, O_NONBLOCK);

  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  sigset_t signals;
  sigemptyset(&signals);
  ::posix_spawnattr_setsigmask(&attributes, &signals);
  sigfillset(&signals);
  ::posix_spawnattr_setsigdefault(&attributes, &signals);
  ::posix_spawnattr_setpgroup(&attributes, 0);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, errors[1], STDERR_FILENO);
  const int failure = ::posix_spawnp(&process_, command.at(0).c_str(), &actions, &attributes,
                                     pointersTo(command).data(), pointersTo(environmentWith(environment)).data());
  ::posix_spawn_file_actions_destroy(&actions);
  ::posix_spawnattr_destroy(&attributes);
  ::close(output[1]);
  ::close(errors[1]);
  require(failure == 0, failure, command[0]);
  processDescriptor_ = static_cast<int>(::syscall(SYS_pidfd_open, process_, 0));
  require(processDescriptor_ >= 0, errno, "pidfd_open");
}

Subprocess::~Subprocess() {
  if (!ended_) {
    kill(SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }
  for (const int descriptor : {processDescriptor_, output_, errors_}) {
    ::close(descriptor);
  }
}

Outcome Subprocess::run(const std::vector<std::string>& command, const Environment& environment) {
  return Subprocess(command, environment).wait();
}

void Subprocess::kill(int signal) const noexcept {
  // The program may have left the group that it was started in.
  if (!ended_ && ::kill(-process_, signal) != 0) {
    ::kill(process_, signal);
  }
}

bool Subprocess::waitForOutput(std::string_view text) {
  while (outcome_.output.find(text) == std::string::npos && !ended_) {
    pump();
  }
  return outcome_.output.find(text) != std::string::npos;
}

Outcome Subprocess::wait() {
  while (!ended_) {
    pump();
  }
  return outcome_;
}

/// Waits for a piece of output, for the end or for the deadline.
void Subprocess::pump() {
  std::array<pollfd, 3> watched{{{processDescriptor_, POLLIN, 0}, {output_, POLLIN, 0}, {errors_, POLLIN, 0}}};
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - std::chrono::steady_clock::now());
  if (::poll(watched.data(), watched.size(), static_cast<int>(std::max<std::int64_t>(left.count(), 0))) == 0) {
    kill(SIGKILL);
    outcome_.errors += "\nkilled: its time was up\n";
    deadline_ += std::chrono::minutes(1);
  }
  while (drain(output_, outcome_.output) || drain(errors_, outcome_.errors)) {
  }
  if (watched[0].revents != 0) {
    int status = 0;
    ::waitpid(process_, &status, 0);
    ended_ = true;
    (WIFSIGNALED(status) ? outcome_.signal : outcome_.exitStatus) =
        WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status);
  }
}

}  // namespace test

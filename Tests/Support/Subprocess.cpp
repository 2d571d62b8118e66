#include "Tests/Support/Subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

extern char** environ;

namespace test {
namespace {

void require(bool held, int error, const char* what) {
  if (!held) {
    throw std::system_error(error, std::generic_category(), what);
  }
}

void closeDescriptor(int& descriptor) noexcept {
  if (descriptor >= 0) {
    ::close(std::exchange(descriptor, -1));
  }
}

struct Pipe {
  int reader = -1;
  int writer = -1;
  Pipe() {
    std::array<int, 2> ends{};
    require(::pipe2(ends.data(), O_CLOEXEC) == 0, errno, "pipe2");
    reader = ends[0];
    writer = ends[1];
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  ~Pipe() {
    closeDescriptor(reader);
    closeDescriptor(writer);
  }
};

/// A file in memory: the program may read it at any pace and nobody blocks on writing it.
int makeInput(const std::string& text) {
  const int descriptor = ::memfd_create("input", MFD_CLOEXEC);
  require(descriptor >= 0, errno, "memfd_create");
  const ssize_t written = ::pwrite(descriptor, text.data(), text.size(), 0);
  require(std::cmp_equal(written, text.size()), errno, "pwrite");
  return descriptor;
}

std::vector<std::string> environmentWith(const std::map<std::string, std::optional<std::string>>& changes) {
  std::vector<std::string> all;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string_view text = *variable;
    if (!changes.contains(std::string(text.substr(0, text.find('='))))) {
      all.emplace_back(text);
    }
  }
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

/// The attributes and file actions of posix_spawn.
struct SpawnPlan {
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_t actions;
  SpawnPlan() {
    ::posix_spawnattr_init(&attributes);
    ::posix_spawn_file_actions_init(&actions);
    sigset_t signals;
    sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&attributes, &signals);
    sigfillset(&signals);
    ::posix_spawnattr_setsigdefault(&attributes, &signals);
    ::posix_spawnattr_setpgroup(&attributes, 0);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;
  ~SpawnPlan() {
    ::posix_spawn_file_actions_destroy(&actions);
    ::posix_spawnattr_destroy(&attributes);
  }
};

/// Appends what can be read; closes `descriptor` at the end of the stream.
/// False when nothing was there.
bool drain(int& descriptor, std::string& into) {
  std::array<char, 65536> block;
  const ssize_t count = descriptor >= 0 ? ::read(descriptor, block.data(), block.size()) : -1;
  if (count > 0) {
    into.append(block.data(), static_cast<std::size_t>(count));
  } else if (count == 0) {
    closeDescriptor(descriptor);
  }
  return count > 0;
}

}  // namespace

Subprocess::Subprocess(const std::vector<std::string>& command, SubprocessOptions options)
    : deadline_(std::chrono::steady_clock::now() + options.timeout) {
  Pipe output;
  Pipe errors;
  Pipe held;
  if (!options.holdInput) {
    ::close(std::exchange(held.reader, -1));
    held.reader = makeInput(options.input);
  }
  SpawnPlan plan;
  ::posix_spawn_file_actions_adddup2(&plan.actions, held.reader, STDIN_FILENO);
  ::posix_spawn_file_actions_adddup2(&plan.actions, output.writer, STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&plan.actions, errors.writer, STDERR_FILENO);
  if (!options.directory.empty()) {
    ::posix_spawn_file_actions_addchdir_np(&plan.actions, options.directory.c_str());
  }
  const std::vector<std::string> environment = environmentWith(options.environment);
  const int failure = ::posix_spawnp(&process_, command.at(0).c_str(), &plan.actions, &plan.attributes,
                                     pointersTo(command).data(), pointersTo(environment).data());
  require(failure == 0, failure, command[0].c_str());
  processDescriptor_ = static_cast<int>(::syscall(SYS_pidfd_open, process_, 0));
  if (processDescriptor_ < 0) {
    const int error = errno;
    kill(SIGKILL);
    ::waitpid(process_, nullptr, 0);
    require(false, error, "pidfd_open");
  }
  output_ = std::exchange(output.reader, -1);
  errors_ = std::exchange(errors.reader, -1);
  if (options.holdInput) {
    input_ = std::exchange(held.writer, -1);
  }
  ::fcntl(output_, F_SETFL, O_NONBLOCK);
  ::fcntl(errors_, F_SETFL, O_NONBLOCK);
}

Subprocess::~Subprocess() {
  if (!ended_) {
    kill(SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }
  for (int* descriptor : {&processDescriptor_, &input_, &output_, &errors_}) {
    closeDescriptor(*descriptor);
  }
}

Outcome Subprocess::run(const std::vector<std::string>& command, SubprocessOptions options) {
  return Subprocess(command, std::move(options)).wait();
}

void Subprocess::kill(int signal) const noexcept {
  // The program may have left the group that it was started in.
  if (!ended_ && ::kill(-process_, signal) != 0) {
    ::kill(process_, signal);
  }
}

void Subprocess::closeInput() noexcept {
  closeDescriptor(input_);
}

bool Subprocess::waitForOutput(std::string_view text) {
  while (outcome_.output.find(text) == std::string::npos) {
    if (ended_ || pump() == Step::kEnded) {
      return outcome_.output.find(text) != std::string::npos;
    }
  }
  return true;
}

Outcome Subprocess::wait() {
  while (!ended_) {
    pump();
  }
  return outcome_;
}

/// Waits for one piece of output, for the end or for the deadline.
Subprocess::Step Subprocess::pump() {
  std::array<pollfd, 3> watched{{{processDescriptor_, POLLIN, 0}, {output_, POLLIN, 0}, {errors_, POLLIN, 0}}};
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - std::chrono::steady_clock::now());
  const int wait = outcome_.timedOut ? -1 : static_cast<int>(std::max<std::int64_t>(left.count(), 0));
  const int ready = ::poll(watched.data(), watched.size(), wait);
  if (ready == 0) {
    outcome_.timedOut = true;
    kill(SIGKILL);
  }
  drain(output_, outcome_.output);
  drain(errors_, outcome_.errors);
  if (ready > 0 && watched[0].revents != 0) {
    while (drain(output_, outcome_.output)) {
    }
    while (drain(errors_, outcome_.errors)) {
    }
    reap();
    return Step::kEnded;
  }
  return Step::kMore;
}

void Subprocess::reap() {
  int status = 0;
  ::waitpid(process_, &status, 0);
  ended_ = true;
  if (WIFEXITED(status)) {
    outcome_.exitStatus = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    outcome_.signal = WTERMSIG(status);
  }
}

}  // namespace test

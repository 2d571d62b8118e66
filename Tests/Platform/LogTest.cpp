#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <sstream>
#include <thread>

#include "Core/Kernel/Process.h"
#include "Platform/Foundation/ProcessInfo.h"
#include "Platform/Logging/NSLog.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

/// Standard error led elsewhere for a while.
class StandardError {
 public:
  explicit StandardError(int descriptor) : before_(::dup(STDERR_FILENO)) { ::dup2(descriptor, STDERR_FILENO); }
  StandardError(const StandardError&) = delete;
  StandardError& operator=(const StandardError&) = delete;
  ~StandardError() {
    ::dup2(before_, STDERR_FILENO);
    ::close(before_);
  }

 private:
  int before_;
};

struct Pipe {
  Pipe() { EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0); }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  ~Pipe() {
    closeReader();
    ::close(ends[1]);
  }
  void closeReader() { ::close(std::exchange(ends[0], -1)); }
  int writer() const { return ends[1]; }
  /// What is there now.
  std::string read() const {
    std::string all;
    std::array<char, 4096> block{};
    ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
    for (ssize_t count = 0; (count = ::read(ends[0], block.data(), block.size())) > 0;) {
      all.append(block.data(), static_cast<std::size_t>(count));
    }
    return all;
  }
  std::array<int, 2> ends{};
};

bool matches(const std::string& text, const std::string& pattern) {
  const testing::Matcher<std::string> form = testing::MatchesRegex(pattern);
  return form.Matches(text);
}

class Log : public testing::Test {
 protected:
  Log() { platform::setSystemLogSocket("/no/such/log"); }
  ~Log() override { platform::setSystemLogSocket("/dev/log"); }
};

TEST_F(Log, ALineTellsTimeProcessAndThread) {
  const Pipe pipe;
  int thread = 0;
  {
    const StandardError redirected(pipe.writer());
    std::thread([&] {
      thread = core::threadId();
      errno = ENOTTY;
      NSLog("%@ of %d\nlines", "two", 2);
      EXPECT_EQ(errno, ENOTTY);
    }).join();
  }
  const std::string place = platform::processName().str() + "\\[" + std::to_string(::getpid()) + ":";
  EXPECT_TRUE(matches(pipe.read(), "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} " + place +
                                       std::to_string(thread) + "\\] two of 2\nlines\n"));
}

TEST_F(Log, AFullPipeDropsLinesAndTakesThemAgainLater) {
  const Pipe pipe;
  const int size = ::fcntl(pipe.writer(), F_SETPIPE_SZ, 4096);
  ASSERT_GT(size, 0);
  const std::string filling(static_cast<std::size_t>(size), 'x');
  ASSERT_EQ(::write(pipe.writer(), filling.data(), filling.size()), size);
  const StandardError redirected(pipe.writer());
  NSLog("dropped");
  EXPECT_EQ(pipe.read(), filling);
  NSLog("%@", std::string(100'000, 'y'));  // more than there is room for
  EXPECT_LE(pipe.read().size(), filling.size());
  NSLog("taken");
  EXPECT_NE(pipe.read().find("taken\n"), std::string::npos);
}

TEST_F(Log, LongLinesArriveWhole) {
  const std::string text(20'000, 'z');
  const Pipe pipe;
  const test::TemporaryDirectory directory;
  const int file = ::open(directory.file("log").c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
  for (const int descriptor : {pipe.writer(), file}) {
    const StandardError redirected(descriptor);
    NSLog("%@", text);
  }
  ::close(file);
  std::stringstream content;
  content << std::ifstream(directory.file("log")).rdbuf();
  for (const std::string& line : {pipe.read(), content.str()}) {
    EXPECT_TRUE(line.ends_with("] " + text + "\n")) << line.size();
  }
}

TEST_F(Log, ABrokenPipeRaisesNoSignal) {
  struct sigaction before {};
  const struct sigaction standard {};
  ::sigaction(SIGPIPE, &standard, &before);
  Pipe pipe;
  pipe.closeReader();
  {
    const StandardError redirected(pipe.writer());
    NSLog("nobody reads this");
  }
  sigset_t set;
  ::sigpending(&set);
  EXPECT_FALSE(::sigismember(&set, SIGPIPE));
  ::pthread_sigmask(SIG_BLOCK, nullptr, &set);
  EXPECT_FALSE(::sigismember(&set, SIGPIPE));

  // One that was waiting already is not taken away.
  sigset_t broken;
  ::sigemptyset(&broken);
  ::sigaddset(&broken, SIGPIPE);
  ::pthread_sigmask(SIG_BLOCK, &broken, nullptr);
  ::raise(SIGPIPE);
  {
    const StandardError redirected(pipe.writer());
    NSLog("nor this");
  }
  const timespec atOnce{};
  EXPECT_EQ(::sigtimedwait(&broken, nullptr, &atOnce), SIGPIPE);
  ::pthread_sigmask(SIG_UNBLOCK, &broken, nullptr);
  ::sigaction(SIGPIPE, &before, nullptr);
}

TEST_F(Log, TheSystemsLogGetsTheLineToo) {
  const test::TemporaryDirectory directory;
  static std::string path;
  path = directory.file("log");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  ASSERT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  platform::setSystemLogSocket(path.c_str());
  const Pipe pipe;
  const StandardError redirected(pipe.writer());
  NSLog("hello %d", 5);
  std::array<char, 1024> message{};
  const ssize_t size = ::recv(socket, message.data(), message.size(), 0);
  ASSERT_GT(size, 0);
  const std::string source = platform::processName().str() + "\\[" + std::to_string(::getpid()) + "\\]";
  EXPECT_TRUE(matches(std::string(message.data(), static_cast<std::size_t>(size)),
                      "<13>[A-Z][a-z]{2} [ 1-3][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} " + source + ": hello 5"));
  for (int line = 0; line < 3000; ++line) {
    NSLog("a log daemon that stands still holds nobody up");
  }
  ::close(socket);
}

}  // namespace

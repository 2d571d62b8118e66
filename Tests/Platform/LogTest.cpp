#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>

#include "Core/Kernel/Process.h"
#include "Platform/Foundation/ProcessInfo.h"
#include "Platform/Logging/NSLog.h"
#include "Tests/Support/Child.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

/// Standard error is a pipe that nobody reads until asked to.
class Log : public testing::Test {
 protected:
  Log() : standardError_(::dup(STDERR_FILENO)) {
    EXPECT_EQ(::pipe2(pipe_.data(), O_CLOEXEC), 0);
    ::dup2(pipe_[1], STDERR_FILENO);
    ::fcntl(pipe_[0], F_SETFL, O_NONBLOCK);
    platform::setSystemLogSocket("/no/such/log");
  }
  ~Log() override {
    platform::setSystemLogSocket("/dev/log");
    ::dup2(standardError_, STDERR_FILENO);
    for (const int descriptor : {standardError_, pipe_[0], pipe_[1]}) {
      ::close(descriptor);
    }
  }

  std::string written() const { return received(pipe_[0]); }
  /// What one read answers.
  static std::string received(int descriptor) {
    std::string text(200'000, '\0');
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(::read(descriptor, text.data(), text.size()), 0)));
    return text;
  }
  static bool matches(const std::string& text, const std::string& pattern) {
    return testing::Matcher<std::string>(testing::MatchesRegex(pattern)).Matches(text);
  }

  test::TemporaryDirectory directory_;
  std::array<int, 2> pipe_{};
  int standardError_;
  const std::string source_ = platform::processName().str() + "\\[" + std::to_string(::getpid());
};

TEST_F(Log, ALineTellsTimeProcessAndThread) {
  errno = ENOTTY;
  NSLog("%@ of %d\nlines", "two", 2);
  EXPECT_EQ(errno, ENOTTY);
  EXPECT_TRUE(matches(written(), "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} " + source_ + ":" +
                                     std::to_string(core::threadId()) + "\\] two of 2\nlines\n"));
  const std::string longText(20'000, 'z');
  NSLog("%@", longText);
  EXPECT_TRUE(written().ends_with("] " + longText + "\n"));
}

TEST_F(Log, AFullPipeDropsLinesAndTakesThemAgainLater) {
  const int size = ::fcntl(pipe_[1], F_SETPIPE_SZ, 4096);
  const std::string filling(static_cast<std::size_t>(size), 'x');
  ASSERT_EQ(::write(pipe_[1], filling.data(), filling.size()), size);
  NSLog("dropped");
  EXPECT_EQ(written(), filling);
  NSLog("%@", std::string(100'000, 'y'));  // more than there is room for
  EXPECT_LE(written().size(), filling.size());
  NSLog("taken");
  EXPECT_TRUE(written().ends_with("] taken\n"));
}

TEST_F(Log, ABrokenPipeRaisesNoSignal) {
  ::close(std::exchange(pipe_[0], -1));
  EXPECT_EQ(test::runInChild([] {
              ::signal(SIGPIPE, SIG_DFL);
              NSLog("nobody reads this");
              sigset_t set;
              ::sigemptyset(&set);
              ::sigaddset(&set, SIGPIPE);
              ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
              NSLog("nor this");
              const timespec atOnce{};
              const bool none = ::sigtimedwait(&set, nullptr, &atOnce) == -1;
              ::raise(SIGPIPE);  // one that waits already is left
              NSLog("nor that");
              return none && ::sigtimedwait(&set, nullptr, &atOnce) == SIGPIPE ? 0 : 1;
            }),
            0);
}

TEST_F(Log, TheSystemsLogGetsTheLineToo) {
  const std::string path = directory_.file("log");
  sockaddr_un address{AF_UNIX, {}};
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  ASSERT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  platform::setSystemLogSocket(path.c_str());
  NSLog("hello %d", 5);
  EXPECT_TRUE(matches(received(socket),
                      "<13>[A-Z][a-z]{2} [ 1-3][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} " + source_ + "\\]: hello 5"));
  for (int line = 0; line < 3000; ++line) {
    NSLog("a log daemon that stands still holds nobody up");
  }
  ::close(socket);
}

}  // namespace

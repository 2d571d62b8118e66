#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Core/Files/RecordLock.h"
#include "Tests/Support/CallProbe.h"
#include "Tests/Support/Child.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

using core::Durability;
using test::contentOf;
using test::namesIn;
using test::runWithFault;
using test::TemporaryDirectory;

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

constexpr int kEndedByProbe = 3;

const std::string kOld(70000, 'o');
const std::string kNew(90001, 'n');

TEST(AtomicWrite, ReplacesWholeFilesAndLeavesNothingElse) {
  const TemporaryDirectory directory;
  for (const std::string& name : {std::string("a"), std::string(255, 'x'), std::string("with blank\n")}) {
    const std::string path = directory.file(name);
    for (const std::string& content : {kOld, std::string(), kNew}) {
      ASSERT_EQ(core::writeFileAtomically(path, bytesOf(content), 0640, Durability::kSynced), 0);
      EXPECT_EQ(contentOf(path), content);
      EXPECT_EQ(core::fileFacts(path)->mode, 0640U);
    }
  }
  EXPECT_EQ(namesIn(directory.path()).size(), 3U);
  EXPECT_EQ(core::writeFileAtomically(directory.file("absent/a"), bytesOf("x")), ENOENT);
  EXPECT_EQ(core::writeFileAtomically(directory.path(), bytesOf("x")), EISDIR);
}

TEST(AtomicWrite, EachFailingCallLeavesOldOrNew) {
  for (const long error : {-ENOSPC, -EMFILE, -EIO, -EINTR}) {
    long n = 1;
    for (bool reached = true; reached; ++n) {
      const TemporaryDirectory directory;
      const std::string path = directory.file("record");
      ASSERT_EQ(core::writeFileAtomically(path, bytesOf(kOld)), 0);
      int answer = -1;
      reached = runWithFault(
          n, error, [&] { answer = core::writeFileAtomically(path, bytesOf(kNew), 0600, Durability::kSynced); });
      EXPECT_EQ(contentOf(path) == kNew, answer == 0) << n << " " << error;
      EXPECT_TRUE(answer == 0 || contentOf(path) == kOld) << n << " " << error;
      EXPECT_EQ(namesIn(directory.path()).size(), 1U) << n << " " << error;
      EXPECT_TRUE(error != -EINTR || answer == 0) << n;
    }
    EXPECT_GT(n, 8);
  }
}

TEST(AtomicWrite, EndOfTheProcessAtEachCallLeavesOldOrNew) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("record");
  int status = kEndedByProbe;
  long n = 1;
  for (; status == kEndedByProbe; ++n) {
    ASSERT_EQ(core::writeFileAtomically(path, bytesOf(kOld)), 0);
    status = test::runInChild([&] {
      runWithFault(
          n, 0, [&] { core::writeFileAtomically(path, bytesOf(kNew)); }, [] { _exit(kEndedByProbe); });
      return 0;
    });
    EXPECT_TRUE(contentOf(path) == kOld || contentOf(path) == kNew) << n;
  }
  EXPECT_EQ(status, 0);
  EXPECT_EQ(contentOf(path), kNew);
  EXPECT_GT(n, 5);
}

TEST(AtomicWrite, FileSizeLimitLeavesTheOld) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("record");
  ASSERT_EQ(core::writeFileAtomically(path, bytesOf("old")), 0);
  EXPECT_EQ(test::runInChild([&] {
              std::signal(SIGXFSZ, SIG_IGN);
              const rlimit small{50000, 50000};
              ::setrlimit(RLIMIT_FSIZE, &small);
              return core::writeFileAtomically(path, bytesOf(kNew));
            }),
            EFBIG);
  EXPECT_EQ(contentOf(path), "old");
  EXPECT_EQ(namesIn(directory.path()).size(), 1U);
}

TEST(AtomicWrite, WritersAndReadersOfOneFileAtOnce) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("record");
  ASSERT_EQ(core::writeFileAtomically(path, bytesOf(kOld)), 0);
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&path, &content = i % 2 == 0 ? kOld : kNew] {
        for (int round = 0; round < 50; ++round) {
          EXPECT_EQ(core::writeFileAtomically(path, bytesOf(content)), 0);
          const auto read = core::readFile(path);
          ASSERT_TRUE(read);
          EXPECT_TRUE(*read == core::Data(bytesOf(kOld)) || *read == core::Data(bytesOf(kNew)));
        }
      });
    }
  }
  EXPECT_EQ(namesIn(directory.path()).size(), 1U);
}

TEST(ReadFile, AnswersWhyNot) {
  const TemporaryDirectory directory;
  const std::string pipe = directory.file("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const std::string file = directory.file("file");
  ASSERT_EQ(core::writeFileAtomically(file, bytesOf(kOld)), 0);
  const struct {
    std::string path;
    std::size_t limit;
    int error;
  } kCases[] = {{directory.path(), 9, EISDIR},
                {pipe, 9, EINVAL},
                {"/dev/zero", 9, EINVAL},
                {directory.file("x"), 9, ENOENT},
                {file, kOld.size() - 1, EFBIG},
                {file, kOld.size(), 0},
                {file, SIZE_MAX, 0},
                {"/proc/self/maps", 100, EFBIG}};
  for (const auto& [path, limit, error] : kCases) {
    const auto read = core::readFile(path, limit);
    ASSERT_EQ(static_cast<bool>(read), error == 0) << path << limit;
    EXPECT_TRUE(read ? *read == core::Data(bytesOf(kOld)) : read.error() == error) << path << limit;
  }
  for (long n = 1, reached = true; reached; ++n) {
    reached = runWithFault(n, -EINTR, [&] { EXPECT_TRUE(core::readFile(file)); });
  }
  // No size is told of a file of the kernel's: the content counts.
  EXPECT_GT(core::readFile("/proc/self/maps")->size(), 1000U);
  EXPECT_EQ(::fcntl(core::File::open(file, O_RDONLY)->descriptor(), F_GETFD), FD_CLOEXEC);
}

TEST(FileFacts, FollowsLinks) {
  const TemporaryDirectory directory;
  const std::string file = directory.file("file");
  ASSERT_EQ(core::writeFileAtomically(file, bytesOf("12345"), 0604), 0);
  const timespec times[2] = {{1, 0}, {1'700'000'000, 123'456'789}};
  ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  ASSERT_EQ(::symlink("file", directory.file("link").c_str()), 0);
  const auto facts = core::fileFacts(directory.file("link"));
  ASSERT_TRUE(facts);
  EXPECT_TRUE(facts->isRegular && !facts->isDirectory && facts->size == 5);
  EXPECT_EQ(facts->mode, 0604U);
  EXPECT_EQ(facts->owner, ::geteuid());
  EXPECT_EQ(facts->modified, 1'700'000'000'123'456'789);
  EXPECT_EQ(core::removeFile(file), 0);
  EXPECT_EQ(core::removeFile(file), ENOENT);
  EXPECT_FALSE(core::fileExists(directory.file("link")));
}

TEST(Directory, IsMadeWithItsParents) {
  const TemporaryDirectory directory;
  ASSERT_EQ(core::writeFileAtomically(directory.file("file"), bytesOf("")), 0);
  ASSERT_EQ(::symlink("nowhere", directory.file("dangling").c_str()), 0);
  const struct {
    const char* name;
    int error;
  } kCases[] = {{"a/b//c/", 0},    {"a/b/c", 0},          {"a", 0},
                {"file", ENOTDIR}, {"file/b/c", ENOTDIR}, {"dangling", ENOTDIR}};
  for (const auto& [name, error] : kCases) {
    EXPECT_EQ(core::createDirectories(directory.file(name), 0750), error) << name;
  }
  EXPECT_EQ(core::fileFacts(directory.file("a/b"))->mode, 0750U);
  EXPECT_EQ(core::createDirectories("/"), 0);
  EXPECT_EQ(core::createDirectories(""), ENOENT);
}

TEST(Directory, IsListedInByteOrder) {
  const TemporaryDirectory directory;
  std::vector<std::string> wanted{".hidden", "B", "a", "a b", "\xC3\xA4"};
  for (int i = 100; i < 200; ++i) {
    wanted.push_back(std::string(250, 'n') + std::to_string(i));
  }
  for (const std::string& name : wanted) {
    ASSERT_EQ(core::File::open(directory.file(name), O_CREAT | O_WRONLY) ? 0 : 1, 0) << name;
  }
  std::sort(wanted.begin(), wanted.end());
  const auto names = core::listDirectory(directory.path());
  ASSERT_TRUE(names);
  EXPECT_EQ(std::vector<std::string>(names->begin(), names->end()), wanted);
  EXPECT_EQ(core::listDirectory(directory.file("absent")).error(), ENOENT);
  EXPECT_EQ(core::listDirectory(directory.file("a")).error(), ENOTDIR);
}

TEST(Path, Parts) {
  const struct {
    const char* path;
    const char* parent;
    const char* last;
  } kCases[] = {{"/a/b.c", "/a", "b.c"}, {"/a/b//", "/a", "b"}, {"/a", "/", "a"}, {"a", "", "a"},
                {"a//b", "a", "b"},      {"/", "/", "/"},       {"//", "/", "/"}, {"", "", ""}};
  for (const auto& [path, parent, last] : kCases) {
    EXPECT_EQ(core::parentPath(path), parent) << path;
    EXPECT_EQ(core::lastPathComponent(path), last) << path;
  }
  EXPECT_EQ(core::joinPath("/a//", "/b"), "/a/b");
  EXPECT_EQ(core::joinPath("/", "b"), "/b");
  EXPECT_EQ(core::joinPath("", "b"), "b");
  EXPECT_EQ(core::joinPath("a", ""), "a");
}

TEST(RecordLock, ExcludesOtherProcessesUntilTheyEnd) {
  const TemporaryDirectory directory;
  const std::string path = directory.file("lock");
  int pipe[2];
  ASSERT_EQ(::pipe(pipe), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    const auto lock = core::RecordLock::acquire(path, core::RecordLock::Mode::kTry);
    const char held = lock ? 'y' : 'n';
    _exit(::write(pipe[1], &held, 1) == 1 ? ::pause() : 1);
  }
  char held = 0;
  ASSERT_EQ(::read(pipe[0], &held, 1), 1);
  EXPECT_EQ(held, 'y');
  const auto refused = core::RecordLock::acquire(path, core::RecordLock::Mode::kTry);
  EXPECT_TRUE(!refused && refused.error() == EAGAIN);
  {
    const std::jthread waiting([&] { EXPECT_TRUE(core::RecordLock::acquire(path, core::RecordLock::Mode::kWait)); });
    ::kill(child, SIGKILL);
  }
  ::waitpid(child, nullptr, 0);
  EXPECT_TRUE(core::RecordLock::acquire(path, core::RecordLock::Mode::kTry));
  EXPECT_EQ(core::fileFacts(path)->mode, 0600U);
  ::close(pipe[0]);
  ::close(pipe[1]);
}

}  // namespace

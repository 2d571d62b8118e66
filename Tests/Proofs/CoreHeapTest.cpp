#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <numbers>
#include <thread>

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Core/Files/RecordLock.h"
#include "Core/Kernel/ImageList.h"
#include "Core/Memory/CrashHeap.h"
#include "Core/Memory/CrashOwner.h"
#include "Core/PropertyList/BinaryPropertyList.h"
#include "Core/Text/Format.h"
#include "Core/Text/Uuid.h"
#include "Tests/Support/HeapCount.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

void say(std::string_view line) {
  if (::write(STDERR_FILENO, line.data(), line.size()) < 0) {
    std::abort();
  }
}

/// What a crash asks of Core. False when anything went wrong.
bool useAll(const core::String& root) {
  core::ValueDictionary record;
  for (int i = 0; i < 50; ++i) {
    record.set(core::generateUuid(),
               core::kiv_format("%@ %d %#018llx %f", "text", i, std::size_t{7}, std::numbers::pi));
  }
  const core::Data bytes = core::encodeBinaryPropertyList(record);
  const core::String folder = core::joinPath(root, "a/b");
  const core::String path = core::joinPath(folder, "record");
  const bool written = core::createDirectories(folder) == 0 &&
                       core::writeFileAtomically(path, bytes.span(), 0600, core::Durability::kSynced) == 0;
  const auto read = core::readFile(path);
  const auto decoded = core::decodeBinaryPropertyList(read->span());
  const auto names = core::listDirectory(folder);
  const auto lock = core::RecordLock::acquire(core::joinPath(root, "lock"), core::RecordLock::Mode::kTry);
  core::ImageList::refresh();
  return written && decoded && *decoded->dictionary() == record && names->size() == 1 && lock &&
         !core::ImageList::current().empty() && core::removeFile(path) == 0;
}

TEST(Core, LeavesTheHeapAloneOnTheOwnerOfACrash) {
  const test::TemporaryDirectory directory;
  const core::String root = directory.path();
  const auto crash = [&root] {
    core::CrashHeap::reserve();
    std::thread([&root] {
      core::CrashOwner::claim();
      test::showHeapCalls();
      void* volatile control = std::malloc(1);  // shows that the showing works
      std::free(control);
      say("begin\n");
      const bool held = useAll(root);
      say("end\n");
      _exit(held ? 0 : 1);
    }).join();
  };
  EXPECT_EXIT(crash(), testing::ExitedWithCode(0), "heap call: malloc\nheap call: free\nbegin\nend\n");
}

}  // namespace

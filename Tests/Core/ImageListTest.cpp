#include "Core/Kernel/ImageList.h"

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <thread>

#include "Core/Files/File.h"
#include "Tests/Support/CallProbe.h"
#include "Tests/Support/Child.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

using core::LoadedImage;

using SizeOfBase = std::map<std::uint64_t, std::uint64_t>;

SizeOfBase loaderImages() {
  SizeOfBase images;
  const auto collect = [](dl_phdr_info* info, std::size_t, void* into) {
    std::uint64_t base = 0;
    std::uint64_t end = 0;
    for (int i = info->dlpi_phnum - 1; i >= 0; --i) {
      const ElfW(Phdr)& segment = info->dlpi_phdr[i];
      if (segment.p_type == PT_LOAD) {
        base = info->dlpi_addr + segment.p_vaddr;
        end = end == 0 && (segment.p_flags & PF_X) != 0 ? base + segment.p_memsz : end;
      }
    }
    if (end != 0) {
      (*static_cast<SizeOfBase*>(into))[base] = end - base;
    }
    return 0;
  };
  ::dl_iterate_phdr(collect, &images);
  return images;
}

SizeOfBase ownImages() {
  SizeOfBase images;
  for (const LoadedImage& image : core::readLoadedImages()) {
    images[image.base] = image.size;
  }
  return images;
}

/// The mathematics library: stateless, so that copies of it can be loaded beside it.
std::string libraryPath() {
  Dl_info info{};
  ::dladdr(::dlsym(RTLD_DEFAULT, "cosf"), &info);
  return std::filesystem::canonical(info.dli_fname).string();
}

TEST(ImageList, AgreesWithTheLoader) {
  const auto images = core::readLoadedImages();
  EXPECT_EQ(ownImages(), loaderImages());
  ASSERT_GT(images.size(), 3U);
  EXPECT_EQ(images[0].path, std::filesystem::canonical("/proc/self/exe").string());
  EXPECT_TRUE(std::is_sorted(images.begin() + 1, images.end(),
                             [](const LoadedImage& a, const LoadedImage& b) { return a.base < b.base; }));
  EXPECT_EQ(std::count_if(images.begin(), images.end(), [](const auto& image) { return image.path == "[vdso]"; }), 1);
}

TEST(ImageList, FindsTheCoveringImage) {
  const auto images = core::readLoadedImages();
  for (const LoadedImage& image : images) {
    EXPECT_EQ(core::imageCovering(images, image.base), &image);
    EXPECT_EQ(core::imageCovering(images, image.base + image.size - 1), &image);
    EXPECT_NE(core::imageCovering(images, image.base + image.size), &image);
    EXPECT_NE(core::imageCovering(images, image.base - 1), &image);
  }
  EXPECT_EQ(core::imageCovering(images, 0), nullptr);
  EXPECT_EQ(core::imageCovering(images, ~std::uint64_t{0}), nullptr);
  EXPECT_EQ(core::imageCovering({}, 1), nullptr);
}

TEST(ImageList, PathsComeAsTheyAre) {
  const test::TemporaryDirectory directory;
  const std::string path = directory.file(" a b\n(deleted) " + std::string(200, 'x'));
  std::filesystem::copy_file(libraryPath(), path);
  void* library = ::dlopen(path.c_str(), RTLD_NOW);
  ASSERT_NE(library, nullptr) << ::dlerror();
  const auto occurs = [&](const core::Array<LoadedImage>& images) {
    return std::count_if(images.begin(), images.end(), [&](const auto& image) { return image.path.view() == path; });
  };
  EXPECT_EQ(occurs(core::readLoadedImages()), 1);
  std::filesystem::remove(path);
  EXPECT_EQ(occurs(core::readLoadedImages()), 1);
  core::ImageList::refresh();
  ::dlclose(library);
  EXPECT_EQ(occurs(core::readLoadedImages()), 0);
  EXPECT_EQ(occurs(core::ImageList::current()), 1);
  core::ImageList::refresh();
  EXPECT_EQ(occurs(core::ImageList::current()), 0);
}

/// Bytes of a program file in memory that may be executed.
class MappedFile {
 public:
  MappedFile(std::size_t size, int protection) : size_(size) {
    const auto file = core::File::open(libraryPath(), O_RDONLY);
    memory_ = static_cast<std::uint8_t*>(::mmap(nullptr, size, protection, MAP_PRIVATE, file->descriptor(), 0));
  }
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;
  ~MappedFile() { ::munmap(memory_, size_); }
  std::uint8_t* memory() const { return memory_; }

 private:
  std::size_t size_;
  std::uint8_t* memory_;
};

TEST(ImageList, MereFilesAndCorruptHeadersAreSkipped) {
  const auto before = ownImages();
  const std::size_t size = std::filesystem::file_size(libraryPath());
  const MappedFile whole(size, PROT_READ);
  const MappedFile front(4096, PROT_READ);
  EXPECT_EQ(ownImages(), before);
  using Change = void (*)(Elf64_Ehdr&, Elf64_Phdr&);  // the second for each segment
  const Change kCases[] = {[](auto& file, auto&) { file.e_ident[0] = 0; },
                           [](auto& file, auto&) { file.e_ident[EI_CLASS] = ELFCLASS32; },
                           [](auto& file, auto&) { file.e_phnum = 0xFFFF; },
                           [](auto& file, auto&) { file.e_phnum = 0; },
                           [](auto& file, auto&) { file.e_phentsize = 8; },
                           [](auto& file, auto&) { file.e_phoff = ~std::uint64_t{63}; },
                           [](auto& file, auto&) { file.e_phoff = std::uint64_t{1} << 46; },
                           [](auto&, auto& segment) { segment.p_memsz = ~std::uint64_t{0}; },
                           [](auto&, auto& segment) { segment.p_vaddr = ~segment.p_offset; },
                           [](auto&, auto& segment) { segment.p_flags = PF_R; }};
  for (const auto& corrupt : kCases) {
    const MappedFile file(size, PROT_READ | PROT_WRITE | PROT_EXEC);
    EXPECT_EQ(ownImages().size(), before.size() + 1);
    auto& header = *reinterpret_cast<Elf64_Ehdr*>(file.memory());
    auto* segments = reinterpret_cast<Elf64_Phdr*>(file.memory() + header.e_phoff);
    std::for_each(segments, segments + header.e_phnum, [&](Elf64_Phdr& segment) { corrupt(header, segment); });
    EXPECT_EQ(ownImages(), before) << &corrupt - kCases;
  }
}

TEST(ImageList, ComesWithoutTheCallForMemoryToo) {
  const auto wanted = ownImages();
  static std::uint64_t marker;
  const auto holdsFor = [&](std::uint64_t value) {
    marker = value;
    std::uint64_t copy = 0;
    return core::readOwnMemory(reinterpret_cast<std::uintptr_t>(&marker), &copy, sizeof copy) && copy == value &&
           !core::readOwnMemory(8, &copy, 1) && ownImages() == wanted;
  };
  const test::CallProbe refused(test::failing<SYS_process_vm_readv, EPERM>);
  EXPECT_TRUE(holdsFor(1));
  EXPECT_EQ(test::runInChild([&] { return holdsFor(2) ? 0 : 1; }), 0) << "a child must not read its parent";
  const test::CallProbe openingToo(test::failing<SYS_openat, EMFILE>);
  EXPECT_TRUE(core::readLoadedImages().empty());
}

TEST(ImageList, OutlivesTheFirstThread) {
  const auto wanted = ownImages();
  const auto endFirstThread = [&] {
    const std::string firstMap = "/proc/" + std::to_string(::getpid()) + "/maps";
    std::thread([&] {
      while (core::readFile(firstMap)->size() != 0) {
        std::this_thread::yield();
      }
      _exit(ownImages() == wanted ? 0 : 1);
    }).detach();
    return static_cast<int>(::syscall(SYS_exit, 0));
  };
  EXPECT_EQ(test::runInChild(endFirstThread), 0);
}

TEST(OwnMemory, ReadsAllOrNothing) {
  const long page = ::sysconf(_SC_PAGESIZE);
  auto* memory = static_cast<char*>(
      ::mmap(nullptr, static_cast<std::size_t>(2 * page), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  memory[page - 1] = 'x';
  ::munmap(memory + page, static_cast<std::size_t>(page));
  const auto end = reinterpret_cast<std::uintptr_t>(memory) + static_cast<std::uintptr_t>(page);
  char bytes[16] = {};
  EXPECT_TRUE(core::readOwnMemory(end - 16, bytes, 16));
  EXPECT_EQ(bytes[15], 'x');
  EXPECT_FALSE(core::readOwnMemory(end - 15, bytes, 16));
  EXPECT_FALSE(core::readOwnMemory(0, bytes, 1));
  EXPECT_FALSE(core::readOwnMemory(0xdead'beef'dead'beef, bytes, 1));
  ::munmap(memory, static_cast<std::size_t>(page));
}

}  // namespace

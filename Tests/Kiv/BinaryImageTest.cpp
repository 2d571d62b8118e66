#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <span>
#include <string>
#include <utility>

#include "Core/Text/Format.h"
#include "Core/Text/Uuid.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/bughandler/KivBinaryImageCollector.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Tests/Support/LogCapture.h"
#include "Tests/Support/Subprocess.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

TEST(BinaryImages, describesPrograms) {
  auto& images = KivBinaryImageCollector::sharedInstance();
  images.loadBinarys();
  const KivMachImageInfo main = images.getAllBinarys()[0];
  EXPECT_EQ(main.sname, program_invocation_short_name);
  EXPECT_EQ(main.cpu, "x86_64");
  EXPECT_EQ(main.uuid.size(), 32U);
  EXPECT_EQ(images.getImageByAddr(main.base + main.size)->base, main.base);
  const auto behind = images.getImageByAddr(main.base + main.size + 1);
  EXPECT_TRUE(!behind || behind->base != main.base);
  EXPECT_FALSE(images.getImageByAddr(16));

  kiv_log_level = kKivLogErrorLevel;
  const test::LogCapture log;
  KivMachImageInfo info;
  EXPECT_FALSE(KivBinaryImageCollector::GetImageInfo(reinterpret_cast<std::uint64_t>("abcd"), "x/y", info));
  kiv_log_level = 0;
  EXPECT_TRUE(test::LogCapture::tookOne("<ERROR> <KIV> error mach iamge header magic 1684234849"));
  EXPECT_EQ(info.sname, "y");

  EXPECT_EQ(KivBinaryImageCollector::getcpu(7, 3), "x86");
  EXPECT_EQ(KivBinaryImageCollector::getcpu(0x1000007, 3), "x86_64");
  EXPECT_EQ(KivBinaryImageCollector::getcpu(0x100000c, 0x102), "cpu_12.2");
}

TEST(BinaryImages, ofStacks) {
  auto& images = KivBinaryImageCollector::sharedInstance();
  images.loadBinarys();
  KivCrashData& data = KivCrashData::expData();
  const KivMachImageInfo main = images.getAllBinarys()[0];
  data.setAllStackShortNames({"libc.so.6", main.sname});
  images.collectBinaryInfos(main.sname);
  EXPECT_EQ(*data.processName(), main.sname);
  EXPECT_EQ(*data.processUUID(), main.uuid);
  EXPECT_EQ(*data.processArch(), "x86_64");
  EXPECT_EQ(*data.processAddr(), core::kiv_format("%#018llx", main.base));
  ASSERT_EQ(data.crashBinInfos().size(), 1U);
  EXPECT_EQ(data.crashBinInfos()[0].processName, "libc.so.6");
}

/// A copy of a library, changed so that it has another build id or none, at a path of its own.
class CopiedLibrary {
 public:
  explicit CopiedLibrary(std::string path) : path_(std::move(path)) {}
  ~CopiedLibrary() { close(); }

  void open(void (*change)(Elf64_Phdr& note, char& ofId)) {
    Dl_info original{};
    dladdr(dlsym(RTLD_DEFAULT, "cosf"), &original);
    bytes_ = test::contentOf(original.dli_fname);
    auto* const header = reinterpret_cast<Elf64_Ehdr*>(bytes_.data());
    auto* const segments = reinterpret_cast<Elf64_Phdr*>(bytes_.data() + header->e_phoff);
    for (Elf64_Phdr& segment : std::span(segments, header->e_phnum)) {
      const std::size_t name = bytes_.find(std::string_view("\3\0\0\0GNU", 8), segment.p_offset);
      if (segment.p_type == PT_NOTE && name < segment.p_offset + segment.p_filesz) {
        id_ = name + 8;
        change(segment, bytes_[id_]);
      }
      if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0) {
        code_ = segment;
      }
    }
    close();
    std::filesystem::remove(path_);
    test::writeFile(path_, bytes_);
    handle_ = dlopen(path_.c_str(), RTLD_NOW | RTLD_LOCAL);
    EXPECT_NE(handle_, nullptr) << dlerror();
  }
  void close() {
    if (handle_ != nullptr) {
      dlclose(std::exchange(handle_, nullptr));
    }
  }
  std::uint64_t base() const {
    Dl_info info{};
    dladdr(dlsym(handle_, "cosf"), &info);
    return reinterpret_cast<std::uint64_t>(info.dli_fbase);
  }
  const Elf64_Phdr& code() const { return code_; }
  std::string id() const { return bytes_.substr(id_, 16); }
  std::string codePage() const { return bytes_.substr(code_.p_offset, 4096); }

 private:
  std::string path_;
  std::string bytes_;
  Elf64_Phdr code_{};
  std::size_t id_ = 0;
  void* handle_ = nullptr;
};

TEST(BinaryImages, withoutIdReplacedAndDeleted) {
  const test::TemporaryDirectory directory;
  const std::string path = directory.file("libcopied.so");
  auto& images = KivBinaryImageCollector::sharedInstance();
  const auto reloaded = [&] {
    images.reloadBinarysIfChanged();
    for (const KivMachImageInfo& image : images.getAllBinarys()) {
      if (image.name == path) {
        return image;
      }
    }
    return KivMachImageInfo();
  };
  CopiedLibrary library(path);
  library.open([](Elf64_Phdr& note, char&) { note.p_type = PT_NULL; });
  const KivMachImageInfo unknown = reloaded();
  EXPECT_EQ(unknown.sname, "libcopied.so");
  EXPECT_EQ(unknown.base, library.base());
  EXPECT_EQ(unknown.size, library.code().p_vaddr + library.code().p_memsz);
  test::writeFile(directory.file("page"), library.codePage());
  const std::string sum = test::Subprocess::run({"md5sum", directory.file("page")}).output;
  EXPECT_EQ(unknown.uuid.str(), sum.substr(0, 32));

  for (const char first : {'1', '2'}) {
    static char ofId;
    ofId = first;
    library.open([](Elf64_Phdr&, char& byte) { byte = ofId; });
    EXPECT_EQ(reloaded().uuid, core::lowerHex({reinterpret_cast<const std::uint8_t*>(library.id().data()), 16}))
        << first;
  }
  std::filesystem::remove(path);
  EXPECT_EQ(reloaded().sname, "libcopied.so") << "deleted, yet in use";
  library.close();
  EXPECT_EQ(reloaded().sname, "");
}

}  // namespace

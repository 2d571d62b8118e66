#include "Core/Kernel/Symbols/SymbolIndex.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>

#include <atomic>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "Core/Kernel/ImageList.h"
#include "Core/Kernel/Symbols/SymbolTables.h"
#include "Tests/Support/Subprocess.h"
#include "Tests/Support/SymbolImage.h"

namespace {

using test::SymbolImage;

std::string text(const std::optional<core::Symbol>& symbol) {
  return symbol ? std::string(symbol->name) + "+" + std::to_string(symbol->distance) : "";
}

core::LoadedImage imageAround(const void* code) {
  const core::Array<core::LoadedImage> images = core::readLoadedImages();
  return *core::imageCovering(images, reinterpret_cast<std::uint64_t>(code));
}

core::ImageHeaders headersOf(const core::LoadedImage& image) {
  core::ImageHeaders headers;
  EXPECT_TRUE(headers.read(image.base));
  return headers;
}

/// Of libraries that count their symbols by the one hash table and by the other.
const void* const kLibraries[] = {dlsym(RTLD_DEFAULT, "qsort_r"), dlsym(RTLD_DEFAULT, "__cxa_guard_abort")};

/// The names of each piece of code (start in the file, size) that nm tells.
std::map<std::pair<std::uint64_t, std::uint64_t>, std::set<std::string>> namesByNm(const std::string& path,
                                                                                   const char* which) {
  const test::Outcome outcome = test::Subprocess::run({"nm", "--format=sysv", "--defined-only", which, path});
  EXPECT_EQ(outcome.exitStatus, 0) << outcome.errors;
  std::map<std::pair<std::uint64_t, std::uint64_t>, std::set<std::string>> names;
  // Function or, by its number, indirect function.
  const std::regex row(R"(([^ @|]+)[^|]*\|([0-9a-f]+)\|[^|]*\| *(FUNC|<OS specific>: 10)\|([0-9a-f]+)\|.*)");
  std::istringstream lines(outcome.output);
  std::smatch parts;
  for (std::string line; std::getline(lines, line);) {
    if (std::regex_match(line, parts, row) && std::stoull(parts[4], nullptr, 16) != 0) {
      names[{std::stoull(parts[2], nullptr, 16), std::stoull(parts[4], nullptr, 16)}].insert(parts[1]);
    }
  }
  return names;
}

TEST(SymbolIndex, agreesWithNmOnAllFunctions) {
  const void* const self = reinterpret_cast<const void*>(&namesByNm);
  for (const void* code : {self, kLibraries[0], kLibraries[1]}) {
    const core::LoadedImage image = imageAround(code);
    const core::ImageHeaders headers = headersOf(image);
    const core::SymbolIndex index = core::SymbolIndex::of(headers, code == self ? image.path : core::String());
    const auto names = namesByNm(image.path.str(), code == self ? "--no-demangle" : "--dynamic");
    EXPECT_EQ(index.size(), names.size()) << image.path.view();
    EXPECT_GT(index.size(), 100U);
    for (const auto& [piece, same] : names) {
      const auto found = index.lookup(headers.bias() + piece.first);
      ASSERT_TRUE(found && found->distance == 0) << *same.begin();
      EXPECT_TRUE(found->size < piece.second || same.contains(std::string(found->name))) << found->name;
    }
  }
}

struct SymbolImageTest : testing::Test {
  core::SymbolIndex index() {
    core::ImageHeaders headers;
    EXPECT_TRUE(headers.read(loaded.base()));
    return core::SymbolIndex::of(headers, loaded.filePath());
  }

  SymbolImage image;
  test::LoadedBytes loaded;
};

TEST_F(SymbolImageTest, answersTheInnermostFunctionThatCovers) {
  loaded.load(image.bytes());
  loaded.writeFile(image.bytes());
  const core::SymbolIndex made = index();
  const std::map<std::uint64_t, std::string> expected{{0, ""},
                                                      {0x1FFF, ""},
                                                      {0x2000, "outer+0"},
                                                      {0x203F, "outer+63"},
                                                      {0x2040, "inner+0"},
                                                      {0x204F, "inner+15"},
                                                      {0x2050, "outer+80"},
                                                      {0x20FF, "outer+255"},
                                                      {0x2100, ""},
                                                      {0x300F, "other+15"},
                                                      {0x3010, ""},
                                                      {0x3800, ""},
                                                      {0x4010, "local+16"},
                                                      {0x5000, ""},
                                                      {0x6000, ""},
                                                      {0xFFFF, "label+15"},
                                                      {0x10000, ""},
                                                      {0x100002000, ""}};
  for (const auto& [offset, name] : expected) {
    EXPECT_EQ(text(made.lookup(loaded.base() + offset)), name) << std::hex << offset;
  }
}

/// Local functions are known from no file but the image's own.
TEST_F(SymbolImageTest, takesTheFileOnlyWhereItIsTheImages) {
  struct Case {
    const char* name;
    void (*change)(SymbolImage& memory, SymbolImage& file);
    std::string exported;
    std::string local;
  };
  const auto same = [](SymbolImage&, SymbolImage&) {};
  const Case cases[] = {
      {"same", same, "outer+0", "local+0"},
      {"replaced", [](SymbolImage&, SymbolImage& file) { file.note.id[19] ^= 1; }, "outer+0", ""},
      {"other section table", [](SymbolImage&, SymbolImage& file) { file.header.e_flags = 1; }, "outer+0", "local+0"},
      {"stripped", [](SymbolImage&, SymbolImage& file) { file.sections[1].sh_type = SHT_NOBITS; }, "outer+0", ""},
      {"no functions", [](SymbolImage&, SymbolImage& file) { file.sections[1].sh_size = 24; }, "outer+0", ""},
      {"no id",
       [](SymbolImage& memory, SymbolImage& file) { memory.segments[2].p_type = file.segments[2].p_type = PT_NULL; },
       "outer+0", "local+0"},
      {"no id, replaced",
       [](SymbolImage& memory, SymbolImage& file) {
         memory.segments[2].p_type = file.segments[2].p_type = PT_NULL;
         file.segments[0].p_filesz += 8;
       },
       "outer+0", ""},
      {"static", [](SymbolImage& memory, SymbolImage&) { memory.segments[1].p_type = PT_NULL; }, "outer+0", "local+0"},
      {"static, stripped",
       [](SymbolImage& memory, SymbolImage& file) {
         memory.segments[1].p_type = PT_NULL;
         file.header.e_shnum = 0;
       },
       "", ""},
  };
  for (const Case& each : cases) {
    SymbolImage file = image;
    SymbolImage memory = image;
    each.change(memory, file);
    loaded.load(memory.bytes());
    loaded.writeFile(file.bytes());
    const core::SymbolIndex made = index();
    EXPECT_EQ(text(made.lookup(loaded.base() + 0x2000)), each.exported) << each.name;
    EXPECT_EQ(text(made.lookup(loaded.base() + 0x4000)), each.local) << each.name;
  }
}

/// A library that is opened and closed under threads that look.
TEST(SymbolTables, followTheImagesWhileOthersLook) {
  std::atomic<bool> isOver{false};
  std::atomic<int> looks{0};
  const auto self = reinterpret_cast<std::uint64_t>(&namesByNm);
  core::SymbolTables::refresh();
  const char* const name = core::SymbolTables::View().lookup(self)->name.data();
  std::vector<std::thread> threads(2);
  for (std::thread& thread : threads) {
    thread = std::thread([&] {
      while (!isOver) {
        const core::SymbolTables::View view;
        const auto found = view.lookup(self + 1);
        EXPECT_TRUE(found && found->distance == 1 && found->name.find("namesByNm") != std::string_view::npos);
        ++looks;
      }
    });
  }
  for (int round = 0; round < 10; ++round) {
    void* const library = dlopen("libBrokenLocale.so.1", RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto code = reinterpret_cast<std::uint64_t>(dlsym(library, "__ctype_get_mb_cur_max"));
    EXPECT_EQ(text(core::SymbolTables::View().lookup(code)), "");
    core::SymbolTables::refresh();
    const core::SymbolTables::View open;
    dlclose(library);
    core::SymbolTables::refresh();
    EXPECT_EQ(text(open.lookup(code)), "__ctype_get_mb_cur_max+0");
    EXPECT_EQ(text(core::SymbolTables::View().lookup(code)), "");
    const int before = looks;
    while (looks == before) {
      std::this_thread::yield();
    }
  }
  EXPECT_EQ(core::SymbolTables::View().lookup(self)->name.data(), name) << "an index was made again";
  isOver = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace

#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "Core/Kernel/OwnMemory.h"
#include "Core/Kernel/Unwind/CallFrameTable.h"
#include "Core/Memory/Array.h"

namespace core {

/// What a walk needs to know of one program file in memory.
struct CodeImage {
  static constexpr std::size_t kMarkSize = 32;

  std::uint64_t base = 0;
  std::uint64_t codeStart = 0;  ///< of the first executable segment
  std::uint64_t codeEnd = 0;    ///< of the last
  CallFrameTable table;
  /// Bytes that another image in the same place would not have (build id or file header).
  std::uint64_t markPlace = 0;
  std::array<std::uint8_t, kMarkSize> mark{};
};

/// The images of the process with their call-frame tables, published for walks: whoever walks
/// takes no lock and sees one state of the table for as long as it looks.
///
/// The table is refreshed in normal running, and before the walks of a crash or a dump where
/// it is found to be out of date; two things tell that cheaply: an image that is not the one
/// it was, and code that a walk met outside every image.
class CodeImages {
  struct Table;

 public:
  /// Reads the memory map anew. Images that stayed keep their tables. Normal running, or the
  /// owner of a crash (which goes without when another thread is just at it).
  static void refresh() noexcept;

  /// refresh() where the table is out of date; a few system calls where it is not. To be
  /// called where refresh() may be, before any thread is suspended.
  static void refreshIfChanged() noexcept;

  /// Tells that readable code lies outside every image. Fit for the crash path.
  static void noteUnknownCode() noexcept;

  /// One state of the table, which stays while the object lives. Fit for the crash path.
  class View {
   public:
    View() noexcept;
    View(const View&) = delete;
    View& operator=(const View&) = delete;
    ~View();

    /// Looks at the newest state from now on.
    void renew() noexcept;
    /// The image whose code lies around `address`, nullptr for none.
    const CodeImage* covering(std::uint64_t address) const noexcept;
    /// Changes when an image goes, so that rules kept by address do not outlive it.
    std::uint64_t generation() const noexcept;
    /// True when every image is still in its place.
    bool isTrue(const OwnMemory& memory) const noexcept;

   private:
    const Table* table_;
  };

 private:
  static void publish(Table* made) noexcept;

  static std::atomic<Table*> current_;
  /// Views that exist. A table that was replaced is freed once there were none after that.
  static std::atomic<std::uint32_t> views_;
  static Table* retired_;
};

}  // namespace core

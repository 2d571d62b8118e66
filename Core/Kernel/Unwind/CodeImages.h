#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "Core/Kernel/OwnMemory.h"
#include "Core/Kernel/Unwind/CallFrameTable.h"
#include "Core/Kernel/Unwind/StepTable.h"
#include "Core/Memory/Array.h"
#include "Core/Memory/Shared.h"
#include "Core/Memory/Viewed.h"

namespace core {

/// What a walk needs to know of one program file in memory.
struct CodeImage {
  static constexpr std::size_t kMarkSize = 32;

  std::uint64_t base = 0;
  std::uint64_t codeStart = 0;  ///< of the first executable segment
  std::uint64_t codeEnd = 0;    ///< of the last
  CallFrameTable table;
  /// Worked out of that by CodeImages::refresh(); nothing before. Where they do not tell, the table does.
  std::optional<Shared<StepTable>> steps;
  /// Bytes that another image in the same place would not have (build id or file header).
  std::uint64_t markPlace = 0;
  std::array<std::uint8_t, kMarkSize> mark{};

  bool covers(std::uint64_t address) const noexcept { return address - codeStart < codeEnd - codeStart; }
};

/// The images of the process with their call-frame tables and the steps worked out of those,
/// published for walks: whoever walks takes no lock and sees one state for as long as it looks.
///
/// The table is refreshed in normal running, and before the walks of a crash or a dump where
/// it is found to be out of date; two things tell that cheaply: an image that is not the one
/// it was, and code that a walk met outside every image.
class CodeImages {
  struct Table;

 public:
  /// Reads the memory map anew. Images that stayed keep what was made for them. Normal running,
  /// or the owner of a crash (which goes without when another thread is just at it).
  static void reload() noexcept;

  /// reload() where the table is out of date; a few system calls where it is not. To be
  /// called where reload() may be, before any thread is suspended.
  static void refreshIfChanged() noexcept;

  /// reload(), and works out the steps of the images that are new: a millisecond for each one or
  /// two megabytes of code. For a background thread in normal running.
  static void refresh() noexcept;

  /// Tells that readable code lies outside every image. Fit for the crash path.
  static void noteUnknownCode() noexcept;

  /// One state of the table, which stays while the object lives. Fit for the crash path.
  class View {
   public:
    View() noexcept;

    /// Looks at the newest state from now on.
    void renew() noexcept;
    /// The image whose code lies around `address`, nullptr for none.
    const CodeImage* covering(std::uint64_t address) const noexcept;
    /// Another number for every other set of images, 0 before the first.
    std::uint64_t generation() const noexcept;
    /// True when every image is still in its place.
    bool isTrue(const OwnMemory& memory) const noexcept;

   private:
    Viewed<Table>::View table_;
  };

 private:
  static void workOutSteps() noexcept;

  static Viewed<Table> tables_;
};

}  // namespace core

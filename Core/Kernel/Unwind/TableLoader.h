#pragma once

#include "Core/Kernel/ImageHeaders.h"
#include "Core/Kernel/Unwind/CallFrameTable.h"
#include "Core/Memory/String.h"

namespace core {

/// Finds the call-frame information of images and makes it ready for walks.
///
/// In normal running the tables are copied, for as long as `room` lasts, since copies are read
/// without system calls and stay when an image goes (walks need them until the steps of the image
/// are worked out), and an image without a sorted index (a plainly static program) gets one. On the owner of a crash
/// neither is done: its walks read the image's own tables, checked.
class TableLoader {
 public:
  explicit TableLoader(std::size_t room) noexcept : room_(room) {}
  TableLoader(const TableLoader&) = delete;
  TableLoader& operator=(const TableLoader&) = delete;
  ~TableLoader() { core::deallocate(block_); }

  /// Empty where the image has no such information.
  CallFrameTable load(const ImageHeaders& headers, const String& path) noexcept;

 private:
  template <class Visit>
  std::uint64_t visitEntries(const TableStretch& entries, Visit&& visit) noexcept;
  void makeIndex(CallFrameTable& table) noexcept;
  void copy(TableStretch& stretch) noexcept;

  OwnMemory memory_;
  std::size_t room_;
  std::uint8_t* block_ = nullptr;  // for reading entries that are not copied yet
};

}  // namespace core

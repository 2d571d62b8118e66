#include "Core/Kernel/Unwind/FrameWalk.h"

#include <ucontext.h>

#include <algorithm>
#include <array>
#include <optional>

#include "Core/Kernel/Unwind/CallFrame.h"
#include "Core/Kernel/Unwind/CallFrameProgram.h"
#include "Core/Kernel/Unwind/CodeBytes.h"
#include "Core/Kernel/Unwind/CodeImages.h"

namespace core {
namespace {

constexpr std::uint64_t kWord = sizeof(std::uint64_t);

class Walker {
 public:
  Walker(const Registers& start, const WalkContext& context) noexcept
      : mayRefreshImages_(context.mayRefreshImages), window_(context.memory, context.block), frame_(start, window_) {}
  Walker(const Registers& start, const StackCopy& copy, const OwnMemory& memory) noexcept
      : mayRefreshImages_(false), window_(memory, copy), frame_(start, window_) {}

  bool hadAll() const noexcept { return !window_.isShort(); }

  std::size_t run(std::span<std::uint64_t, kMostFrames> frames) noexcept {
    std::size_t count = 0;
    if (frame_.address() != 0) {
      frames[count++] = frame_.address();
    }
    while (count < frames.size() && step()) {
      frames[count++] = frame_.address();
      isFirst_ = false;
    }
    return hadNothingToGoBy_ ? 0 : count;
  }

 private:
  bool step() noexcept {
    const std::uint64_t address = frame_.executing();
    if (image_ == nullptr || !image_->covers(address)) {
      image_ = imageCovering(address);
    }
    if (image_ == nullptr) {
      return isAtSignalReturn() ? stepOverSignal() : stepOutside();
    }
    const StepRule rule = image_->steps ? (*image_->steps)->find(address) : StepRule();
    if (rule.kind() == StepRule::kCommon) [[likely]] {
      return frame_.follow(rule);
    }
    return rule.kind() == StepRule::kNothing && stepByTable(*image_, address);
  }

  [[gnu::noinline]] bool stepByTable(const CodeImage& image, std::uint64_t address) noexcept {
    CallFrameEntry entry;
    const std::uint64_t place = image.table.find(memory(), address);
    const bool isCovered = place != 0 && entry.read(image.table, memory(), place, common_) && entry.covers(address);
    // A trampoline without an entry may stand right behind a function that has one.
    if ((!isCovered || !entry.covers(frame_.address())) && isAtSignalReturn()) {
      return stepOverSignal();
    }
    CallFrameRow row;
    if (!isCovered || !computeRow(image.table, common_, entry, memory(), address, row)) {
      return stepWithoutEntry();
    }
    const std::optional<StepRule> rule = common_.isSignalFrame ? std::nullopt : StepRule::of(row);
    if (!rule) {
      return frame_.follow(row, common_.isSignalFrame, image.table);
    }
    return rule->kind() == StepRule::kCommon && frame_.follow(*rule);
  }

  const CodeImage* imageCovering(std::uint64_t address) noexcept {
    const CodeImage* image = images_.covering(address);
    std::uint8_t code = 0;
    if (image != nullptr || hasRefreshed_ || !memory().read(address, &code, sizeof code)) {
      return image;
    }
    if (!mayRefreshImages_) {
      CodeImages::noteUnknownCode();
      return nullptr;
    }
    hasRefreshed_ = true;
    CodeImages::reload();
    images_.renew();
    common_ = {};
    return images_.covering(address);
  }

  /// In an image, but nothing is known of the function: one that has just been called, or one
  /// that keeps a frame pointer. No call leads back to where a stack made by hand begins.
  bool stepWithoutEntry() noexcept {
    std::uint64_t pointer = 0;
    std::uint64_t saved = 0;
    std::uint64_t caller = 0;
    if (!frame_.isContext() && !followsCall(memory(), frame_.address())) {
      return false;
    }
    if (frame_.word(frame_.stackPointer(), caller) && followsCall(memory(), caller)) {
      return frame_.followTo(caller, frame_.stackPointer() + kWord);
    }
    if (frame_.framePointer(pointer) && takePair(pointer, saved, caller) && followsCall(memory(), caller)) {
      return frame_.followTo(caller, pointer + 2 * kWord, saved);
    }
    return nothingToGoBy(pointer);
  }

  /// Outside every image: a call through a wild pointer, code made at run time.
  bool stepOutside() noexcept {
    std::uint64_t pointer = 0;
    std::uint64_t saved = 0;
    std::uint64_t caller = 0;
    if (frame_.isContext() && frame_.word(frame_.stackPointer(), caller) && followsCall(memory(), caller)) {
      return frame_.followTo(caller, frame_.stackPointer() + kWord);
    }
    if (frame_.framePointer(pointer) && takePair(pointer, saved, caller)) {
      return frame_.followTo(caller, pointer + 2 * kWord, saved);
    }
    return nothingToGoBy(pointer);
  }

  /// What code with frame pointers keeps at `pointer`.
  bool takePair(std::uint64_t pointer, std::uint64_t& saved, std::uint64_t& caller) noexcept {
    return pointer != 0 && frame_.word(pointer, saved) && frame_.word(pointer + kWord, caller);
  }

  bool nothingToGoBy(std::uint64_t framePointer) noexcept {
    hadNothingToGoBy_ = isFirst_ && framePointer == 0;
    return false;
  }

  bool isAtSignalReturn() noexcept { return isSignalReturn(memory(), frame_.address()); }

  /// The stack pointer stands at what the kernel put there for the return.
  bool stepOverSignal() noexcept {
    mcontext_t interrupted;
    std::uint64_t place = frame_.stackPointer() + offsetof(ucontext_t, uc_mcontext.gregs);
    for (greg_t& value : interrupted.gregs) {
      std::uint64_t word = 0;
      if (!frame_.word(place, word)) {
        return false;
      }
      value = static_cast<greg_t>(word);
      place += kWord;
    }
    frame_.enter(registersOf(interrupted));
    return frame_.address() != 0;
  }

  const OwnMemory& memory() const noexcept { return window_.memory(); }

  const bool mayRefreshImages_;
  CodeImages::View images_;
  StackWindow window_;
  CallFrame frame_;
  const CodeImage* image_ = nullptr;  // the one that was met last
  CallFrameCommon common_;            // the one that was met last: nearly every function of an image has the same
  bool isFirst_ = true;
  bool hasRefreshed_ = false;
  bool hadNothingToGoBy_ = false;
};

}  // namespace

std::size_t walk(const Registers& start, std::span<std::uint64_t, kMostFrames> frames,
                 const WalkContext& context) noexcept {
  return Walker(start, context).run(frames);
}

std::optional<std::size_t> walk(const Registers& start, std::span<std::uint64_t, kMostFrames> frames,
                                const StackCopy& copy, const OwnMemory& memory) noexcept {
  std::array<std::uint64_t, kMostFrames> found;
  Walker walker(start, copy, memory);
  const std::size_t count = walker.run(found);
  if (!walker.hadAll()) {
    return std::nullopt;
  }
  std::copy_n(found.begin(), count, frames.begin());
  return count;
}

}  // namespace core

#include "Core/Memory/Allocator.h"

#include <new>

#include "Core/Memory/CrashHeap.h"
#include "Core/Memory/CrashOwner.h"

namespace core {

void* allocate(std::size_t bytes) noexcept {
  if (CrashOwner::isCurrentThread()) [[unlikely]] {
    return CrashHeap::take(bytes);
  }
  return ::operator new(bytes);
}

void deallocate(void* memory) noexcept {
  if (memory == nullptr || CrashHeap::contains(memory) || CrashOwner::isCurrentThread()) {
    return;
  }
  ::operator delete(memory);
}

}  // namespace core

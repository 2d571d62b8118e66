#include "Tests/Support/HeapCount.h"

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* memory);
}

namespace {

[[gnu::tls_model("initial-exec")]] thread_local bool shown = false;

void show(const char* call) noexcept {
  if (shown) {
    const int error = errno;
    char line[64] = "heap call: ";
    std::strncat(line, call, sizeof line - std::strlen(line) - 2);
    std::strcat(line, "\n");
    if (::write(STDERR_FILENO, line, std::strlen(line)) < 0) {
      shown = false;
    }
    errno = error;
  }
}

}  // namespace

namespace test {

void showHeapCalls() noexcept {
  shown = true;
}

}  // namespace test

// A function of the heap that shows its call and then does what `call` does.
#define KIV_HEAP_CALL(type, name, parameters, call)                        \
  extern "C" __attribute__((visibility("default"))) type name parameters { \
    show(#name);                                                           \
    return call;                                                           \
  }

KIV_HEAP_CALL(void*, malloc, (std::size_t size), __libc_malloc(size))
KIV_HEAP_CALL(void*, calloc, (std::size_t count, std::size_t size), __libc_calloc(count, size))
KIV_HEAP_CALL(void*, realloc, (void* memory, std::size_t size), __libc_realloc(memory, size))
KIV_HEAP_CALL(void*, memalign, (std::size_t alignment, std::size_t size), __libc_memalign(alignment, size))
KIV_HEAP_CALL(void*, aligned_alloc, (std::size_t alignment, std::size_t size), __libc_memalign(alignment, size))
KIV_HEAP_CALL(int, posix_memalign, (void** memory, std::size_t alignment, std::size_t size),
              (*memory = __libc_memalign(alignment, size)) != nullptr ? 0 : ENOMEM)
KIV_HEAP_CALL(void, free, (void* memory), __libc_free(memory))

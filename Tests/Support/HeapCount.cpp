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

#define KIV_INTERPOSED extern "C" __attribute__((visibility("default")))

KIV_INTERPOSED void* malloc(std::size_t size) {
  show("malloc");
  return __libc_malloc(size);
}

KIV_INTERPOSED void* calloc(std::size_t count, std::size_t size) {
  show("calloc");
  return __libc_calloc(count, size);
}

KIV_INTERPOSED void* realloc(void* memory, std::size_t size) {
  show("realloc");
  return __libc_realloc(memory, size);
}

KIV_INTERPOSED void* memalign(std::size_t alignment, std::size_t size) {
  show("memalign");
  return __libc_memalign(alignment, size);
}

KIV_INTERPOSED void* aligned_alloc(std::size_t alignment, std::size_t size) {
  show("aligned_alloc");
  return __libc_memalign(alignment, size);
}

KIV_INTERPOSED int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
  show("posix_memalign");
  *memory = __libc_memalign(alignment, size);
  return *memory != nullptr ? 0 : ENOMEM;
}

KIV_INTERPOSED void free(void* memory) {
  show("free");
  __libc_free(memory);
}

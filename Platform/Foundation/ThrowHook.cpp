#include <dlfcn.h>

#include <cstdlib>
#include <typeinfo>

#include "Platform/Foundation/ThrowPlace.h"

// The hook on throwing, for programs that want reports of uncaught exceptions to show where an
// exception came from even when it had to pass a noexcept function: link this object. Not in a
// wholly static program, where no symbol can stand before the C++ library's.

extern "C" [[noreturn, gnu::visibility("default")]] void __cxa_throw(void* exception, std::type_info* type,
                                                                     void (*destructor)(void*)) {
  using Throw = void (*)(void*, std::type_info*, void (*)(void*));
  static const auto next = reinterpret_cast<Throw>(dlsym(RTLD_NEXT, "__cxa_throw"));
  kiv_note_throw(exception);
  next(exception, type, destructor);
  std::abort();
}

#include "Platform/Foundation/CallStack.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <stdlib.h>
#include <unwind.h>

#include <algorithm>
#include <array>
#include <memory>

#include "Core/Files/Directory.h"
#include "Core/Text/Format.h"

namespace platform {
namespace {

constexpr std::size_t kMostFrames = 256;

struct Walk {
  std::array<std::uintptr_t, kMostFrames> addresses;
  std::size_t count = 0;
};

_Unwind_Reason_Code takeFrame(_Unwind_Context* context, void* argument) {
  Walk& walk = *static_cast<Walk*>(argument);
  const std::uintptr_t address = _Unwind_GetIP(context);
  if (address == 0 || walk.count == walk.addresses.size()) {
    return _URC_END_OF_STACK;
  }
  walk.addresses[walk.count++] = address;
  return _URC_NO_REASON;
}

core::String lineOf(std::size_t index, std::uintptr_t address) {
  Dl_info facts{};
  // A call that never returns may be the last instruction of its function.
  if (::dladdr(reinterpret_cast<const void*>(address - 1), &facts) == 0 || facts.dli_fname == nullptr) {
    return core::kiv_format("%-2d %-30s %#018llx", index, " ", address);
  }
  const std::string_view module = core::lastPathComponent(facts.dli_fname);
  if (facts.dli_sname == nullptr) {
    const auto base = reinterpret_cast<std::uintptr_t>(facts.dli_fbase);
    return core::kiv_format("%-2d %-30s %#018llx %#018llx + %lu", index, module, address, base, address - base);
  }
  return core::kiv_format("%-2d %-30s %#018llx %s + %lu", index, module, address, demangledName(facts.dli_sname),
                          address - reinterpret_cast<std::uintptr_t>(facts.dli_saddr));
}

}  // namespace

std::vector<std::uintptr_t> captureReturnAddresses(const void* first) {
  Walk walk;
  _Unwind_Backtrace(takeFrame, &walk);
  const auto end = walk.addresses.begin() + static_cast<std::ptrdiff_t>(walk.count);
  const auto found = std::find(walk.addresses.begin(), end, reinterpret_cast<std::uintptr_t>(first));
  return {found == end ? walk.addresses.begin() : found, end};
}

std::vector<std::string> callStackLines(const std::vector<std::uintptr_t>& addresses) {
  std::vector<std::string> lines;
  lines.reserve(addresses.size());
  for (const std::uintptr_t address : addresses) {
    lines.push_back(lineOf(lines.size(), address).str());
  }
  return lines;
}

std::vector<std::string> callStackSymbols() {
  return callStackLines(captureReturnAddresses(__builtin_return_address(0)));
}

std::string demangledName(const char* name) {
  int status = 0;
  const std::unique_ptr<char, decltype(&::free)> readable(abi::__cxa_demangle(name, nullptr, nullptr, &status),
                                                          &::free);
  return readable != nullptr && status == 0 ? readable.get() : name;
}

}  // namespace platform

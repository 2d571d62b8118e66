#include "Kiv/crashhandler/bughandler/KivSymbolicate.h"

#include <algorithm>
#include <cstring>

#include "Core/Kernel/Symbols/SymbolTables.h"
#include "Core/Text/Format.h"

std::size_t kiv_symbolicate(std::uint64_t address, std::span<char, kKivSymbolBuffer> buffer) noexcept {
  const core::SymbolTables::View symbols;
  return kiv_symbolicate(symbols.lookup(address), buffer);
}

std::size_t kiv_symbolicate(const std::optional<core::Symbol>& symbol,
                            std::span<char, kKivSymbolBuffer> buffer) noexcept {
  std::memset(buffer.data(), 0, buffer.size());
  if (!symbol || symbol->name.empty()) {
    return 0;
  }
  const core::String text = core::kiv_format("%s + %d", symbol->name, symbol->distance);
  const std::size_t size = std::min(text.size(), buffer.size() - 1);
  std::memcpy(buffer.data(), text.data(), size);
  return size;
}

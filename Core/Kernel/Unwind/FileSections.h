#pragma once

#include <string_view>

#include "Core/Kernel/ImageHeaders.h"
#include "Core/Memory/String.h"

namespace core {

/// Where the section `name` of a loaded image lies in memory, found through the section headers
/// of its file, for what no program header tells. Empty where the file has no such section, or
/// is another one by now. Normal running only.
AddressRange sectionInFile(const ImageHeaders& headers, const String& path, std::string_view name) noexcept;

}  // namespace core

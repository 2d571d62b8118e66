#pragma once

#include "Core/Memory/Array.h"
#include "Core/Memory/Result.h"
#include "Core/Memory/String.h"

namespace core {

/// Makes `path` with all missing parents. 0 when it is there afterwards, else errno
/// (ENOTDIR when something else stands there).
int createDirectories(const String& path, unsigned mode = 0700) noexcept;

/// Names in a directory without "." and "..", sorted by bytes.
Result<Array<String>, int> listDirectory(const String& path) noexcept;

/// `directory` and `name` with one slash between.
String joinPath(std::string_view directory, std::string_view name) noexcept;
std::string_view lastPathComponent(std::string_view path) noexcept;
std::string_view parentPath(std::string_view path) noexcept;

}  // namespace core

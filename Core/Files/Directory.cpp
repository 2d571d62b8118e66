#include "Core/Files/Directory.h"

#include <fcntl.h>
#include <sys/syscall.h>

#include <algorithm>

#include "Core/Files/File.h"
#include "Core/Kernel/DirectoryEntries.h"
#include "Core/Kernel/SystemCall.h"

namespace core {
namespace {

int makeDirectory(std::string_view path, unsigned mode) noexcept {
  return errorOf(restartedSystemCall(SYS_mkdirat, AT_FDCWD, String(path).c_str(), mode));
}

/// The error of the first parent of `path` that could not be made, else 0.
int makeParents(std::string_view path, unsigned mode) noexcept {
  int first = 0;
  for (std::size_t slash = path.find('/', 1); slash != std::string_view::npos; slash = path.find('/', slash + 1)) {
    const int error = makeDirectory(path.substr(0, slash), mode);
    if (first == 0 && error != EEXIST) {
      first = error;
    }
  }
  return first;
}

bool isDirectory(const String& path) noexcept {
  const auto facts = fileFacts(path);
  return facts && facts->isDirectory;
}

std::string_view withoutTrailingSlashes(std::string_view path) noexcept {
  while (path.size() > 1 && path.back() == '/') {
    path.remove_suffix(1);
  }
  return path;
}

}  // namespace

int createDirectories(const String& path, unsigned mode) noexcept {
  // Mostly it is there, and to look costs less than to try.
  if (isDirectory(path)) {
    return 0;
  }
  int error = makeDirectory(path, mode);
  if (error == ENOENT) {
    const int parentError = makeParents(path, mode);
    error = makeDirectory(path, mode);
    error = error == ENOENT && parentError != 0 ? parentError : error;
  }
  if (error == 0 || isDirectory(path)) {
    return 0;
  }
  return error == EEXIST ? ENOTDIR : error;
}

Result<Array<String>, int> listDirectory(const String& path) noexcept {
  const auto directory = File::open(path, O_RDONLY | O_DIRECTORY);
  if (!directory) {
    return directory.error();
  }
  Array<String> names;
  const long result = visitDirectory(directory->descriptor(), [&names](std::string_view name) {
    if (name != "." && name != "..") {
      names.append(name);
    }
  });
  if (result < 0) {
    return errorOf(result);
  }
  std::sort(names.begin(), names.end());
  return names;
}

String joinPath(std::string_view directory, std::string_view name) noexcept {
  while (!name.empty() && name.front() == '/') {
    name.remove_prefix(1);
  }
  directory = withoutTrailingSlashes(directory);
  StringBuilder path(directory.size() + name.size() + 1);
  path.append(directory);
  if (!directory.empty() && directory != "/" && !name.empty()) {
    path.append('/');
  }
  path.append(name);
  return path.str();
}

std::string_view lastPathComponent(std::string_view path) noexcept {
  path = withoutTrailingSlashes(path);
  if (const std::size_t slash = path.rfind('/'); slash != std::string_view::npos && path != "/") {
    path.remove_prefix(slash + 1);
  }
  return path;
}

std::string_view parentPath(std::string_view path) noexcept {
  path = withoutTrailingSlashes(path);
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : withoutTrailingSlashes(path.substr(0, slash + 1));
}

}  // namespace core

#include "Platform/Foundation/UserDirectories.h"

#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Platform/Logging/NSLog.h"

namespace platform {
namespace {

struct UserDirectory {
  const char* variable;
  std::string_view standard;  // below the home directory
  std::atomic<bool> reported{false};
};

UserDirectory applicationSupport{"XDG_DATA_HOME", ".local/share"};
UserDirectory configuration{"XDG_CONFIG_HOME", ".config"};
UserDirectory state{"XDG_STATE_HOME", ".local/state"};

core::String pathOf(UserDirectory& directory) noexcept {
  const char* named = ::getenv(directory.variable);
  if (named != nullptr && *named == '/') {
    return named;
  }
  core::String path = core::joinPath(homeDirectory(), directory.standard);
  if (named != nullptr && !directory.reported.exchange(true)) {
    NSLog("%s is \"%s\", which is not an absolute path; %@ is used", directory.variable, named, path);
  }
  return path;
}

core::String homeOfPasswordDatabase() noexcept {
  constexpr std::size_t kLargestEntry = std::size_t{1} << 20;
  passwd entry{};
  passwd* found = nullptr;
  std::string buffer(1024, '\0');
  while (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) == ERANGE &&
         buffer.size() < kLargestEntry) {
    buffer.resize(buffer.size() * 2);
  }
  return found != nullptr && found->pw_dir != nullptr && *found->pw_dir == '/' ? found->pw_dir : "/";
}

}  // namespace

core::String homeDirectory() noexcept {
  const char* home = ::getenv("HOME");
  return home != nullptr && *home == '/' ? core::String(home) : homeOfPasswordDatabase();
}

core::String applicationSupportDirectory() noexcept {
  return pathOf(applicationSupport);
}

core::String configurationDirectory() noexcept {
  return pathOf(configuration);
}

core::String stateDirectory() noexcept {
  return pathOf(state);
}

core::String documentsDirectory() noexcept {
  const core::String home = homeDirectory();
  const core::String documents = core::joinPath(home, "Documents");
  return core::fileExists(documents) ? documents : home;
}

}  // namespace platform

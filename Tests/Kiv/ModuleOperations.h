#pragma once

#include <functional>
#include <map>
#include <string>

namespace test {

using Operations = std::map<std::string, std::function<void(const std::string&)>>;

/// What the probe can do with the crash module. After "held" the module works on the calling thread:
/// at once, but for what is to be done after a while, which waits for "later"; after "held-background"
/// all of what other threads would do waits.
const Operations& moduleOperations();

}  // namespace test

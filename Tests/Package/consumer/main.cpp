#include <CrashReporter.h>
#include <NSError.h>
#include <NSException.h>

#include <cstdio>

// What a stranger's program does first, and what only links when the library is whole: an
// exception type shared with it and a handler that it calls.
int main() {
  CrashReporter& reporter = CrashReporter::sharedInstance();
  std::printf("version %s\n", reporter.sdkVersion().c_str());
  std::printf("blank key %d\n", reporter.installWithAppkey("  "));
  std::printf("key %d\n", reporter.installWithAppkey("com.example.consumer"));
  std::printf("again %d\n", reporter.installWithAppkey("com.example.consumer"));
  reporter.uninstall();
  try {
    throw NSException("Name", "reason");
  } catch (const std::exception& exception) {
    std::printf("caught %s\n", exception.what());
  }
  NSSetUncaughtExceptionHandler([](const NSException&) {});
  std::printf("handler %d\n", NSGetUncaughtExceptionHandler() != nullptr);
}

#include <CrashReporter.h>

#include <cstdio>

int main(int argc, char**) {
  CrashReporter& reporter = CrashReporter::sharedInstance();
  reporter.setBundleVer("1.4.2");
  if (!reporter.installWithAppkey("com.example.editor")) {
    std::puts("Crashes of this run are not recorded: a debugger is attached.");
  }
  if (reporter.isLastCloseByCrash()) {
    std::puts("The run before crashed.");
  }
  if (argc > 1) {
    reporter.testSignalError();  // crash on purpose
  }
}

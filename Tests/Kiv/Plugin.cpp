// A library that a program opens at run time and that brings the crash reporter with it.

#include "CrashReporter.h"

extern "C" __attribute__((visibility("default"))) bool installReporter() {
  return CrashReporter::sharedInstance().installWithAppkey("plugin");
}

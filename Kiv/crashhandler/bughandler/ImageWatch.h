#pragma once

/// Keeps ready in the background what a crash must find made: alternate stacks for the threads
/// that were there before the library, and the tables of images, call frames and symbols, which it
/// makes anew when the program has opened or closed libraries. KivCrashHandler starts and stops it.
class ImageWatch {
 public:
  /// Seconds between two looks at the loader's counts, which take a microsecond.
  static constexpr double kInterval = 5.0;

  static void start() noexcept;
  static void stop() noexcept;
};

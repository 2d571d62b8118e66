#pragma once

#include <string_view>

/// Names that parts of the library meet by which do not know each other.

/// Posted on the main queue after each event of the application's life; goes with the event's number.
inline constexpr std::string_view KivApplicationLifecycleChangedNotification =
    "KivApplicationLifecycleChangedNotification";

/// Posted by a crash, first of all, on its thread.
inline constexpr std::string_view KivAppDidCrashedNotification = "com.velmora.kiv.appDidCrashedKey";

/// The user default that a crash sets, and that the next run clears once it has drawn its conclusions.
inline constexpr std::string_view KivDidCrashLastSession = "KivDidCrashLastSession";

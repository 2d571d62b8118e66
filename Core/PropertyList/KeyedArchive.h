#pragma once

#include <cstdint>
#include <string_view>

/// The layout that writer and reader of keyed archives share: a binary property list
///
///     {"$archiver": "NSKeyedArchiver", "$version": 100000, "$top": {"root": UID}, "$objects": [...]}
///
/// whose objects refer to each other by UID, their position in "$objects"; UID 0 is "$null" and
/// means nil. Texts, numbers, booleans and data stand there as they are. An object is a
/// dictionary of its properties and "$class", the UID of {"$classname": name, "$classes": [name,
/// superclasses]}; an array has "NS.objects", a dictionary also "NS.keys".
namespace core::archive {

inline constexpr std::string_view kArchiver = "NSKeyedArchiver";
inline constexpr std::int64_t kVersion = 100000;
inline constexpr std::string_view kNull = "$null";
inline constexpr std::uint32_t kNil = 0;

/// Levels of objects, arrays and dictionaries that are written or read at most: both go down
/// by recursion, and records have five.
inline constexpr int kDepth = 64;

}  // namespace core::archive

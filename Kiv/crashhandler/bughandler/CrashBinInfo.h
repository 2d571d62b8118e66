#pragma once

#include "Core/Memory/String.h"

/// One image that occurs in a stack of the report. A plain value.
struct CrashBinInfo {
  core::String processName;  ///< the last part of its path
  core::String processUUID;
  core::String processArch;
  core::String processAddr;  ///< load address, "0x" and 16 digits
};

#pragma once

#include <ostream>
#include <string_view>

/// Prints a crash's log, control characters written out. In colours: the exception and the thread
/// that crashed stand out, and in every stack the frames of the module `own`.
void printLog(std::ostream& out, std::string_view log, std::string_view own, bool colored);

#include "Tools/kiv/LogPrinter.h"

#include "Tools/kiv/StackLine.h"
#include "Tools/kiv/Terminal.h"

namespace {

/// Whose frames come next.
enum class Stack { kCrashed, kOther };

struct Heading {
  std::string_view prefix;
  Stack stack;
  std::string_view style;
};

/// The first prefix that fits counts.
constexpr Heading kHeadings[] = {
    {"Exception Type:", Stack::kOther, style::kBrightRed},   {"Exception Codes:", Stack::kOther, style::kBrightRed},
    {"Crashed Thread", Stack::kCrashed, style::kBrightRed},  {"Last Exception", Stack::kCrashed, style::kBrightRed},
    {"Maybe SDK Crash:", Stack::kOther, style::kBrightCyan}, {"Binary Images:", Stack::kOther, style::kBrightCyan},
};

constexpr std::string_view kThread = "Thread ";
constexpr std::string_view kCrashed = " Crashed:";

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

/// "Thread 0 Crashed:", "Thread 3 Name: worker" and the like.
bool isThreadHeading(std::string_view line) {
  return line.starts_with(kThread) && line.size() > kThread.size() && isDigit(line[kThread.size()]);
}

class LogPainter {
 public:
  explicit LogPainter(std::string_view own) : own_(own) {}

  std::string_view styleOf(std::string_view line) {
    if (const auto frame = StackLine::parse(line)) {
      return styleOf(*frame);
    }
    if (isThreadHeading(line)) {
      stack_ = line.find(kCrashed) != std::string_view::npos ? Stack::kCrashed : Stack::kOther;
      return stack_ == Stack::kCrashed ? style::kBrightRed : style::kBrightCyan;
    }
    for (const Heading& heading : kHeadings) {
      if (line.starts_with(heading.prefix)) {
        stack_ = heading.stack;
        return heading.style;
      }
    }
    return style::kPlain;
  }

 private:
  std::string_view styleOf(const StackLine& frame) const {
    const bool isOwn = !own_.empty() && frame.module == own_;
    if (stack_ == Stack::kCrashed) {
      return isOwn ? style::kBrightYellow : style::kYellow;
    }
    return isOwn ? style::kBold : style::kPlain;
  }

  std::string_view own_;
  Stack stack_ = Stack::kOther;
};

}  // namespace

void printLog(std::ostream& out, std::string_view log, std::string_view own, bool colored) {
  LogPainter painter(own);
  while (!log.empty()) {
    const std::size_t end = std::min(log.find('\n'), log.size());
    const std::string_view line = log.substr(0, end);
    out << styled(harmless(line, Place::kBlock), colored ? painter.styleOf(line) : style::kPlain) << "\n";
    log.remove_prefix(std::min(end + 1, log.size()));
  }
}

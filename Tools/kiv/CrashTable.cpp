#include "Tools/kiv/CrashTable.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <set>

#include "Kiv/common/utils/KivDeviceUtil.h"
#include "Tools/kiv/StackLine.h"
#include "Tools/kiv/Terminal.h"

namespace {

constexpr std::size_t kLeastIdSize = 8;
constexpr std::size_t kWideTable = 80;  // room for whole times
constexpr std::size_t kGap = 2;
constexpr std::int64_t kMillisecondsASecond = 1000;

struct Column {
  std::string_view heading;
  std::size_t least;  ///< what it may be cut to; 0 for never
  bool isNumber;
};

constexpr Column kColumns[] = {{"ID", 0, false},  {"LAST SEEN", 0, false}, {"KIND", 0, false},
                               {"SEEN", 0, true}, {"TYPE", 7, false},      {"FIRST OWN FRAME", 8, false}};
constexpr std::size_t kCount = std::size(kColumns);

using Row = std::array<std::string, kCount>;
using Widths = std::array<std::size_t, kCount>;

/// The least number of characters, kLeastIdSize or more, that tells all identifiers apart.
std::size_t idSize(const std::vector<StoredCrash>& crashes) {
  std::set<std::string_view> whole;
  std::size_t longest = 0;
  for (const StoredCrash& crash : crashes) {
    whole.insert(crash.id());
    longest = std::max(longest, crash.id().size());
  }
  for (std::size_t size = kLeastIdSize; size < longest; ++size) {
    std::set<std::string_view> cut;
    std::for_each(whole.begin(), whole.end(), [&](std::string_view id) { cut.insert(id.substr(0, size)); });
    if (cut.size() == whole.size()) {
      return size;
    }
  }
  return longest;
}

/// "2018-03-05 14:03:09", in a narrow table "03-05 14:03".
std::string timeText(std::int64_t milliseconds, bool narrow) {
  if (milliseconds == 0) {
    return "-";
  }
  const std::string text = KivDeviceUtil::getFullTimeStrBy(milliseconds / kMillisecondsASecond).str();
  return narrow ? text.substr(5, 11) : text;
}

std::string frameText(const StoredCrash& crash) {
  if (crash.isDamaged()) {
    return crash.file + " " + crash.damage;
  }
  const auto frame = StackLine::parse(crash.frame);
  if (!frame) {
    return crash.frame;
  }
  const bool isForeign = frame->module != crash.ownModule && !frame->symbol.starts_with("0x");
  return frame->brief() + (isForeign ? " (" + std::string(frame->module) + ")" : "");
}

Row rowOf(const StoredCrash& crash, std::size_t idSize, bool narrow) {
  const bool isMarked = !crash.isIndexed && !crash.isStall;
  Row row = {crash.id().substr(0, idSize),
             timeText(crash.lastTime, narrow),
             crash.kind + (isMarked ? "*" : ""),
             crash.isDamaged() ? "" : std::to_string(crash.seen),
             crash.type,
             frameText(crash)};
  for (std::string& cell : row) {
    cell = harmless(cell, Place::kLine);
  }
  return row;
}

/// The columns' widths, those that may be cut made narrower, the widest first, until all fit.
Widths fittingWidths(const std::vector<Row>& rows, std::optional<std::size_t> columns) {
  Widths widths{};
  for (const Row& row : rows) {
    for (std::size_t i = 0; i < kCount; ++i) {
      widths[i] = std::max(widths[i], columnsOf(row[i]));
    }
  }
  const auto total = [&] { return std::accumulate(widths.begin(), widths.end(), kGap * (kCount - 1)); };
  while (columns && total() > *columns) {
    std::size_t widest = kCount;
    for (std::size_t i = 0; i < kCount; ++i) {
      const bool mayShrink = kColumns[i].least != 0 && widths[i] > kColumns[i].least;
      widest = mayShrink && (widest == kCount || widths[i] >= widths[widest]) ? i : widest;
    }
    if (widest == kCount) {
      break;
    }
    --widths[widest];
  }
  return widths;
}

std::string lineOf(const Row& row, const Widths& widths) {
  std::string line;
  for (std::size_t i = 0; i < kCount; ++i) {
    const std::string cell = cutTo(row[i], widths[i]);
    const std::string padding(widths[i] - columnsOf(cell), ' ');
    line += (i == 0 ? "" : std::string(kGap, ' ')) + (kColumns[i].isNumber ? padding + cell : cell + padding);
  }
  return line.substr(0, line.find_last_not_of(' ') + 1);
}

}  // namespace

void printCrashTable(std::ostream& out, const std::vector<StoredCrash>& crashes, const TableLook& look) {
  const bool narrow = look.columns && *look.columns < kWideTable;
  std::vector<Row> rows(1);
  std::transform(std::begin(kColumns), std::end(kColumns), rows[0].begin(),
                 [](const Column& column) { return std::string(column.heading); });
  const std::size_t size = idSize(crashes);
  std::transform(crashes.begin(), crashes.end(), std::back_inserter(rows),
                 [&](const StoredCrash& crash) { return rowOf(crash, size, narrow); });
  const Widths widths = fittingWidths(rows, look.columns);
  bool hasMarks = false;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const std::string line = lineOf(rows[i], widths);
    const auto style = i == 0 ? style::kBold : crashes[i - 1].isDamaged() ? style::kRed : style::kPlain;
    out << styled(look.columns ? cutTo(line, *look.columns) : line, look.colored ? style : style::kPlain) << "\n";
    hasMarks = hasMarks || (i != 0 && rows[i][2].ends_with('*'));
  }
  if (hasMarks) {
    out << "* not in the crash index\n";
  }
}

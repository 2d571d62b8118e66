#include "Tools/kiv/ShowCommand.h"

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <sstream>

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Tools/kiv/CrashDocument.h"
#include "Tools/kiv/CrashTable.h"
#include "Tools/kiv/JournalDocument.h"
#include "Tools/kiv/LogPrinter.h"
#include "Tools/kiv/StoredRecord.h"
#include "Tools/kiv/Terminal.h"
#include "Tools/kiv/TreePrinter.h"

namespace {

constexpr int kNotShown = 1;
constexpr int kUsageError = 2;
constexpr std::size_t kLeastIdSize = 4;
constexpr std::string_view kIdCharacters = "0123456789abcdefABCDEF-";

int complain(const std::string& sentence, int status = kNotShown) {
  std::cout.flush();
  std::cerr << "kiv: " << harmless(sentence, Place::kLine) << "\n";
  return status;
}

bool isDirectory(const std::string& path) {
  const auto facts = core::fileFacts(path);
  return facts && facts->isDirectory;
}

bool looksLikeId(std::string_view text) {
  return text.find_first_not_of(kIdCharacters) == std::string_view::npos;
}

int complainOfNoDirectory(const std::string& path) {
  const auto facts = core::fileFacts(path);
  return complain(path + " " + (facts ? "is no directory; kiv decode shows a file" : cannotBeRead(facts.error())));
}

int complainOfDamage(const std::string& directory, const StoredCrash& crash) {
  return complain(core::joinPath(directory, crash.file).str() + " " + crash.damage);
}

int complainOfSeveral(const std::string& id, const std::vector<FoundCrash>& found) {
  const int status = complain(id + " begins the IDs of several; say more of it:");
  for (const auto& [directory, crash] : found) {
    const std::string ids = crash.hash + (crash.hash.empty() ? "" : " or ") + crash.uid;
    const std::string path = core::joinPath(directory, crash.file).str();
    std::cerr << "  " << harmless(ids + "  " + crash.type + "  " + path, Place::kLine) << "\n";
  }
  return status;
}

/// Directories without any are passed over.
void printTables(const std::vector<DataDirectory>& directories, bool colored) {
  const TableLook look{outputColumns(), colored};
  const bool several = directories.size() > 1;
  bool isFirst = true;
  for (const auto& [path, crashes] : directories) {
    if (!crashes.empty()) {
      if (several) {
        const std::string name = harmless(core::lastPathComponent(path), Place::kLine);
        std::cout << (isFirst ? "" : "\n") << styled(name, colored ? style::kBold : style::kPlain) << "\n";
      }
      printCrashTable(std::cout, crashes, look);
      isFirst = false;
    }
  }
  if (isFirst) {
    const std::string place = directories.size() == 1 ? directories[0].path : dataRoot();
    std::cout << "No stored crashes in " << harmless(place, Place::kLine) << "\n";
  }
}

void printJson(const std::vector<DataDirectory>& directories) {
  Document list = Document::array();
  for (const auto& [path, crashes] : directories) {
    for (const StoredCrash& crash : crashes) {
      list.push_back(documentOf(path, crash));
    }
  }
  std::cout << jsonOf(list);
}

void printRecord(const std::string& directory, const StoredCrash& crash, const StoredRecord& record, bool colored) {
  if (const auto log = logOf(record.content)) {
    printLog(std::cout, *log, crash.ownModule, colored);
    return;
  }
  std::ostringstream facts;
  printTree(facts, documentOf(directory, crash, record));
  std::cout << "A record without a log; this is what it holds.\n\n" << harmless(facts.str(), Place::kBlock);
}

}  // namespace

ShowCommand::ShowCommand(CLI::App& app) {
  app_ = app.add_subcommand("show", "List the crashes and stalls that are stored, or show the log of one");
  app_->add_option("ID", id_, "Show this one: the beginning of its ID, at least 4 characters")->option_text(" ");
  app_->add_option("DIR", directory_, "The data directory to look in")->option_text(" ");
  app_->add_option("--color", color_, "When to use colours: auto (as it is without), always, never")
      ->check(CLI::IsMember({"auto", "always", "never"}))
      ->option_text("WHEN");
  app_->add_option("--journal", journal_, "Show what a process's journal holds, and the log that can be made of it")
      ->excludes("ID")
      ->option_text("FILE");
  app_->add_flag("--json", json_, "Print JSON instead of a table or a log");
  app_->footer(
      "Without DIR: all data directories of this user, $XDG_DATA_HOME/com.velmora.kiv/*/, or below\n"
      "~/.local/share. A single argument that is an existing directory is a DIR, not an ID.\n"
      "Colours are for terminals, unless $NO_COLOR is set; $COLUMNS outweighs a terminal's width.\n"
      "Nothing is ever changed, also while a program is running.\n"
      "Exit status: 0; 1 where something is damaged, unknown or cannot be read; 2 for a wrong command line.");
}

int ShowCommand::run() const {
  if (!journal_.empty()) {
    return showJournal();
  }
  const bool isAlone = directory_.empty();
  const bool isList = id_.empty() || (isAlone && isDirectory(id_));
  if (!isList && isAlone && !looksLikeId(id_)) {
    return complainOfNoDirectory(id_);
  }
  if (!isList && (id_.size() < kLeastIdSize || !looksLikeId(id_))) {
    return complain("ID: " + id_ + " is not the beginning of one, of at least 4 hexadecimal digits", kUsageError);
  }
  int status = 0;
  const std::vector<DataDirectory> directories = readDirectories(isList && isAlone ? id_ : directory_, status);
  if (status != 0 && directories.empty()) {
    return status;
  }
  const int shown = isList ? list(directories) : showOne(directories);
  std::cout.flush();
  return std::cout ? std::max(status, shown) : complain("standard output cannot be written");
}

int ShowCommand::showJournal() const {
  const auto bytes = core::readFile(core::String(journal_));
  if (!bytes) {
    return complain(journal_ + " " + cannotBeRead(bytes.error()));
  }
  try {
    const JournalContent journal = readJournal(bytes->span());
    if (json_) {
      Document whole = journal.facts;
      whole["log"] = journal.log;
      std::cout << jsonOf(whole);
      return 0;
    }
    std::ostringstream facts;
    printTree(facts, journal.facts);
    std::cout << harmless(facts.str(), Place::kBlock);
    if (!journal.log.empty()) {
      std::cout << "\nThe log that can be made of it:\n\n";
      printLog(std::cout, journal.log, journal.ownModule, isColored(color_));
    }
    return 0;
  } catch (const BrokenDocument& broken) {
    return complain(journal_ + " is " + broken.what());
  }
}

std::vector<DataDirectory> ShowCommand::readDirectories(const std::string& only, int& status) const {
  std::vector<std::string> paths = {only};
  if (only.empty()) {
    auto found = dataDirectories();
    if (!found && found.error() != ENOENT) {
      status = complain(dataRoot() + " " + cannotBeRead(found.error()));
    }
    paths = found ? std::move(*found) : std::vector<std::string>();
  }
  std::vector<DataDirectory> directories;
  for (const std::string& path : paths) {
    if (auto crashes = readStoredCrashes(path)) {
      directories.push_back({path, std::move(*crashes)});
    } else {
      status = complain(path + " " + cannotBeRead(crashes.error()));
    }
  }
  return directories;
}

int ShowCommand::list(const std::vector<DataDirectory>& directories) const {
  if (json_) {
    printJson(directories);
  } else {
    printTables(directories, isColored(color_));
  }
  int status = 0;
  for (const auto& [path, crashes] : directories) {
    for (const StoredCrash& crash : crashes) {
      status = crash.isDamaged() ? complainOfDamage(path, crash) : status;
    }
  }
  return status;
}

int ShowCommand::showOne(const std::vector<DataDirectory>& directories) const {
  const std::vector<FoundCrash> found = findCrashes(directories, id_);
  if (found.empty()) {
    return complain("no stored crash has an ID that begins with " + id_);
  }
  if (found.size() > 1) {
    return complainOfSeveral(id_, found);
  }
  const auto& [directory, crash] = found.front();
  if (crash.isDamaged()) {
    return complainOfDamage(directory, crash);
  }
  const std::string path = core::joinPath(directory, crash.file).str();
  const auto record = readStoredRecord(path);
  if (!record) {
    return complain(path + " " + record.error().text);
  }
  if (json_) {
    std::cout << jsonOf(documentOf(directory, crash, *record));
  } else {
    printRecord(directory, crash, *record, isColored(color_));
  }
  return 0;
}

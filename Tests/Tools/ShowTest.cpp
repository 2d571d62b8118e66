#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "Core/PropertyList/BinaryPropertyList.h"
#include "Kiv/common/model/KivExpObj.h"
#include "Kiv/crashhandler/persist/KivCrashMetaData.h"
#include "Tests/Support/Subprocess.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

using nlohmann::json;

constexpr std::int64_t kMarch = 1'520'258'589'000;  // 14:03:09 on 5 March 2018, UTC
constexpr std::int64_t kHour = 3'600'000;

constexpr const char* kFirst = "3f2a91c0aaaaaaaaaaaaaaaaaaaaaaaa";
constexpr const char* kSecond = "3f2a91c1bbbbbbbbbbbbbbbbbbbbbbbb";

constexpr std::string_view kStack =
    "0  libc.so.6                      0x00007f0000001000 abort + 288\n"
    "1  my editor                      0x0000550000002000 _ZN12_GLOBAL__N_14Page4drawEi.constprop.0 + 32\n";
constexpr std::string_view kLog =
    "Exception Type: SIGSEGV\n"
    "Thread 0 Crashed: \n"
    "0  libc.so.6                      0x00007f0000001000 abort + 288\n"
    "1  my editor                      0x0000550000002000 _ZN12_GLOBAL__N_14Page4drawEi.constprop.0 + 32\n"
    "\n"
    "Thread 1 Name: worker\n"
    "0  my editor                      0x0000550000003000 main + 16\n";

std::string bytesOf(const core::Data& data) {
  return {reinterpret_cast<const char*>(data.data()), data.size()};
}

void attach(KivExpObj& crash, const char* name, std::string_view text) {
  KivExpAttachment& attachment = crash.attachmentList.emplace();
  attachment.type = KivExpAttachment::kLogType;
  attachment.fileName = name;
  attachment.data = core::Data(core::Bytes(text.data(), text.size()));
}

/// A crash of the program "my editor".
KivExpObj crashOf(const char* hash, std::int64_t time, const char* type = "SIGSEGV", const char* code = "100") {
  KivExpObj crash;
  crash.setHash(core::String(hash));
  crash.expUid = core::String("E1D2C3B4-" + std::string(hash));
  crash.time = crash.cashTime = time;
  crash.crashType = code;
  crash.exceptionType = type;
  crash.callStack = core::String(kStack);
  crash.appInfo.emplace().processName = "my editor";
  attach(crash, "crash.log", kLog);
  return crash;
}

/// A data directory, and `kiv show` on it.
class Store {
 public:
  Store() : path_(home_.file("com.velmora.kiv/com.example.editor")) { writeIndex(); }

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

  void write(const std::string& name, KivExpObj crash) { test::writeFile(file(name), bytesOf(crash.encodeData())); }
  void writeIndexed(const std::string& name, const KivExpObj& crash) {
    write(name, crash);
    addEntry(crash.md5->c_str(), name, crash.time);
  }
  void addEntry(const char* hash, const std::string& name, std::int64_t time) {
    KivCrashMetaData entry;
    entry.md5 = hash;
    entry.file = core::String(name);
    entry.time = time;
    index_.set(hash, core::archive::archived(entry));
    writeIndex();
  }
  void addDamagedEntry(const char* hash) {
    index_.set(hash, core::Value("no archive"));
    writeIndex();
  }

  test::Outcome show(std::vector<std::string> arguments, test::Environment environment = {}) const {
    arguments.insert(arguments.begin(), {KIV_TOOL, "show"});
    environment.insert({{"XDG_DATA_HOME", home_.path()}, {"TZ", "UTC"}, {"COLUMNS", {}}, {"NO_COLOR", {}}});
    return test::Subprocess::run(arguments, environment);
  }
  /// On a terminal of so many columns.
  test::Outcome showOnTerminal(const std::string& arguments, int columns, test::Environment environment) const {
    environment.insert({{"TERM", "xterm"}, {"TZ", "UTC"}, {"COLUMNS", {}}, {"NO_COLOR", {}}});
    const std::string command =
        "stty cols " + std::to_string(columns) + "; exec '" KIV_TOOL "' show " + arguments + " '" + path_ + "'";
    return test::Subprocess::run({"script", "-qec", command, "/dev/null"}, environment);
  }

 private:
  void writeIndex() {
    test::writeFile(file(".crash_meta.data"), bytesOf(core::encodeBinaryPropertyList(core::Value(index_))));
  }

  test::TemporaryDirectory home_;
  std::string path_;
  core::ValueDictionary index_;
};

/// Crashes of all kinds.
void fill(Store& store) {
  store.writeIndexed(".crash_a.data", crashOf(kFirst, kMarch));
  KivExpObj merged = crashOf(kSecond, kMarch - 48 * kHour, "SIGABRT", "200");
  merged.dcount = 3;
  merged.cashTime += 60'000;  // the server's clock is a minute ahead of ours
  attach(merged, "crash_times.log",
         std::to_string(kMarch - kHour + 60'000) + ";" + std::to_string(kMarch + kHour + 60'000));
  store.writeIndexed(".crash_b.data", merged);
  KivExpObj script = crashOf("0c", kMarch - kHour, "Fehler \x1b[2Jä\n\u202e", "106");
  script.callStack = "main.lua:12: in function 'draw'\nmain.lua:99";
  store.write(".crash_c.data", script);
  KivExpObj stall = crashOf("", kMarch + 2 * kHour, "NotSmoothFrameException", "103");
  stall.expUid = "5AFE1234-0000";
  store.write("BlockDumpData/BlockDump_2018-03-05-16-03-09.123", stall);
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

TEST(Show, ListsNewestFirstWithoutCuttingAnything) {
  Store store;
  fill(store);
  const test::Outcome outcome = store.show({store.path()});
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_EQ(outcome.errors, "");
  EXPECT_EQ(
      outcome.output,
      "ID        LAST SEEN            KIND       SEEN  TYPE                       FIRST OWN FRAME\n"
      "5AFE1234  2018-03-05 16:03:09  stall         1  NotSmoothFrameException    Page::draw(int)\n"
      "3f2a91c1  2018-03-05 15:03:09  merged        3  SIGABRT                    Page::draw(int)\n"
      "3f2a91c0  2018-03-05 14:03:09  crash         1  SIGSEGV                    Page::draw(int)\n"
      "0c        2018-03-05 13:03:09  reported*     1  Fehler \\x1b[2Jä\\x0a\\u202e  main.lua:12: in function 'draw'\n"
      "* not in the crash index\n");
  const test::Outcome eastern = store.show({store.path()}, {{"TZ", "XST-5"}});
  EXPECT_NE(eastern.output.find("3f2a91c0  2018-03-05 19:03:09"), std::string::npos) << eastern.output;
}

TEST(Show, FitsTheTableIntoTheTerminal) {
  Store store;
  fill(store);
  for (const int columns : {60, 100}) {
    const test::Outcome outcome = store.show({store.path()}, {{"COLUMNS", std::to_string(columns)}});
    for (const std::string& line : linesOf(outcome.output)) {
      EXPECT_LE(core::String(line).characters(), columns) << line;
    }
    EXPECT_NE(outcome.output.find("…"), std::string::npos) << outcome.output;
  }
  const std::vector<std::string> narrow = linesOf(store.show({store.path()}, {{"COLUMNS", "60"}}).output);
  EXPECT_EQ(narrow.at(2), "3f2a91c1  03-05 15:03  merged        3  SIGABRT    Page::dr…");
  const test::Outcome terminal = store.showOnTerminal("--color=never", 60, {});
  EXPECT_NE(terminal.output.find(narrow[2] + "\r\n"), std::string::npos) << terminal.output << terminal.errors;
}

TEST(Show, TellsWhatIsDamagedAndShowsTheRest) {
  Store store;
  store.writeIndexed(".crash_good.data", crashOf(kFirst, kMarch));
  store.writeIndexed(".crash_cut.data", crashOf(kSecond, kMarch + kHour));
  const std::string whole = test::contentOf(store.file(".crash_cut.data"));
  test::writeFile(store.file(".crash_cut.data"), whole.substr(0, whole.size() / 2));
  test::writeFile(store.file(".crash_empty.data"), "");
  std::filesystem::create_directory(store.file(".crash_folder.data"));
  std::filesystem::create_symlink("gone", store.file(".crash_vanished.data"));
  store.addEntry("ffff0001", ".crash_lost.data", kMarch);
  store.addEntry("ffff0002", ".crash_good.data", kMarch);  // a crash of the same second took the file over
  store.addEntry("ffff0003", "../other", kMarch);
  store.addEntry("ffff0004", ".crash_vanished.data", kMarch);
  store.addDamagedEntry("ffff0005");
  const test::Outcome outcome = store.show({store.path()});
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_NE(outcome.output.find("3f2a91c0  2018-03-05 14:03:09  crash "), std::string::npos);
  EXPECT_NE(outcome.output.find("3f2a91c1  2018-03-05 15:03:09  damaged  "), std::string::npos);
  const char* const kFaults[] = {"/.crash_cut.data is damaged: ",
                                 "/.crash_empty.data is damaged: the file is empty\n",
                                 "/.crash_folder.data cannot be read: Is a directory\n",
                                 "/.crash_meta.data names .crash_lost.data, which is missing\n",
                                 "/.crash_meta.data names .crash_good.data, which holds another crash\n",
                                 "/.crash_meta.data names a file of another directory: ../other\n",
                                 "/.crash_meta.data has a damaged entry: it is no archive\n"};
  for (const std::string fault : kFaults) {
    EXPECT_NE(outcome.errors.find("kiv: " + store.path() + fault), std::string::npos) << fault << outcome.errors;
    EXPECT_NE(outcome.output.find(fault.substr(1)), std::string::npos) << fault << outcome.output;
  }
  EXPECT_EQ(linesOf(outcome.errors).size(), std::size(kFaults)) << outcome.errors;
  EXPECT_EQ(outcome.output.find("vanished"), std::string::npos) << outcome.output;

  test::writeFile(store.file(".crash_meta.data"), "bplist00 and nothing more");
  const test::Outcome garbage = store.show({store.path()});
  EXPECT_EQ(garbage.exitStatus, 1);
  EXPECT_NE(garbage.errors.find("/.crash_meta.data is damaged: "), std::string::npos) << garbage.errors;
  EXPECT_NE(garbage.output.find("3f2a91c0  2018-03-05 14:03:09  crash*"), std::string::npos) << garbage.output;
}

TEST(Show, FindsOneByTheBeginningOfItsId) {
  Store store;
  fill(store);
  store.addEntry("dead0000", ".crash_lost.data", kMarch);
  test::writeFile(store.file("plain"), "");
  const struct {
    std::vector<std::string> arguments;
    int status;
    const char* output;
    const char* error;
  } kCases[] = {
      {{"3f2a91c1", store.path()}, 0, "Exception Type: SIGSEGV\n", ""},
      {{"3F2A91C1", store.path()}, 0, "Exception Type: SIGSEGV\n", ""},
      {{"5afe1234-0", store.path()}, 0, "Exception Type: SIGSEGV\n", ""},
      {{"E1D2C3B4-3f2a91c0"}, 0, "Exception Type: SIGSEGV\n", ""},
      {{"3f2a", store.path()}, 1, "", "3f2a begins the IDs of several; say more of it:\n  3f2a91c1bbbb"},
      {{"abcdef", store.path()}, 1, "", "kiv: no stored crash has an ID that begins with abcdef\n"},
      {{"dead0000", store.path()}, 1, "", "names .crash_lost.data, which is missing\n"},
      {{"3f2", store.path()}, 2, "", "kiv: ID: 3f2 is not the beginning of one, of at least 4"},
      {{"xyzw", store.path()}, 2, "", "kiv: ID: xyzw is not the beginning of one"},
      {{"no-such-place"}, 1, "", "kiv: no-such-place cannot be read: No such file or directory\n"},
      {{store.file("plain")}, 1, "", "plain is no directory; kiv decode shows a file\n"},
      {{"3f2a91c1", "/no/such"}, 1, "", "kiv: /no/such cannot be read: No such file or directory\n"},
      {{"--color=some"}, 2, "", "--color"},
      {{"1", "2", "3"}, 2, "", "3"},
  };
  for (const auto& [arguments, status, output, error] : kCases) {
    const test::Outcome outcome = store.show(arguments);
    EXPECT_EQ(outcome.exitStatus, status) << arguments[0] << outcome.errors;
    EXPECT_TRUE(outcome.output.starts_with(output)) << arguments[0] << outcome.output;
    EXPECT_NE(outcome.errors.find(error), std::string::npos) << arguments[0] << outcome.errors;
  }
}

TEST(Show, ColoursALogOnlyWhereItIsWanted) {
  Store store;
  KivExpObj crash = crashOf(kFirst, kMarch);
  crash.attachmentList.clear();
  attach(crash, "crash.log", std::string(kLog) + "\x1b[2J\xC2\x9B tab\t\xFF");
  store.writeIndexed(".crash_a.data", crash);
  const std::string plain = std::string(kLog) + "\\x1b[2J\\u009b tab\t\\xff\n";
  EXPECT_EQ(store.show({kFirst}).output, plain);
  const test::Outcome colored = store.show({kFirst, "--color=always"}, {{"NO_COLOR", "1"}});
  EXPECT_EQ(colored.output,
            "\x1b[1;31mException Type: SIGSEGV\x1b[0m\n"
            "\x1b[1;31mThread 0 Crashed: \x1b[0m\n"
            "\x1b[33m0  libc.so.6                      0x00007f0000001000 abort + 288\x1b[0m\n"
            "\x1b[1;33m1  my editor                      0x0000550000002000 _ZN12_GLOBAL__N_14Page4drawEi.constprop.0 "
            "+ 32\x1b[0m\n"
            "\n"
            "\x1b[1;36mThread 1 Name: worker\x1b[0m\n"
            "\x1b[1m0  my editor                      0x0000550000003000 main + 16\x1b[0m\n"
            "\\x1b[2J\\u009b tab\t\\xff\n");
  const struct {
    const char* arguments;
    test::Environment environment;
    bool colors;
  } kTerminals[] = {{kFirst, {}, true},
                    {kFirst, {{"NO_COLOR", "1"}}, false},
                    {kFirst, {{"TERM", "dumb"}}, false},
                    {"--color=never 3f2a91c0", {}, false}};
  for (const auto& [arguments, environment, colors] : kTerminals) {
    const test::Outcome outcome = store.showOnTerminal(arguments, 80, environment);
    EXPECT_NE(outcome.output.find("Thread 0 Crashed: "), std::string::npos) << outcome.output << outcome.errors;
    EXPECT_EQ(outcome.output.find('\x1b') != std::string::npos, colors) << outcome.output;
  }
}

TEST(Show, GivesJsonOfTheListAndOfOne) {
  Store store;
  fill(store);
  test::writeFile(store.file(".crash_empty.data"), "");
  const test::Outcome list = store.show({"--json"});
  EXPECT_EQ(list.exitStatus, 1);
  EXPECT_EQ(list.output.find_first_of("\x1b\x7f"), std::string::npos);
  EXPECT_EQ(list.output.find("\u202e"), std::string::npos);
  std::map<std::string, json> byFile;
  for (const json& each : json::parse(list.output)) {
    byFile[each["file"]] = each;
  }
  EXPECT_EQ(byFile.size(), 5U);
  EXPECT_EQ(byFile[".crash_b.data"]["seen"], 3);
  EXPECT_EQ(byFile[".crash_b.data"]["time"], kMarch - 48 * kHour);
  EXPECT_EQ(byFile[".crash_b.data"]["lastTime"], kMarch + kHour);
  EXPECT_EQ(byFile[".crash_c.data"]["type"], "Fehler \x1b[2Jä\n\u202e");
  EXPECT_EQ(byFile[".crash_c.data"]["indexed"], false);
  EXPECT_EQ(byFile[".crash_c.data"]["damage"], nullptr);
  EXPECT_EQ(byFile[".crash_empty.data"]["damage"], "is damaged: the file is empty");
  const json one = json::parse(store.show({"--json", kSecond}).output);
  EXPECT_EQ(one["id"], kSecond);
  EXPECT_EQ(one["log"], kLog);
  EXPECT_EQ(one["record"]["appInfo"]["processName"], "my editor");
  EXPECT_EQ(json::parse(store.show({"--json"}, {{"XDG_DATA_HOME", "/no/such"}}).output), json::array());
}

TEST(Show, PrintsTheFactsOfARecordWithoutALog) {
  Store store;
  KivExpObj crash = crashOf(kFirst, kMarch);
  crash.attachmentList.clear();
  crash.causedBy = "SEGV_MAPERR \x1b]0;";
  store.writeIndexed(".crash_a.data", crash);
  const test::Outcome outcome = store.show({kFirst});
  EXPECT_EQ(outcome.exitStatus, 0);
  EXPECT_TRUE(outcome.output.starts_with("A record without a log; this is what it holds.\n\n")) << outcome.output;
  EXPECT_NE(outcome.output.find("  callStack:\n    0  libc.so.6 "), std::string::npos) << outcome.output;
  EXPECT_EQ(outcome.output.find('\x1b'), std::string::npos) << outcome.output;
}

TEST(Show, LooksIntoTheDirectoriesOfAllProgramsAndTouchesNothing) {
  Store store;
  const auto touched = [&] {
    std::map<std::string, std::filesystem::file_time_type> times;
    const std::filesystem::path home = std::filesystem::path(store.path()).parent_path().parent_path();
    for (const auto& entry : std::filesystem::recursive_directory_iterator(home)) {
      times[entry.path()] = entry.last_write_time();
    }
    return times;
  };
  const auto before = touched();
  EXPECT_EQ(store.show({}).output, "No stored crashes in " + store.path() + "\n");
  store.writeIndexed(".crash_a.data", crashOf(kFirst, kMarch));
  EXPECT_TRUE(store.show({}).output.starts_with("ID        LAST SEEN"));
  store.write("../com.example.other/.crash_b.data", crashOf(kSecond, kMarch));
  std::filesystem::create_directory(store.file("../com.example.idle"));
  store.write("../BlockDumpData/BlockDump_2018-03-05-14-03-09.123", crashOf("", kMarch, "Stall", "103"));
  const auto filled = touched();
  const std::vector<std::string> lines = linesOf(store.show({}).output);
  ASSERT_EQ(lines.size(), 12U);
  EXPECT_EQ(lines[0], "BlockDumpData");
  EXPECT_TRUE(lines[2].starts_with("E1D2C3B4  2018-03-05 14:03:09  stall "));
  EXPECT_EQ(lines[4], "com.example.editor");
  EXPECT_TRUE(lines[6].starts_with("3f2a91c0  2018-03-05 14:03:09  crash "));
  EXPECT_EQ(lines[8], "com.example.other");
  EXPECT_TRUE(lines[10].starts_with("3f2a91c1  2018-03-05 14:03:09  crash* "));
  EXPECT_EQ(touched(), filled);
  EXPECT_EQ(before.size() + 6, filled.size());
  const test::Outcome none = store.show({}, {{"XDG_DATA_HOME", store.file("missing")}});
  EXPECT_EQ(none.exitStatus, 0);
  EXPECT_EQ(none.output, "No stored crashes in " + store.file("missing/com.velmora.kiv") + "\n");
}

}  // namespace

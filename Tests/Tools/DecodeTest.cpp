#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Tests/Support/Subprocess.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

test::Outcome decode(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {KIV_TOOL, "decode"});
  return test::Subprocess::run(arguments);
}

/// With the bytes on standard input.
test::Outcome decodeInput(const std::string& bytes, const std::string& options = "") {
  const test::TemporaryDirectory directory;
  test::writeFile(directory.file("input"), bytes);
  return test::Subprocess::run({"sh", "-c", "'" KIV_TOOL "' decode " + options + " - < " + directory.file("input")});
}

std::string sample(const std::string& name) {
  return std::string(KIV_SAMPLES) + "/" + name;
}

TEST(Decode, RecognisesFilesByTheirContent) {
  const struct {
    const char* file;
    const char* kind;
    const char* line;
  } kFiles[] = {
      {"envelope/request", "envelope", "      cmd: 630\n"},
      {"envelope/response", "envelope", "    kiv.ResponsePkg:\n"},
      {"archive/crash", "stored crash", "attachmentList:\n  0:\n    $class: KivExpAttachment\n    type: 11\n"},
      {"archive/values", "keyed archive of Holder", "any:\n  a:\n    0: 1\n    1: 2.5\n"},
      {"propertylist/all.xml", "property list", ""},
  };
  for (const auto& [file, kind, line] : kFiles) {
    const test::Outcome outcome = decode({sample(file)});
    EXPECT_EQ(outcome.exitStatus, 0) << file << outcome.errors;
    EXPECT_TRUE(outcome.output.starts_with(std::string(kind) + "\n\n")) << outcome.output;
    EXPECT_NE(outcome.output.find(line), std::string::npos) << outcome.output;
  }
  const test::Outcome model = decodeInput("<plist><dict><key>ana_ver_hash</key><string>1.0</string></dict></plist>");
  EXPECT_EQ(model.output, "model file\n\nana_ver_hash: 1.0\n") << model.errors;
  // An entry that another tool archived: {"md5": "0AB", "hasNew": true}.
  const test::Outcome index = decodeInput(
      "<plist><dict><key>0AB</key><data>"
      "YnBsaXN0MDDUAQIDBAUGFxpZJGFyY2hpdmVyWCRvYmplY3RzVCR0b3BYJHZlcnNpb25fEA9OU0tleWVkQXJjaGl2ZXKlBwgP"
      "EBFVJG51bGzTCQoLDA0OViRjbGFzc1ZoYXNOZXdTbWQ1gASAA4ACUzBBQgnSEhMUFVgkY2xhc3Nlc1okY2xhc3NuYW1lohUW"
      "XxAQS2l2Q3Jhc2hNZXRhRGF0YVhOU09iamVjdNEYGVRyb290gAESAAGGoAgRGyQpMkRKUFdeZWlrbW9zdHmCjZCjrK+0tgAA"
      "AAAAAAEBAAAAAAAAABsAAAAAAAAAAAAAAAAAAAC7"
      "</data></dict></plist>");
  EXPECT_EQ(index.output, "crash index\n\n0AB:\n  $class: KivCrashMetaData\n  hasNew: true\n  md5: 0AB\n");
}

TEST(Decode, ShowsBareRecordsByNameAndOthersByTag) {
  const std::string bytes(
      "\x0A\x06\x01p\x46\x03"
      "1.0\x58\x0C\x0B",
      12);  // kiv.AppInfo, framed
  EXPECT_EQ(decodeInput(bytes).output,
            "record of an unknown type (name it with --type)\n\n0 struct:\n  0 string: p\n  4 string: 1.0\n"
            "  5 map: (none)\n");
  const auto json = nlohmann::json::parse(decodeInput(bytes, "--json --type kiv.AppInfo").output);
  EXPECT_EQ(json["kind"], "kiv.AppInfo");
  EXPECT_EQ(json["content"]["processName"], "p");
  EXPECT_EQ(json["content"]["version"], "1.0");
}

TEST(Decode, SaysWhereAndWhyABrokenFileEnds) {
  const test::Outcome cut = decodeInput(test::contentOf(sample("envelope/request")).substr(0, 20));
  EXPECT_EQ(cut.exitStatus, 1);
  EXPECT_TRUE(cut.output.starts_with("broken file; what was read of it\n\n1 char: 2\n")) << cut.output;
  EXPECT_NE(cut.errors.find("kiv: - is damaged at byte "), std::string::npos) << cut.errors;
  EXPECT_NE(cut.errors.find(": buffer overflow when"), std::string::npos) << cut.errors;

  const test::TemporaryDirectory directory;
  const struct {
    std::vector<std::string> arguments;
    int status;
    const char* error;
  } kFaults[] = {
      {{"/dev/null"}, 1, "damaged at byte 0: the file is empty"},
      {{directory.path()}, 1, "cannot be read: Is a directory"},
      {{directory.file("missing")}, 1, "cannot be read: No such file or directory"},
      {{sample("archive/circle")}, 1, "contain themselves"},
      {{"--type", "kiv.Nothing", "/dev/null"}, 2, "--type"},
      {{}, 2, "FILE is required"},
  };
  for (const auto& [arguments, status, error] : kFaults) {
    const test::Outcome outcome = decode(arguments);
    EXPECT_EQ(outcome.exitStatus, status) << error;
    EXPECT_NE(outcome.errors.find(error), std::string::npos) << outcome.errors;
  }
}

}  // namespace

#include "Tools/kiv/DecodeCommand.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>

#include "Kiv/common/wex/WexInputStream.h"
#include "Tools/kiv/FileDocument.h"
#include "Tools/kiv/RecordDocument.h"
#include "Tools/kiv/TreePrinter.h"

namespace {

constexpr const char* kStandardInput = "-";

/// Nothing where reading failed, errno then tells why.
std::optional<std::string> contentOf(std::istream& in) {
  std::ostringstream content;
  errno = 0;
  content << in.rdbuf();
  return content.bad() || errno != 0 ? std::nullopt : std::optional(content.str());
}

void show(const std::string& kind, const Document& content, bool json) {
  if (json) {
    const Document whole = {{"kind", kind}, {"content", content}};
    std::cout << whole.dump(2, ' ', false, Document::error_handler_t::replace) << "\n";
  } else {
    std::cout << kind << "\n\n";
    printTree(std::cout, content);
  }
}

}  // namespace

DecodeCommand::DecodeCommand(CLI::App& app) {
  app_ = app.add_subcommand("decode", "Show what is in an envelope, a record, or a file that the reporter keeps");
  app_->add_option("FILE", file_, "The file, - for standard input")->required()->option_text(" ");
  app_->add_option("--type", type_, "Read a bare record as this type")
      ->check(CLI::IsMember(recordTypes()))
      ->option_text("TYPE");
  app_->add_flag("--json", json_, "Print JSON instead of a tree");
  app_->footer([] {
    std::string text =
        "Recognised by content: envelopes, stored crashes and stalls, the crash index, queued\n"
        "summaries, the stored strategy, the model file, other property lists. Types of records:\n";
    for (const std::string& type : recordTypes()) {
      text += "  " + type + "\n";
    }
    return text + "Exit status: 0; 1 for a file that is damaged or cannot be read; 2 for a wrong command line.";
  });
}

int DecodeCommand::run() const {
  analyticsyut::WexInputStream::setWarningSink([](std::string_view line) { std::cerr << line; });
  std::ifstream file;
  if (file_ != kStandardInput) {
    file.open(file_, std::ios::binary);
  }
  const auto content =
      file_ == kStandardInput || file.is_open() ? contentOf(file.is_open() ? file : std::cin) : std::nullopt;
  if (!content) {
    std::cerr << "kiv: " << file_ << " cannot be read: " << std::strerror(errno) << "\n";
    return 1;
  }
  const ByteView bytes(reinterpret_cast<const std::uint8_t*>(content->data()), content->size());
  try {
    const FileDocument document =
        type_.empty() ? readFileDocument(bytes) : FileDocument{type_, documentOfRecord(type_, bytes)};
    show(document.kind, document.content, json_);
    return 0;
  } catch (const BrokenDocument& broken) {
    if (!broken.read.empty()) {
      show("broken file; what was read of it", broken.read, json_);
    }
    std::cerr << "kiv: " << file_ << " is damaged at byte " << broken.offset << ": " << broken.what() << "\n";
    return 1;
  }
}

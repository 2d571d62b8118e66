#include "Tools/kiv/TreePrinter.h"

namespace {

constexpr int kIndent = 2;
constexpr std::size_t kMostDigits = 128;

void indent(std::ostream& out, int level) {
  out << std::string(static_cast<std::size_t>(level * kIndent), ' ');
}

bool isBytes(const Document& document) {
  return document.is_object() && document.size() == 2 && document.contains("bytes") && document.contains("hex");
}

bool isBlock(const Document& document) {
  return document.is_string() && document.get_ref<const std::string&>().find('\n') != std::string::npos;
}

void printBlock(std::ostream& out, std::string_view text, int level) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    indent(out, level);
    out << text.substr(0, end) << "\n";
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
}

/// What stands on the line of its label.
void printScalar(std::ostream& out, const Document& document) {
  if (isBytes(document)) {
    const auto& digits = document["hex"].get_ref<const std::string&>();
    out << "<" << document["bytes"] << " bytes> " << std::string_view(digits).substr(0, kMostDigits)
        << (digits.size() > kMostDigits ? "…" : "");
  } else if (document.is_string()) {
    const auto& text = document.get_ref<const std::string&>();
    out << (text.empty() ? "\"\"" : text);
  } else if (document.empty() && document.is_structured()) {
    out << "(none)";
  } else {
    out << document;
  }
  out << "\n";
}

void printContent(std::ostream& out, const Document& document, int level);

void printEntry(std::ostream& out, const std::string& label, const Document& document, int level) {
  indent(out, level);
  out << label << ":";
  if (isBlock(document)) {
    out << "\n";
    printBlock(out, document.get_ref<const std::string&>(), level + 1);
  } else if (document.is_structured() && !document.empty() && !isBytes(document)) {
    out << "\n";
    printContent(out, document, level + 1);
  } else {
    out << " ";
    printScalar(out, document);
  }
}

void printContent(std::ostream& out, const Document& document, int level) {
  if (document.is_object()) {
    for (const auto& [key, value] : document.items()) {
      printEntry(out, key, value, level);
    }
  } else {
    std::size_t number = 0;
    for (const Document& item : document) {
      printEntry(out, std::to_string(number++), item, level);
    }
  }
}

}  // namespace

void printTree(std::ostream& out, const Document& document) {
  if (document.is_structured() && !document.empty() && !isBytes(document)) {
    printContent(out, document, 0);
  } else {
    printScalar(out, document);
  }
}

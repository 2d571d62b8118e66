#include "Tools/kiv/FieldDocument.h"

#include <array>
#include <vector>

#include "Kiv/common/wex/WexFieldReader.h"

namespace {

using analyticsyut::DataHead;
using analyticsyut::WexFieldEvent;

constexpr std::array<const char*, 14> kTypeNames = {"char",   "short", "int",  "long",   "float", "double", "string",
                                                    "string", "map",   "list", "struct", "end",   "zero",   "bytes"};

std::string labelOf(const WexFieldEvent& field) {
  return std::to_string(field.head.tag) + " " + kTypeNames.at(field.head.type);
}

/// The containers that are open, innermost last, and what they hold so far.
class FieldTree final : public analyticsyut::WexFieldVisitor {
 public:
  FieldTree() { open_.push_back({0, "", Document::object(), {}}); }

  void value(const WexFieldEvent& field) override { add(field, valueOf(field)); }

  void begin(const WexFieldEvent& field) override {
    const bool isList = field.head.type == DataHead::kList;
    open_.push_back({field.head.type, labelOf(field), isList ? Document::array() : Document::object(), {}});
  }

  void end(const WexFieldEvent& field) override {
    Document content = std::move(open_.back().content);
    open_.pop_back();
    add(field, std::move(content));
  }

  /// All that was read, the containers that never ended included.
  Document take() {
    while (open_.size() > 1) {
      Open inner = std::move(open_.back());
      open_.pop_back();
      put(inner.label, std::move(inner.content));
    }
    return std::move(open_.front().content);
  }

 private:
  struct Open {
    std::uint8_t type;
    std::string label;
    Document content;
    std::string key;  // of a map: the one whose value comes next
  };

  static Document valueOf(const WexFieldEvent& field) {
    switch (field.head.type) {
      case DataHead::kString1:
      case DataHead::kString4:
      case DataHead::kSimpleList:
        return documentOfBytes(field.bytes);
      case DataHead::kFloat:
      case DataHead::kDouble:
        return field.real;
      default:
        return field.integer;
    }
  }

  void add(const WexFieldEvent& field, Document content) {
    Open& outer = open_.back();
    if (outer.type == DataHead::kMap && field.head.tag == 0) {
      outer.key = content.is_string() ? content.get<std::string>() : content.dump();
    } else {
      put(labelOf(field), std::move(content));
    }
  }

  void put(const std::string& label, Document content) {
    Open& outer = open_.back();
    if (outer.content.is_array()) {
      outer.content.push_back(std::move(content));
    } else {
      outer.content[outer.type == DataHead::kMap ? outer.key : label] = std::move(content);
    }
  }

  std::vector<Open> open_;
};

}  // namespace

Document documentOfFields(ByteView bytes) {
  FieldTree tree;
  const auto outcome = analyticsyut::WexFieldReader::read(bytes, tree);
  Document fields = tree.take();
  if (!outcome.error.empty()) {
    throw BrokenDocument(outcome.offset, outcome.error.str(), std::move(fields));
  }
  return fields;
}

// mp4stbl dump: the box tree, with the fields and first records of every
// box that describes itself.
#include <cstdio>
#include <cstdlib>
#include <string>

#include <mp4stbl/box/table_reason.h>
#include "command.h"
#include "table.h"

namespace mp4stbl::cli {

namespace {

using json = nlohmann::ordered_json;  // fields stay in file order

// Collects what a box describes of itself as JSON.
class JsonFields : public FieldSink {
 public:
  explicit JsonFields(size_t limit) : limit_(limit) {}

  void field(const char* name, uint64_t value) override { fields_[name] = value; }
  // Names come from the file: bytes outside printable ASCII become '.'.
  void text(const char* name, const std::string& value) override {
    std::string shown = value;
    for (char& c : shown) c = c >= 0x20 && c < 0x7F ? c : '.';
    fields_[name] = shown;
  }
  size_t table(size_t count) override {
    fields_["count"] = count;
    fields_["entries"] = json::array();
    return limit_;
  }
  void row(const uint64_t* values, unsigned count) override { add(values, count); }
  void signedRow(const int64_t* values, unsigned count) override { add(values, count); }
  const json& fields() const { return fields_; }

 private:
  template <class Number>
  void add(const Number* values, unsigned count) {
    json shown = count == 1 ? json(values[0]) : json::array();
    for (unsigned i = 0; count > 1 && i < count; ++i) shown.push_back(values[i]);
    fields_["entries"].push_back(std::move(shown));
  }

  size_t limit_;
  json fields_ = json::object();
};

json tree(const Atom& box, size_t limit) {
  json node = {{"type", printable(box.header.type)},
               {"size", box.header.boxLength()},
               {"offset", box.header.headerOffset}};
  JsonFields fields(limit);
  box.describe(fields);
  if (!fields.fields().empty()) node["fields"] = fields.fields();
  if (!box.children.empty()) {
    node["children"] = json::array();
    for (const Atom* child : box.children) node["children"].push_back(tree(*child, limit));
  }
  return node;
}

void printTree(const json& node, unsigned depth) {
  std::string line = format("%*s%s", static_cast<int>(2 * depth), "",
                            node["type"].get<std::string>().c_str());
  line += "  size " + node["size"].dump() + "  offset " + node["offset"].dump();
  if (node.contains("fields")) {
    json fields = node["fields"];
    const json entries = fields.contains("entries") ? fields["entries"] : json();
    fields.erase("entries");
    for (const auto& [name, value] : fields.items()) line += "  " + name + " " + value.dump();
    if (!entries.is_null()) {
      line += "  [";
      for (size_t i = 0; i < entries.size(); ++i) line += (i ? " " : "") + entries[i].dump();
      if (entries.size() < fields["count"].get<size_t>()) line += " ...";
      line += "]";
    }
  }
  std::printf("%s\n", line.c_str());
  if (node.contains("children")) {
    for (const json& child : node["children"]) printTree(child, depth + 1);
  }
}

// --entries is checked as digits or "all"; a count past what any table can
// hold means all of them.
size_t entryLimit(const Options& options) {
  if (options.entries == "all") return SIZE_MAX;
  const unsigned long long limit = std::strtoull(options.entries.c_str(), nullptr, 10);
  return limit > SIZE_MAX ? SIZE_MAX : static_cast<size_t>(limit);
}

}  // namespace

int dump(const Options& options) {
  const auto opened = open(options);
  if (!opened) return kFailure;
  const size_t limit = entryLimit(options);
  json boxes = json::array();
  for (const Atom* box : opened->file.root.children) boxes.push_back(tree(*box, limit));
  if (options.json) {
    json document = {{"file", options.file}, {"boxes", std::move(boxes)}};
    printJson(document);
    return 0;
  }
  for (const json& box : boxes) printTree(box, 0);
  return 0;
}

}  // namespace mp4stbl::cli

// The text flow format (.json): tools keyed by name, each naming its class by registry name,
// inputs keyed by label (or id), values as numbers, [x, y] points, strings, links "Tool" or
// "Tool.Output", {"keys": ...} animations and {"modifier": ...} modifiers, and the tool's own
// saved fields under "data". docs/flows.md describes it for users.
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cfloat>
#include <cstdint>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "host/base/archive.h"
#include "host/clip/clip.h"
#include "host/document/flow_file.h"
#include "host/document/node_lists.h"
#include "host/base/prefs.h"
#include "host/graph/filter_matrix.h"
#include "host/graph/registry.h"
#include "host/document/source_operator.h"

namespace kestrion {

using Json = nlohmann::ordered_json;

namespace {

constexpr int kFormatVersion = 1;

// A flow error: the message already names the tool and input.
struct FlowError {
  std::string message;
};

std::string Quoted(const std::string& s) { return "\"" + s + "\""; }

// "a", "b", "c" (`none` when there are no names).
template <class Names>
std::string JoinQuoted(const Names& names, const std::string& none = "") {
  std::string text;
  for (const auto& name : names) text += (text.empty() ? "" : ", ") + Quoted(name);
  return text.empty() ? none : text;
}

// Refuses a key of `object` that is not one of `valid`: `before` + "unknown key "KEY"" + `after`.
void CheckKeys(const Json& object, std::initializer_list<const char*> valid, const std::string& before,
               const std::string& after = "") {
  for (const auto& [key, value] : object.items()) {
    if (std::any_of(valid.begin(), valid.end(), [&key = key](const char* v) { return key == v; })) continue;
    std::string list;
    for (const char* v : valid) list += (list.empty() ? "" : ", ") + std::string(v);
    throw FlowError{before + "unknown key " + Quoted(key) + after + " (valid: " + list + ")"};
  }
}

// --- filter matrices ---

// An input edited with the filter-matrix control, whose table a flow writes in a form of its own.
bool IsFilterMatrix(const Input* in) {
  return in->Type() == vtype::LookUpTable && in->GetAttrI(in::Control) == control::FilterMatrix;
}

// The readable form of a matrix is an object like the long form of a value.
bool IsReadableMatrix(const Input* in, const Json& v) {
  return IsFilterMatrix(in) && v.is_object() && (v.contains("size") || v.contains("weights"));
}

// A filter matrix: the 54 table values in order, the weights written -128 to 127, or the
// readable form {"size": 3, 5 or 7, "weights": [[...], ...]}, the rows of the centred block.
std::vector<uint16_t> ReadFilterMatrix(const Json& v, const std::string& where) {
  namespace fm = filter_matrix;
  const auto whole = [](const Json& e, int lo, int hi) {
    return e.is_number_integer() && e.get<int64_t>() >= lo && e.get<int64_t>() <= hi;
  };
  const auto range = [](int lo, int hi) {
    return " must be a whole number from " + std::to_string(lo) + " to " + std::to_string(hi);
  };
  if (v.is_array()) {
    if (v.size() != size_t(fm::kBytes))
      throw FlowError{where +
                      " takes the 54 values of a filter matrix (size code, four values 0 to 255, 49 weights); "
                      "this array has " + std::to_string(v.size())};
    std::vector<uint16_t> table;
    for (size_t i = 0; i < v.size(); ++i) {
      const bool weight = i >= size_t(fm::kFirstWeight);
      const int lo = weight ? -128 : 0, hi = i == 0 ? fm::kLargestSizeCode : weight ? 127 : 255;
      if (!whole(v[i], lo, hi)) {
        const std::string what = i == 0   ? std::string("the size code")
                                 : weight ? "weight " + std::to_string(i - fm::kFirstWeight + 1)
                                          : "value " + std::to_string(i);
        throw FlowError{where + ": " + what + " (" + v[i].dump() + ")" + range(lo, hi)};
      }
      table.push_back(uint16_t(uint8_t(v[i].get<int>())));
    }
    return table;
  }
  if (!v.is_object())
    throw FlowError{where + " takes a filter matrix: {\"size\": 3, 5 or 7, \"weights\": [[...], ...]} or its 54 values"};
  CheckKeys(v, {"size", "weights"}, where + ": ");
  const Json size = v.value("size", Json());
  if (!(size == 3 || size == 5 || size == 7)) throw FlowError{where + ": \"size\" must be 3, 5 or 7"};
  const int n = size.get<int>();
  const Json rows = v.value("weights", Json());
  if (!rows.is_array() || rows.size() != size_t(n))
    throw FlowError{where + ": \"weights\" must be " + std::to_string(n) + " rows of " + std::to_string(n) + " weights"};
  std::vector<int> block;
  for (size_t i = 0; i < rows.size(); ++i) {
    if (!rows[i].is_array() || rows[i].size() != size_t(n))
      throw FlowError{where + ": row " + std::to_string(i + 1) + " of \"weights\" must hold " + std::to_string(n) + " weights"};
    for (size_t j = 0; j < rows[i].size(); ++j) {
      if (!whole(rows[i][j], -128, 127))
        throw FlowError{where + ": the weight at row " + std::to_string(i + 1) + ", column " + std::to_string(j + 1) + " (" +
                        rows[i][j].dump() + ")" + range(-128, 127)};
      block.push_back(rows[i][j].get<int>());
    }
  }
  return fm::OfBlock(n, block);
}

// A filter matrix in the readable form where that gives the table back, else the 54 values.
Json WriteFilterMatrix(const std::vector<uint16_t>& table) {
  namespace fm = filter_matrix;
  if (const int n = fm::BlockSize(table)) {
    Json rows = Json::array();
    const int first = (fm::kSide - n) / 2;
    for (int i = 0; i < n; ++i) {
      Json row = Json::array();
      for (int j = 0; j < n; ++j) row.push_back(fm::Weight(table, first + i, first + j));
      rows.push_back(row);
    }
    return {{"size", n}, {"weights", rows}};
  }
  Json values = Json::array();
  for (size_t i = 0; i < table.size(); ++i)
    values.push_back(i >= size_t(fm::kFirstWeight) && table[i] < 256 ? int(int8_t(uint8_t(table[i]))) : int(table[i]));
  return values;
}

// A flow view position [x, y]; `error` is the message for anything else.
std::pair<int, int> ReadPosition(const Json& p, const std::string& error) {
  if (!p.is_array() || p.size() != 2 || !p[0].is_number_integer() || !p[1].is_number_integer())
    throw FlowError{error};
  return {p[0].get<int>(), p[1].get<int>()};
}

std::string IdText(uint32_t id) {
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%08X", id);
  return hex;
}

// A float written with the fewest digits that read back to the same float.
Json FloatJson(float f) {
  char text[32];
  const auto end = std::to_chars(text, text + sizeof text, f).ptr;
  return std::strtod(std::string(text, end).c_str(), nullptr);
}

std::string Hex(const uint8_t* data, size_t n) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 * n);
  for (size_t i = 0; i < n; ++i) {
    out += digits[data[i] >> 4];
    out += digits[data[i] & 15];
  }
  return out;
}

bool Unhex(const std::string& text, std::vector<uint8_t>& out) {
  if (text.size() % 2) return false;
  const auto nibble = [](char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  for (size_t i = 0; i < text.size(); i += 2) {
    const int hi = nibble(text[i]), lo = nibble(text[i + 1]);
    if (hi < 0 || lo < 0) return false;
    out.push_back(uint8_t(hi << 4 | lo));
  }
  return true;
}

// --- node lists ---

// One node: [x, y] or [x, y, flags], finite in single precision, flags 0 to 255.
PathKeyPoint ReadNode(const Json& v, const std::string& where) {
  if (!v.is_array() || (v.size() != 2 && v.size() != 3) || !v[0].is_number() || !v[1].is_number())
    throw FlowError{where + " is not [x, y] or [x, y, flags]: " + v.dump()};
  const double x = v[0].get<double>(), y = v[1].get<double>();
  if (!(std::abs(x) <= FLT_MAX) || !(std::abs(y) <= FLT_MAX)) throw FlowError{where + " is not a finite point: " + v.dump()};
  PathKeyPoint node;
  node.x = float(x);
  node.y = float(y);
  if (v.size() == 3) {
    if (!v[2].is_number_integer() || v[2].get<int64_t>() < 0 || v[2].get<int64_t>() > 255)
      throw FlowError{where + ": flags are a whole number from 0 to 255, not " + v[2].dump()};
    node.flags = v[2].get<uint8_t>();
  }
  return node;
}

// A list of nodes whose count is a multiple of 3 plus `extra` (1 for a path, 0 for a shape).
std::vector<PathKeyPoint> ReadNodes(const Json& v, size_t extra, const std::string& where) {
  if (!v.is_array()) throw FlowError{where + " must be an array of [x, y] nodes"};
  std::vector<PathKeyPoint> nodes;
  for (size_t i = 0; i < v.size(); ++i) nodes.push_back(ReadNode(v[i], where + ", node " + std::to_string(i)));
  if (nodes.size() % 3 != extra || nodes.size() < extra + 3 * (1 - extra))
    throw FlowError{where + " holds " + std::to_string(nodes.size()) + " nodes; " +
                    (extra ? "a path has 3k - 2 (key, out-handle, in-handle, key, ...)"
                           : "a closed shape has 3k (key, out-handle, in-handle for each key)")};
  return nodes;
}

// The readable "data" of a node-list tool: {"nodes": [...], "aspect": a} for an open path,
// {"shapes": [{"time": t, "nodes": [...]}, ...]} for closed shapes.
NodeLists ReadNodeLists(const Json& data, NodeListTool::Form form, const std::string& where) {
  NodeLists lists;
  const bool path = form == NodeListTool::Form::OpenPath;
  const std::string what = where + ": \"data\"";
  if (!data.is_object())
    throw FlowError{what + " must be " + (path ? "{\"nodes\": [[x, y], ...]}" : "{\"shapes\": [{\"nodes\": [[x, y], ...]}]}")};
  if (path) {
    CheckKeys(data, {"nodes", "aspect"}, what + ": ");
    if (!data.contains("nodes")) throw FlowError{what + " must give the path's \"nodes\""};
    lists.shapes.push_back({false, 0.0, ReadNodes(data["nodes"], 1, what + ".\"nodes\"")});
    if (data.contains("aspect")) {
      const Json& a = data["aspect"];
      if (!a.is_number() || !(a.get<double>() > 0 && a.get<double>() <= FLT_MAX))
        throw FlowError{what + ".\"aspect\" must be a number above 0"};
      lists.aspect = float(a.get<double>());
    }
    return lists;
  }
  CheckKeys(data, {"shapes"}, what + ": ");
  const Json& shapes = data.value("shapes", Json());
  if (!shapes.is_array() || shapes.empty()) throw FlowError{what + " must give one or more \"shapes\""};
  for (size_t i = 0; i < shapes.size(); ++i) {
    const std::string at = what + ", shape " + std::to_string(i);
    const Json& shape = shapes[i];
    if (!shape.is_object() || !shape.contains("nodes")) throw FlowError{at + " must be {\"time\": t, \"nodes\": [...]}"};
    CheckKeys(shape, {"time", "nodes"}, at + ": ");
    NodeShape read{false, 0.0, ReadNodes(shape["nodes"], 0, at + ", \"nodes\"")};
    if (shape.contains("time")) {
      if (!shape["time"].is_number() || !std::isfinite(shape["time"].get<double>()))
        throw FlowError{at + ": \"time\" must be a number of frames"};
      read.timed = true;
      read.time = shape["time"].get<double>();
    }
    if (i > 0 && read.nodes.size() != lists.shapes.front().nodes.size())
      throw FlowError{at + " has " + std::to_string(read.nodes.size()) + " nodes and shape 0 has " +
                      std::to_string(lists.shapes.front().nodes.size()) + "; every shape needs as many"};
    lists.shapes.push_back(std::move(read));
  }
  return lists;
}

// --- loading ---

class TextFlowReader {
 public:
  TextFlowReader(CPipelineDoc& doc, std::string base_folder) : doc_(doc), base_folder_(std::move(base_folder)) {}

  void Read(const Json& root) {
    if (!root.is_object()) throw FlowError{"a text flow is a JSON object"};
    if (!root.contains("kestrion"))
      throw FlowError{"not a Kestrion text flow: \"kestrion\": " + std::to_string(kFormatVersion) + " is missing"};
    if (root["kestrion"] != kFormatVersion)
      throw FlowError{"text flow version " + root["kestrion"].dump() + " is not supported (this build reads " +
                      std::to_string(kFormatVersion) + ")"};
    CheckKeys(root, {"kestrion", "range", "time", "preferences", "tools"}, "");
    ReadPreferences(root.value("preferences", Json::object()));
    if (root.contains("range")) {
      const Json& r = root["range"];
      if (!r.is_array() || r.size() != 2 || !r[0].is_number() || !r[1].is_number() || r[0] > r[1])
        throw FlowError{"\"range\" must be [first, last] with first <= last"};
      doc_.SetRenderRange({r[0].get<double>(), r[1].get<double>()});
    }
    if (root.contains("time")) doc_.current_time = Number(root["time"], "\"time\"");
    const Json& tools = root.value("tools", Json::object());
    if (!tools.is_object()) throw FlowError{"\"tools\" must be an object of tools keyed by name"};

    // Every tool first, so that links may point forward; then values, then links and modifiers.
    for (const auto& [name, entry] : tools.items()) CreateTool(name, entry);
    for (const auto& [name, entry] : tools.items()) ApplyInputs(doc_.FindTool(name), entry, Pass::Values);
    for (const auto& [name, entry] : tools.items()) ApplyInputs(doc_.FindTool(name), entry, Pass::Connections);
    // Values set later may have moved earlier ones (a clip resets its range): settle them.
    for (const auto& [name, entry] : tools.items()) ApplyInputs(doc_.FindTool(name), entry, Pass::Settle);
    // A source without a "Global Out" spans its clip from its "Global In", cut at the range's
    // end; one that gives it keeps its extents as written.
    for (const auto& [name, entry] : tools.items())
      if (auto* source = dynamic_cast<SourceOperator*>(doc_.FindTool(name)); source && !Gives(source, entry, kGlobalOutId))
        source->SpanClip();
    // Codec settings only matter to writes: they are taken once nothing can fail any more.
    for (const auto& [ext, level] : compression_) ClipParameter::SetCompression(ext, level);
  }

 private:
  enum class Pass { Values, Connections, Settle };

  static double Number(const Json& v, const std::string& what) {
    if (v.is_boolean()) return v.get<bool>() ? 1.0 : 0.0;
    if (!v.is_number()) throw FlowError{what + " must be a number"};
    return v.get<double>();
  }

  void ReadPreferences(const Json& prefs) {
    if (!prefs.is_object()) throw FlowError{"\"preferences\" must be an object"};
    for (const auto& [key, value] : prefs.items()) {
      if (key == "proxy") {
        const double p = Number(value, "\"preferences\".\"proxy\"");
        if (p < 1 || p > 1024 || p != std::floor(p)) throw FlowError{"\"preferences\".\"proxy\" must be a whole number from 1 to 1024"};
        PGeneral.proxy = int(p);
      } else if (key == "video") {
        PVidMode.width = Size(value, "width", PVidMode.width, "\"preferences\".\"video\"");
        PVidMode.height = Size(value, "height", PVidMode.height, "\"preferences\".\"video\"");
        if (value.contains("aspect")) {
          const Json& a = value["aspect"];
          if (!a.is_array() || a.size() != 2 || !a[0].is_number() || !a[1].is_number() || !(a[0] > 0) || !(a[1] > 0))
            throw FlowError{"\"preferences\".\"video\".\"aspect\" must be [x, y] with both above 0"};
          PVidMode.aspect_x = a[0].get<double>();
          PVidMode.aspect_y = a[1].get<double>();
        }
      } else if (key == "preview") {
        PPreview.width = Size(value, "width", PPreview.width, "\"preferences\".\"preview\"");
        PPreview.height = Size(value, "height", PPreview.height, "\"preferences\".\"preview\"");
        if (value.contains("fit")) PPreview.fit_to_box = Number(value["fit"], "\"preferences\".\"preview\".\"fit\"") != 0;
      } else if (key == "compression") {
        if (!value.is_object()) throw FlowError{"\"preferences\".\"compression\" must map extensions to levels"};
        if (value.size() > 64) throw FlowError{"\"preferences\".\"compression\" names more than 64 formats"};
        for (const auto& [ext, level] : value.items()) {
          if (!ClipParameter::IsFormatKey(ext))
            throw FlowError{"\"preferences\".\"compression\"." + Quoted(ext) + " is not a file extension such as \"png\""};
          const double l = Number(level, "\"preferences\".\"compression\"." + Quoted(ext));
          if (l < 0 || l > 100 || l != std::floor(l))
            throw FlowError{"\"preferences\".\"compression\"." + Quoted(ext) + " must be a whole number from 0 to 100"};
          compression_.emplace_back(ext, int(l));
        }
      } else {
        throw FlowError{"unknown preference " + Quoted(key) + " (valid: proxy, video, preview, compression)"};
      }
    }
  }

  static int Size(const Json& obj, const char* key, int fallback, const std::string& where) {
    if (!obj.is_object()) throw FlowError{where + " must be an object"};
    if (!obj.contains(key)) return fallback;
    const double v = Number(obj[key], where + "." + Quoted(key));
    if (v < 1 || v > (1 << 20) || v != std::floor(v))
      throw FlowError{where + "." + Quoted(key) + " must be a whole number from 1 to 1048576"};
    return int(v);
  }

  static std::string ValidClasses() {
    std::string names;
    for (Registry* reg : ClassRegistry->Records()) names += (names.empty() ? "" : ", ") + reg->Name();
    return names;
  }

  Operator* CreateTool(const std::string& name, const Json& entry) {
    const std::string where = "tool " + Quoted(name);
    if (!entry.is_object()) throw FlowError{where + " must be an object with a \"class\""};
    CheckKeys(entry, {"class", "inputs", "position", "data", "attributes"}, where + ": ");
    if (!entry.contains("class") || !entry["class"].is_string()) throw FlowError{where + " has no \"class\""};
    const std::string class_name = entry["class"].get<std::string>();
    Registry* reg = ClassRegistry->FindByName(class_name);
    if (!reg) throw FlowError{where + ": unknown class " + Quoted(class_name) + " (valid: " + ValidClasses() + ")"};
    if (name.empty()) throw FlowError{"a tool has an empty name"};
    if (doc_.FindTool(name)) throw FlowError{where + ": the name is used twice"};

    std::pair<int, int> position{0, 0};
    if (entry.contains("position"))
      position = ReadPosition(entry["position"], where + ": \"position\" must be [x, y] in whole numbers");
    const TagList attributes = entry.contains("attributes") ? ReadAttributes(entry["attributes"], where) : TagList{};
    Object* obj = reg->Create(nullptr, nullptr);
    if (auto* lists = dynamic_cast<NodeListTool*>(obj); lists && entry.contains("data")) {
      ApplyNodeLists(lists, entry["data"], where);
    } else if (entry.contains("data") || attributes.Size() > 0) {
      // The tool's own fields follow a base record that holds nothing but the name, the place
      // and the attributes it keeps (no inputs).
      Ref<Object> probe = Ref<Object>::Adopt(obj);
      std::vector<uint8_t> fields;
      if (entry.contains("data")) {
        if (entry["data"].is_object())
          fields = FieldBytes(dynamic_cast<const Operator*>(obj), entry["data"], where);
        else if (!entry["data"].is_string() || !Unhex(entry["data"].get<std::string>(), fields))
          throw FlowError{where + ": \"data\" must be a string of hexadecimal byte pairs"};
      }
      CArchive record;
      record.WriteString(name);
      record.WriteInt(position.first);
      record.WriteInt(position.second);
      record.WriteWord(0);
      record.WriteWord(uint32_t(attributes.Size()));
      for (const Tag& t : attributes) {
        record.WriteWord(t.id);
        record.WriteWord(uint32_t(t.integer));
      }
      record.WriteBytes(fields.data(), fields.size());
      record.WriteWord(0);
      record.WriteWord(kEndOfRecord);
      CArchive in(record.Bytes());
      try {
        obj = reg->Create(&in, nullptr);
      } catch (const std::exception& e) {
        throw FlowError{where + ": its \"data\" is not valid for a " + class_name + ": " + e.what()};
      }
      if (obj && !in.AtEnd()) {
        obj->Recycle();
        throw FlowError{where + ": its \"data\" is longer than a " + class_name + " keeps"};
      }
    }
    auto* op = dynamic_cast<Operator*>(obj);
    if (!op) {
      if (obj) obj->Recycle();
      throw FlowError{where + ": a " + class_name + " could not be created"};
    }
    op->SetFlowPos(position.first, position.second);
    return doc_.AddTool(op, name);
  }

  // The attributes a tool keeps in its record, {"0x100000C8": value, ...}: ids of eight hexadecimal
  // digits, values whole numbers of 32 bits.
  static TagList ReadAttributes(const Json& attributes, const std::string& where) {
    if (!attributes.is_object()) throw FlowError{where + ": \"attributes\" must be an object"};
    TagList tags;
    for (const auto& [key, value] : attributes.items()) {
      std::vector<uint8_t> id;
      if (key.size() != 10 || key.compare(0, 2, "0x") != 0 || !Unhex(key.substr(2), id))
        throw FlowError{where + ": attribute " + Quoted(key) + " is not an id such as \"0x100000C8\""};
      if (!value.is_number() || value.get<double>() < 0 || value.get<double>() > 4294967295.0 ||
          value.get<double>() != std::floor(value.get<double>()))
        throw FlowError{where + ": attribute " + Quoted(key) + " must be a whole number from 0 to 4294967295"};
      tags.Add(Tag(uint32_t(id[0]) << 24 | uint32_t(id[1]) << 16 | uint32_t(id[2]) << 8 | id[3],
                   uint32_t(value.get<double>())));
    }
    return tags;
  }

  // The bytes of a tool's own fields from their readable form, {"name": value or [values]}.
  static std::vector<uint8_t> FieldBytes(const Operator* op, const Json& data, const std::string& where) {
    const std::vector<DataField> layout = op ? op->DataLayout() : std::vector<DataField>();
    if (layout.empty()) throw FlowError{where + ": \"data\" must be a string of hexadecimal byte pairs"};
    std::vector<std::string> names;
    for (const DataField& f : layout) names.push_back(f.name);
    for (const auto& [key, value] : data.items())
      if (std::find(names.begin(), names.end(), key) == names.end())
        throw FlowError{where + ": unknown key " + Quoted(key) + " in \"data\" (valid: " + JoinQuoted(names) + ")"};
    CArchive bytes;
    for (const DataField& f : layout) {
      const std::string what = where + ": \"data\"." + Quoted(f.name);
      Json values = data.contains(f.name) ? data[f.name] : Json(std::vector<double>(size_t(f.count), f.missing));
      if (f.count == 1 && !values.is_array()) values = Json::array({values});
      if (!values.is_array() || values.size() != size_t(f.count))
        throw FlowError{what + (f.count == 1 ? " must be a number" : " must be " + std::to_string(f.count) + " numbers")};
      for (const Json& v : values) {
        if (!v.is_number()) throw FlowError{what + " holds numbers only"};
        const double d = v.get<double>();
        if (f.kind == DataField::Double) {
          bytes.WriteDouble(d);
        } else {
          if (d != std::floor(d) || d < INT32_MIN || d > INT32_MAX) throw FlowError{what + " holds whole numbers only"};
          bytes.WriteInt(int32_t(d));
        }
      }
    }
    return bytes.Bytes();
  }

  // Gives a node-list tool its data from a text flow; the tool is released when it is refused.
  static void ApplyNodeLists(NodeListTool* tool, const Json& data, const std::string& where) {
    auto* op = dynamic_cast<Operator*>(tool);
    try {
      tool->SetNodeLists(ReadNodeLists(data, tool->NodeForm(), where));
    } catch (...) {
      op->Recycle();
      throw;
    }
  }

  static std::string ValidInputs(const Operator* op) {
    std::vector<std::string> names;
    for (const auto& in : op->Inputs()) names.push_back(in->Name());
    return JoinQuoted(names, "none");
  }

  // An input by label, or by id where the label is ambiguous or not used.
  static Input* FindInput(Operator* op, const std::string& key, const std::string& where) {
    Input* found = nullptr;
    int matches = 0;
    for (const auto& in : op->Inputs())
      if (in->Name() == key) {
        found = in.get();
        ++matches;
      }
    if (matches > 1) {
      std::string ids;
      for (const auto& in : op->Inputs())
        if (in->Name() == key) {
          const std::string code = FourCCText(in->Id());
          ids += (ids.empty() ? "" : ", ") + Quoted(IdText(in->Id())) +
                 (code.find('\\') == std::string::npos ? " or " + Quoted(code) : std::string());
        }
      throw FlowError{where + ": the label " + Quoted(key) + " names " + std::to_string(matches) +
                      " inputs; key them by id instead (valid: " + ids + ")"};
    }
    if (found) return found;
    uint32_t id = 0;
    if (ParseFourCC(key, id))
      for (const auto& in : op->Inputs())
        if (in->Id() == id) return in.get();
    throw FlowError{where + ": no input " + Quoted(key) + " (valid: " + ValidInputs(op) + ")"};
  }

  // Whether a tool's entry sets the input with id `id`.
  static bool Gives(Operator* op, const Json& entry, uint32_t id) {
    const Json inputs = entry.value("inputs", Json::object());
    for (const auto& [key, value] : inputs.items())
      if (FindInput(op, key, {})->Id() == id) return true;
    return false;
  }

  void ApplyInputs(Operator* op, const Json& entry, Pass pass) {
    const Json& inputs = entry.value("inputs", Json::object());
    const std::string where = "tool " + Quoted(op->Name());
    if (!inputs.is_object()) throw FlowError{where + ": \"inputs\" must be an object keyed by input label"};
    // Clips first: choosing a clip resets a loader's range, which later inputs may then set.
    for (bool clips : {true, false})
      for (const auto& [key, value] : inputs.items()) {
        Input* in = FindInput(op, key, where);
        if ((in->Type() == vtype::Clip) != clips) continue;
        ApplyInput(in, value, where + ", input " + Quoted(in->Name()), pass);
      }
  }

  void ApplyInput(Input* in, const Json& value, const std::string& where, Pass pass) {
    if (value.is_object() && !IsReadableMatrix(in, value)) {
      CheckKeys(value, {"value", "keys", "curve", "link", "modifier"}, where + ": ");
      // Settling must not put a constant back over the animation.
      if (value.contains("value") && !(pass == Pass::Settle && value.contains("keys")))
        ApplyInput(in, value["value"], where, pass);
      if (value.contains("keys") && pass == Pass::Values) in->SetAnimation(ReadSpline(in, value, where));
      if (value.contains("link")) ApplyInput(in, value["link"], where, pass);
      if (value.contains("modifier") && pass == Pass::Connections) AddModifier(in, value["modifier"], where);
      return;
    }
    if (value.is_string() && IsLink(in, value.get<std::string>())) {
      if (pass == Pass::Connections) Connect(in, value.get<std::string>(), where);
      return;
    }
    if (pass == Pass::Connections) return;
    if (in->IsImage())
      throw FlowError{where + " takes an image: give the name of the tool it comes from, as \"Tool\" or \"Tool.Output\""};
    in->SetValue(ReadConstant(in, value, where));
  }

  // A string on an input that holds no text is a link, unless it names an entry of a list.
  static bool IsLink(const Input* in, const std::string& s) {
    if (in->Type() == vtype::Clip || in->Type() == vtype::Text) return false;
    for (const char* entry : in->Tags().GetStrings(in::ListEntry))
      if (s == entry) return false;
    return true;
  }

  Parameter* ReadConstant(const Input* in, const Json& v, const std::string& where) const {
    switch (in->Type()) {
      case vtype::Number:
        if (v.is_string()) {
          const auto entries = in->Tags().GetStrings(in::ListEntry);
          for (size_t i = 0; i < entries.size(); ++i)
            if (v.get<std::string>() == entries[i]) return new kestrion::Number(double(i));
        }
        if (!v.is_number() && !v.is_boolean()) throw FlowError{where + " takes a number" + ListHint(in)};
        return new kestrion::Number(Number(v, where));
      case vtype::Point:
        if (!v.is_array() || v.size() != 2 || !FitsFloat(v[0]) || !FitsFloat(v[1]))
          throw FlowError{where + " takes a point [x, y]"};
        return new Point(v[0].get<float>(), v[1].get<float>());
      case vtype::Text:
        if (!v.is_string()) throw FlowError{where + " takes a string"};
        return new Text(v.get<std::string>());
      case vtype::Clip:
        if (!v.is_string()) throw FlowError{where + " takes a clip name such as \"media/plate.####.png\""};
        return new ClipParameter(v.get<std::string>(), base_folder_);
      case vtype::LookUpTable: {
        if (IsFilterMatrix(in)) return new LookUpTable(ReadFilterMatrix(v, where));
        std::vector<uint16_t> entries;
        if (v.is_array())
          for (const Json& e : v) {
            if (!e.is_number_integer() || e.get<int64_t>() < 0 || e.get<int64_t>() > 65535) {
              entries.clear();
              break;
            }
            entries.push_back(e.get<uint16_t>());
          }
        if (entries.empty() && !(v.is_array() && v.empty()))
          throw FlowError{where + " takes a table: an array of whole numbers from 0 to 65535"};
        return new LookUpTable(std::move(entries));
      }
      default:
        throw FlowError{where + " has the value type " + Quoted(FourCCText(in->Type())) + ", which a text flow cannot set"};
    }
  }

  // A point's coordinates are floats.
  static bool FitsFloat(const Json& v) { return v.is_number() && std::fabs(v.get<double>()) <= FLT_MAX; }

  static std::string ListHint(const Input* in) {
    const auto entries = in->Tags().GetStrings(in::ListEntry);
    if (entries.empty()) return {};
    return " or one of its entries (" + JoinQuoted(entries) + ")";
  }

  Spline ReadSpline(const Input* in, const Json& anim, const std::string& where) const {
    if (in->Type() != vtype::Number && in->Type() != vtype::Point)
      throw FlowError{where + ": only number and point inputs can be animated"};
    uint32_t curve = in->Tags().GetInt(in::CurveKind, Spline::Linear);
    if (anim.contains("curve")) {
      const Json& c = anim["curve"];
      if (c == "linear")
        curve = Spline::Linear;
      else if (c == "bezier")
        curve = Spline::Bezier;
      else
        throw FlowError{where + ": \"curve\" must be \"linear\" or \"bezier\""};
    }
    Spline spline(curve);
    const Json& keys = anim["keys"];
    if (!keys.is_array()) throw FlowError{where + ": \"keys\" must be an array of [time, value] pairs"};
    for (const Json& k : keys) {
      if (!k.is_array() || k.size() < 2 || k.size() > 3 || !k[0].is_number() ||
          (k.size() == 3 && (!k[2].is_number_unsigned() || k[2].get<uint64_t>() > UINT32_MAX)))
        throw FlowError{where + ": each key must be [time, value] or [time, value, flags]"};
      KeyPoint key;
      key.time = k[0].get<double>();
      if (k.size() == 3) key.flags = k[2].get<uint32_t>();
      Ref<Parameter> value = Ref<Parameter>::Adopt(ReadConstant(in, k[1], where + ", key at " + k[0].dump()));
      if (auto* n = dynamic_cast<kestrion::Number*>(value.get())) key.value[0] = n->value;
      if (auto* p = dynamic_cast<Point*>(value.get())) {
        key.value[0] = p->x;
        key.value[1] = p->y;
      }
      spline.SetKey(key);
    }
    return spline;
  }

  // "Tool" (its first output that fits) or "Tool.Output" (by label or id).
  Output* FindOutput(const Input* in, const std::string& text, const std::string& where) const {
    if (Operator* tool = doc_.FindTool(text)) {
      for (const auto& out : tool->Outputs())
        if (out->Type() == in->Type() || (in->IsImage() && (out->Type() == vtype::Image || out->Type() == vtype::Mask)))
          return out.get();
      throw FlowError{where + ": tool " + Quoted(text) + " has no output that fits this input"};
    }
    for (size_t dot = text.find('.'); dot != std::string::npos; dot = text.find('.', dot + 1)) {
      Operator* tool = doc_.FindTool(text.substr(0, dot));
      if (!tool) continue;
      const std::string label = text.substr(dot + 1);
      uint32_t id = 0;
      const bool has_id = ParseFourCC(label, id);
      for (const auto& out : tool->Outputs())
        if (out->Name() == label || (has_id && out->Id() == id)) return out.get();
      std::vector<std::string> valid;
      for (const auto& out : tool->Outputs()) valid.push_back(out->Name());
      throw FlowError{where + ": tool " + Quoted(tool->Name()) + " has no output " + Quoted(label) + " (valid: " +
                      JoinQuoted(valid) + ")"};
    }
    std::vector<std::string> others;
    for (Operator* op : doc_.Tools())
      if (op != in->Owner()) others.push_back(op->Name());
    const std::string tools = JoinQuoted(others, "none");
    if (in->IsImage())
      throw FlowError{where + ": no tool " + Quoted(text) + " to take the image from (valid: " + tools + ")"};
    const auto entries = in->Tags().GetStrings(in::ListEntry);
    std::string valid;
    for (const char* entry : entries) valid += Quoted(entry) + ", ";
    throw FlowError{where + ": no tool " + (entries.empty() ? "" : "or entry ") + Quoted(text) + " (valid: " + valid +
                    ValueKind(in) + ", or a link to one of the tools " + tools + ")"};
  }

  static const char* ValueKind(const Input* in) {
    switch (in->Type()) {
      case vtype::Number: return "a number";
      case vtype::Point: return "a point [x, y]";
      case vtype::LookUpTable: return "an array";
      default: return "a string";
    }
  }

  void Connect(Input* in, const std::string& text, const std::string& where) {
    Output* from = FindOutput(in, text, where);
    HostError err;
    if (!doc_.Connect(from, in, &err)) throw FlowError{where + ": " + err.message};
  }

  void AddModifier(Input* in, const Json& entry, const std::string& where) {
    if (!entry.is_object() || !entry.contains("class") || !entry["class"].is_string())
      throw FlowError{where + ": \"modifier\" must be an object with a \"class\""};
    CheckKeys(entry, {"class", "name", "output", "inputs", "position", "data"}, where + ": ", " in the modifier");
    if (entry.contains("output") && !entry["output"].is_string())
      throw FlowError{where + ": the modifier's \"output\" must be the label of one of its outputs"};
    HostError err;
    Operator* mod = doc_.AddModifier(in, entry["class"].get<std::string>(), &err, entry.value("output", std::string()));
    if (!mod) throw FlowError{where + ": " + err.message};
    if (entry.contains("name")) {
      const Json& name = entry["name"];
      if (!name.is_string() || !doc_.RenameTool(mod, name.get<std::string>()))
        throw FlowError{where + ": the modifier's \"name\" must be a name no other tool has"};
    }
    if (entry.contains("position")) {
      const auto [x, y] = ReadPosition(entry["position"], where + ": the modifier's \"position\" must be [x, y] in whole numbers");
      mod->SetFlowPos(x, y);
    }
    if (entry.contains("data")) {
      auto* tool = dynamic_cast<NodeListTool*>(mod);
      if (!tool || !entry["data"].is_object())
        throw FlowError{where + ": a modifier's \"data\" is the node lists of a Path"};
      tool->SetNodeLists(ReadNodeLists(entry["data"], tool->NodeForm(), where + ", modifier " + Quoted(mod->Name())));
    }
    for (Pass pass : {Pass::Values, Pass::Connections, Pass::Settle}) ApplyInputs(mod, entry, pass);
  }

  CPipelineDoc& doc_;
  std::string base_folder_;
  std::vector<std::pair<std::string, int>> compression_;
};

// --- saving ---

class TextFlowWriter {
 public:
  explicit TextFlowWriter(const CPipelineDoc& doc) : doc_(doc) {}

  Json Write() const {
    Json root;
    root["kestrion"] = kFormatVersion;
    root["range"] = {doc_.render_range.start, doc_.render_range.end};
    if (doc_.current_time != 0.0) root["time"] = doc_.current_time;
    Json prefs;
    prefs["proxy"] = PGeneral.proxy;
    prefs["video"] = {{"width", PVidMode.width}, {"height", PVidMode.height}, {"aspect", {PVidMode.aspect_x, PVidMode.aspect_y}}};
    prefs["preview"] = {{"width", PPreview.width}, {"height", PPreview.height}, {"fit", PPreview.fit_to_box}};
    Json compression = Json::object();
    for (const auto& [ext, level] : ClipParameter::Compression()) compression[ext] = level;
    prefs["compression"] = compression;
    root["preferences"] = prefs;
    Json tools = Json::object();
    for (Operator* op : doc_.Tools())
      if (!IsAttachedModifier(op)) tools[op->Name()] = Tool(op, false);
    root["tools"] = tools;
    return root;
  }

 private:
  bool IsAttachedModifier(const Operator* op) const {
    for (Operator* other : doc_.Tools())
      for (const auto& in : other->Inputs())
        if (in->Modifier() == op) return true;
    return false;
  }

  Json Tool(Operator* op, bool as_modifier) const {
    Json tool;
    tool["class"] = op->Class()->Name();
    if (as_modifier) tool["name"] = op->Name();
    if (op->FlowX() != 0 || op->FlowY() != 0) tool["position"] = {op->FlowX(), op->FlowY()};
    Json inputs = Json::object();
    // Clips first and the global span last, the order in which loading them settles.
    std::vector<const Input*> order;
    for (const auto& in : op->Inputs())
      if (in->Type() == vtype::Clip) order.push_back(in.get());
    for (const auto& in : op->Inputs())
      if (in->Type() != vtype::Clip && in->Id() != kGlobalInId && in->Id() != kGlobalOutId) order.push_back(in.get());
    for (uint32_t id : {kGlobalInId, kGlobalOutId})
      if (const Input* in = op->FindInput(id)) order.push_back(in);
    for (const Input* in : order) {
      Json value = InputValue(*in);
      if (!value.is_null()) inputs[Key(*op, *in)] = value;
    }
    tool["inputs"] = inputs;
    if (auto* lists = dynamic_cast<const NodeListTool*>(op)) {
      tool["data"] = NodeListsJson(*lists);
    } else if (const Json data = OwnFields(op); !data.is_null()) {
      tool["data"] = data;
    }
    if (const Json attributes = UnusualAttributes(op); !attributes.is_null()) tool["attributes"] = attributes;
    return tool;
  }

  static Json NodesJson(const std::vector<PathKeyPoint>& nodes) {
    Json out = Json::array();
    for (const PathKeyPoint& n : nodes) {
      Json node = {FloatJson(n.x), FloatJson(n.y)};
      if (n.flags & PathKeyPoint::SavedFlags) node.push_back(n.flags & PathKeyPoint::SavedFlags);
      out.push_back(node);
    }
    return out;
  }

  static Json NodeListsJson(const NodeListTool& tool) {
    const NodeLists lists = tool.GetNodeLists();
    Json data = Json::object();
    if (tool.NodeForm() == NodeListTool::Form::OpenPath) {
      data["nodes"] = NodesJson(lists.shapes.empty() ? std::vector<PathKeyPoint>{} : lists.shapes.front().nodes);
      if (lists.aspect != NodeLists().aspect) data["aspect"] = FloatJson(lists.aspect);
      return data;
    }
    Json shapes = Json::array();
    for (const NodeShape& shape : lists.shapes) {
      Json entry = Json::object();
      if (shape.timed) entry["time"] = shape.time;
      entry["nodes"] = NodesJson(shape.nodes);
      shapes.push_back(entry);
    }
    data["shapes"] = shapes;
    return data;
  }

  // The label, or the id where another input has the same label.
  static std::string Key(const Operator& op, const Input& in) {
    int same = 0;
    for (const auto& other : op.Inputs()) same += other->Name() == in.Name();
    return same > 1 ? IdText(in.Id()) : in.Name();
  }

  Json InputValue(const Input& in) const {
    const InputState& s = in.State();
    Json value;
    if (s.constant && !in.IsImage()) value = Constant(*s.constant);
    if (auto* table = dynamic_cast<const LookUpTable*>(s.constant.get()); table && IsFilterMatrix(&in))
      value = WriteFilterMatrix(table->entries);
    const bool plain = !s.animation && !s.link && !s.modifier;
    if (plain) return value;
    Json obj = Json::object();
    if (!value.is_null()) obj["value"] = value;
    if (s.animation) {
      Json keys = Json::array();
      for (const KeyPoint& k : s.animation->Keys()) {
        Json key = {k.time, k.value[0]};
        if (in.Type() == vtype::Point) key[1] = {FloatJson(float(k.value[0])), FloatJson(float(k.value[1]))};
        if (k.flags) key.push_back(k.flags);
        keys.push_back(key);
      }
      obj["keys"] = keys;
      obj["curve"] = s.animation->Curve() == Spline::Bezier ? "bezier" : "linear";
    }
    if (s.link) obj["link"] = s.link->Owner()->Name() + "." + s.link->Name();
    if (s.modifier) {
      Json modifier = Tool(s.modifier.get(), true);
      if (s.modifier_output != FirstOutputOfType(*s.modifier, in.Type())) modifier["output"] = s.modifier_output->Name();
      obj["modifier"] = modifier;
    }
    if (obj.size() == 1 && obj.contains("link")) return obj["link"];
    return obj;
  }

  static const Output* FirstOutputOfType(const Operator& op, uint32_t type) {
    for (const auto& out : op.Outputs())
      if (out->Type() == type) return out.get();
    return nullptr;
  }

  static Json Constant(const Parameter& p) {
    if (auto* n = dynamic_cast<const kestrion::Number*>(&p)) return n->value;
    if (auto* pt = dynamic_cast<const Point*>(&p)) return {FloatJson(pt->x), FloatJson(pt->y)};
    if (auto* t = dynamic_cast<const Text*>(&p)) return t->text;
    if (auto* c = dynamic_cast<const ClipParameter*>(&p)) return c->SavedName();
    if (auto* l = dynamic_cast<const LookUpTable*>(&p)) return l->entries;
    return nullptr;
  }

  // A tool's saved record split at the end of its base record, which closes with the attributes
  // the tool kept (a count, then id and value words): those attributes, and the tool's own
  // fields up to the record's end.
  struct RecordParts {
    std::vector<std::pair<uint32_t, uint32_t>> attributes;
    std::vector<uint8_t> fields;
  };
  static RecordParts SplitRecord(Operator* op) {
    CArchive whole, base;
    op->Save(&whole, nullptr);
    op->Operator::Save(&base, nullptr);
    const std::vector<uint8_t>& bytes = whole.Bytes();
    const size_t kept_at = base.Bytes().size();  // after the class id and the count word
    RecordParts parts;
    if (bytes.size() < kept_at + 8) return parts;
    const auto word = [&bytes](size_t at) {
      uint32_t w = 0;
      std::memcpy(&w, bytes.data() + at, 4);
      return w;
    };
    const size_t kept = word(kept_at), begin = kept_at + 4 + 8 * kept, end = bytes.size() - 8;
    for (size_t i = 0; i < kept && kept_at + 12 + 8 * i <= bytes.size(); ++i)
      parts.attributes.push_back({word(kept_at + 4 + 8 * i), word(kept_at + 8 + 8 * i)});
    if (end > begin) parts.fields.assign(bytes.begin() + long(begin), bytes.begin() + long(end));
    return parts;
  }

  // The bytes a tool's record holds after the base record: by name where the tool lays its
  // fields out, else as hexadecimal. Null when there are none.
  static Json OwnFields(Operator* op) {
    const std::vector<uint8_t> bytes = SplitRecord(op).fields;
    if (bytes.empty()) return nullptr;
    if (Json named = NamedFields(op->DataLayout(), bytes); !named.is_null()) return named;
    return Hex(bytes.data(), bytes.size());
  }

  // The attributes a tool keeps that a new tool of its class would not, {"0x100000C8": value}
  // (the Luma Keyer of an old flow, whose check box is "Vert"); null when there are none.
  static Json UnusualAttributes(Operator* op) {
    const auto kept = SplitRecord(op).attributes;
    if (kept.empty()) return nullptr;
    Ref<Object> fresh = Ref<Object>::Adopt(op->Class()->Create(nullptr, nullptr));
    auto* usual_op = dynamic_cast<Operator*>(fresh.get());
    const auto usual = usual_op ? SplitRecord(usual_op).attributes : decltype(kept){};
    Json out = Json::object();
    for (const auto& [id, value] : kept) {
      if (std::find(usual.begin(), usual.end(), std::pair{id, value}) != usual.end()) continue;
      const uint8_t be[4] = {uint8_t(id >> 24), uint8_t(id >> 16), uint8_t(id >> 8), uint8_t(id)};
      std::string key = Hex(be, 4);
      for (char& c : key) c = char(std::toupper(c));
      out["0x" + key] = value;
    }
    return out.empty() ? Json() : out;
  }

  // Fields by name, {"name": value or [values]}; null when the bytes do not fit the layout.
  static Json NamedFields(const std::vector<DataField>& layout, const std::vector<uint8_t>& bytes) {
    if (layout.empty()) return nullptr;
    CArchive in(bytes);
    Json named = Json::object();
    try {
      for (const DataField& f : layout) {
        Json values = Json::array();
        for (int i = 0; i < f.count; ++i) {
          const double v = f.kind == DataField::Double ? in.ReadDouble() : double(in.ReadInt());
          if (!std::isfinite(v)) return nullptr;  // JSON has no such numbers
          values.push_back(f.kind == DataField::Double ? Json(v) : Json(int32_t(v)));
        }
        named[f.name] = f.count == 1 ? values[0] : values;
      }
    } catch (const std::exception&) {
      return nullptr;
    }
    return in.AtEnd() ? named : Json();
  }

  const CPipelineDoc& doc_;
};

std::string Extension(const std::string& path) {
  std::string ext = std::filesystem::path(path).extension().string();
  for (char& c : ext) c = char(std::tolower(uint8_t(c)));
  return ext;
}

}  // namespace

bool IsFlowFileName(const std::string& path) {
  const std::string ext = Extension(path);
  return ext == ".json" || ext == ".kfl";
}

namespace {

std::string FolderOf(const std::string& path) {
  const std::filesystem::path p(path);
  return p.has_parent_path() ? p.parent_path().string() : std::string(".");
}

}  // namespace

std::unique_ptr<CPipelineDoc> LoadTextFlow(const std::string& text, const std::string& base_folder, HostError* err) {
  auto doc = std::make_unique<CPipelineDoc>();
  // A flow that is refused leaves the settings as they were.
  const GeneralPrefs general = PGeneral;
  const VideoModePrefs video = PVidMode;
  const PreviewPrefs preview = PPreview;
  try {
    TextFlowReader(*doc, base_folder).Read(Json::parse(text));
    return doc;
  } catch (const Json::parse_error& e) {
    if (err) err->message = std::string("not valid JSON: ") + e.what();
  } catch (const FlowError& e) {
    if (err) err->message = e.message;
  } catch (const std::exception& e) {
    if (err) err->message = e.what();
  }
  doc.reset();
  PGeneral = general;
  PVidMode = video;
  PPreview = preview;
  return nullptr;
}

std::string SaveTextFlow(const CPipelineDoc& doc) { return TextFlowWriter(doc).Write().dump(2) + "\n"; }

std::unique_ptr<CPipelineDoc> LoadFlowFile(const std::string& path, HostError* err) {
  const std::string ext = Extension(path);
  if (ext == ".kfl") {
    ClipFolderScope folder(FolderOf(path));
    return CPipelineDoc::LoadFile(path, err);
  }
  if (ext != ".json") {
    if (err) err->message = "'" + path + "': a flow file ends in .json or .kfl";
    return nullptr;
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    if (err) err->message = "cannot read '" + path + "': " + std::strerror(errno);
    return nullptr;
  }
  std::stringstream text;
  text << file.rdbuf();
  auto doc = LoadTextFlow(text.str(), FolderOf(path), err);
  if (!doc && err) err->message = "'" + path + "': " + err->message;
  return doc;
}

bool SaveFlowFile(const CPipelineDoc& doc, const std::string& path, HostError* err) {
  const std::string ext = Extension(path);
  ClipFolderScope folder(FolderOf(path));
  if (ext == ".kfl") return doc.SaveFile(path, err);
  if (ext != ".json") {
    if (err) err->message = "'" + path + "': a flow file ends in .json or .kfl";
    return false;
  }
  try {
    const std::string text = SaveTextFlow(doc);
    CArchive ar;
    ar.WriteBytes(text.data(), text.size());
    ar.WriteFile(path);
    return true;
  } catch (const std::exception& e) {
    if (err) err->message = e.what();
    return false;
  }
}

}  // namespace kestrion

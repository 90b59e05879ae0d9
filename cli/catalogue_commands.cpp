#include "cli/catalogue_commands.h"

#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>

#include "module/operator_contract.h"
#include "host/graph/operator.h"
#include "host/graph/registry.h"

namespace kestrion::cli {

namespace {

using nlohmann::ordered_json;

std::string Hex(uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08X", v);
  return buf;
}

std::string Text(const char* s) { return s ? s : ""; }

const char* ClassTypeName(uint32_t type) {
  switch (type) {
    case classtype::PreviewOutput: return "preview output";
    case classtype::ImageTool: return "image tool";
    case classtype::Modifier: return "modifier";
    case classtype::Creator: return "loader/creator";
    case classtype::Saver: return "saver";
    case classtype::Mask: return "mask";
    default: return "unknown";
  }
}

// Creating an instance is the only way to see whether a class is built yet.
bool IsBuilt(Registry* reg) {
  Object* obj = nullptr;
  try {
    obj = reg->Create(nullptr, nullptr);
  } catch (...) {
    return false;
  }
  if (!obj) return false;
  const bool built = obj->GetAttrI(module::kNotYetBuiltAttr, 0) == 0;
  obj->Recycle();
  return built;
}

ordered_json ClassJson(Registry* reg) {
  const TagList& t = reg->Tags();
  ordered_json j;
  j["name"] = reg->Name();
  j["id"] = FourCCText(reg->ClassId());
  j["id_hex"] = Hex(reg->ClassId());
  j["type"] = reg->ClassType();
  j["category"] = Text(t.GetString(reg::Category));
  j["short_name"] = Text(t.GetString(reg::ShortName));
  j["display_name"] = Text(t.GetString(reg::DisplayName));
  j["long_name"] = Text(t.GetString(reg::LongName));
  j["description"] = Text(t.GetString(reg::Description));
  j["group"] = t.Has(reg::Group) ? ordered_json(t.GetInt(reg::Group)) : ordered_json(nullptr);
  j["tool_number"] = t.Has(reg::ToolNumber) ? ordered_json(Hex(t.GetInt(reg::ToolNumber))) : ordered_json(nullptr);
  // Tag 0x1000000e: 1 on tools that make their own frames, change the frame size or time, or
  // write output; 0 where it is absent.
  j["makes_frames"] = t.GetInt(reg::MakesFrames, 0);
  j["modifier_type"] = t.Has(reg::ModifierType) ? ordered_json(FourCCText(t.GetInt(reg::ModifierType))) : ordered_json(nullptr);
  j["built"] = IsBuilt(reg);
  return j;
}

std::string ControlName(uint32_t code) { return code ? FourCCText(code) : ""; }

ordered_json InputJson(const Input& in) {
  const TagList& t = in.Tags();
  ordered_json j;
  j["label"] = in.Name();
  j["id"] = FourCCText(in.Id());
  j["id_hex"] = Hex(in.Id());
  j["type"] = FourCCText(in.Type());
  j["control"] = ControlName(t.GetInt(in::Control));
  j["preview_control"] = ControlName(t.GetInt(in::PreviewControl));
  const auto bound = [&](uint32_t tag) { return t.Has(tag) ? ordered_json(t.GetDouble(tag)) : ordered_json(nullptr); };
  j["lowest"] = bound(in::Lowest);
  j["highest"] = bound(in::Highest);
  j["slider"] = {bound(in::SliderLow), bound(in::SliderHigh)};
  if (in.Type() == vtype::Point)
    j["default"] = {t.GetDouble(in::DefaultX), t.GetDouble(in::DefaultY)};
  else if (in.Type() == vtype::Number)
    j["default"] = t.GetDouble(in::Default);
  else
    j["default"] = nullptr;
  if (t.Has(in::WholeNumber)) j["whole_number"] = t.GetInt(in::WholeNumber) != 0;
  if (in.IsImage()) j["optional"] = in.IsOptional();
  const auto entries = t.GetStrings(in::ListEntry);
  if (!entries.empty()) {
    j["entries"] = ordered_json::array();
    for (const char* e : entries) j["entries"].push_back(e);
  }
  return j;
}

ordered_json OutputJson(const Output& out) {
  ordered_json j;
  j["label"] = out.Name();
  j["id"] = FourCCText(out.Id());
  j["id_hex"] = Hex(out.Id());
  j["type"] = FourCCText(out.Type());
  return j;
}

std::string Number(const ordered_json& v) {
  if (v.is_null()) return "";
  char buf[32];
  std::snprintf(buf, sizeof buf, "%g", v.get<double>());
  return buf;
}

Registry* FindClass(const std::string& name) {
  if (Registry* r = ClassRegistry->FindByName(name)) return r;
  for (Registry* r : ClassRegistry->Records())
    if (r->DisplayName() == name) return r;
  return nullptr;
}

}  // namespace

int ListTools(bool json) {
  ordered_json all = ordered_json::array();
  for (Registry* reg : ClassRegistry->Records()) all.push_back(ClassJson(reg));
  if (json) {
    std::cout << all.dump(2) << "\n";
    return 0;
  }
  for (const auto& c : all) {
    std::printf("%-17s %-4s %s  %-15s %-15s %-5s %-24s", c["name"].get<std::string>().c_str(),
                c["id"].get<std::string>().c_str(), c["id_hex"].get<std::string>().c_str(),
                ClassTypeName(c["type"].get<uint32_t>()), c["category"].get<std::string>().c_str(),
                c["short_name"].get<std::string>().c_str(), c["display_name"].get<std::string>().c_str());
    if (!c["long_name"].get<std::string>().empty()) std::printf(" long name \"%s\"", c["long_name"].get<std::string>().c_str());
    if (!c["group"].is_null()) std::printf(" group %u", c["group"].get<uint32_t>());
    if (!c["tool_number"].is_null()) std::printf(" no. %s", c["tool_number"].get<std::string>().c_str());
    if (c["makes_frames"].get<uint32_t>() != 0) std::printf(" makes frames");
    if (!c["modifier_type"].is_null()) std::printf(" gives %s", c["modifier_type"].get<std::string>().c_str());
    if (!c["built"].get<bool>()) std::printf(" (not yet built)");
    std::printf("\n    %s\n", c["description"].get<std::string>().c_str());
  }
  return 0;
}

int DescribeTool(const std::string& name, bool json) {
  Registry* reg = FindClass(name);
  if (!reg) {
    std::cerr << "kestrion: unknown tool '" << name << "'; `kestrion tools` lists them\n";
    return 2;
  }
  Object* obj = nullptr;
  try {
    obj = reg->Create(nullptr, nullptr);
  } catch (const std::exception& e) {
    std::cerr << "kestrion: could not create a " << reg->Name() << ": " << e.what() << "\n";
    return 1;
  }
  auto* op = dynamic_cast<Operator*>(obj);
  if (!op) {
    if (obj) obj->Recycle();
    std::cerr << "kestrion: could not create a " << reg->Name() << "\n";
    return 1;
  }
  ordered_json j = ClassJson(reg);
  j["inputs"] = ordered_json::array();
  for (const auto& in : op->Inputs()) j["inputs"].push_back(InputJson(*in));
  j["outputs"] = ordered_json::array();
  for (const auto& out : op->Outputs()) j["outputs"].push_back(OutputJson(*out));
  op->Recycle();

  if (json) {
    std::cout << j.dump(2) << "\n";
    return 0;
  }
  std::printf("%s (%s, class id %s %s)%s\n", j["name"].get<std::string>().c_str(),
              j["display_name"].get<std::string>().empty() ? reg->Name().c_str() : j["display_name"].get<std::string>().c_str(),
              j["id"].get<std::string>().c_str(), j["id_hex"].get<std::string>().c_str(),
              j["built"].get<bool>() ? "" : " (not yet built)");
  std::printf("inputs:\n");
  for (const auto& in : j["inputs"]) {
    std::printf("  \"%s\"  %s %s  %s", in["label"].get<std::string>().c_str(), in["id_hex"].get<std::string>().c_str(),
                in["id"].get<std::string>().c_str(), in["type"].get<std::string>().c_str());
    if (!in["control"].get<std::string>().empty()) std::printf("  control %s", in["control"].get<std::string>().c_str());
    if (!in["preview_control"].get<std::string>().empty())
      std::printf("  preview %s", in["preview_control"].get<std::string>().c_str());
    if (!in["lowest"].is_null() || !in["highest"].is_null())
      std::printf("  range %s..%s", Number(in["lowest"]).c_str(), Number(in["highest"]).c_str());
    if (!in["slider"][0].is_null() || !in["slider"][1].is_null())
      std::printf("  slider %s..%s", Number(in["slider"][0]).c_str(), Number(in["slider"][1]).c_str());
    if (in["default"].is_array())
      std::printf("  default (%s, %s)", Number(in["default"][0]).c_str(), Number(in["default"][1]).c_str());
    else if (!in["default"].is_null())
      std::printf("  default %s", Number(in["default"]).c_str());
    if (in.contains("optional") && in["optional"].get<bool>()) std::printf("  optional");
    std::printf("\n");
    if (in.contains("entries")) {
      int index = 0;
      for (const auto& e : in["entries"]) std::printf("      %d: \"%s\"\n", index++, e.get<std::string>().c_str());
    }
  }
  std::printf("outputs:\n");
  for (const auto& out : j["outputs"])
    std::printf("  \"%s\"  %s %s  %s\n", out["label"].get<std::string>().c_str(), out["id_hex"].get<std::string>().c_str(),
                out["id"].get<std::string>().c_str(), out["type"].get<std::string>().c_str());
  return 0;
}

}  // namespace kestrion::cli

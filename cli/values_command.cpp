#include "cli/values_command.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>

#include "cli/flow_support.h"
#include "host/base/prefs.h"

namespace kestrion::cli {

namespace {

bool IsImageType(uint32_t type) { return type == vtype::Image || type == vtype::Mask; }

std::string NameOf(const Output& out) { return out.Owner()->Name() + "." + out.Name(); }

// Every output a name may give, in the order of the flow's tools.
std::vector<Output*> ValueOutputs(const CPipelineDoc& doc) {
  std::vector<Output*> outputs;
  for (Operator* op : doc.Tools())
    for (const auto& out : op->Outputs())
      if (!IsImageType(out->Type())) outputs.push_back(out.get());
  return outputs;
}

// The outputs a name gives: a tool's every value output, or one "Tool.Output label" (tool
// names may hold dots themselves). Empty when the name gives none.
std::vector<Output*> Resolve(const CPipelineDoc& doc, const std::string& name) {
  std::vector<Output*> found;
  for (Output* out : ValueOutputs(doc))
    if (out->Owner()->Name() == name || NameOf(*out) == name) found.push_back(out);
  return found;
}

template <class T>
std::string Shortest(T v) {
  if (std::isnan(v)) return "\"nan\"";
  if (std::isinf(v)) return v > 0 ? "\"inf\"" : "\"-inf\"";
  char text[32];
  return std::string(text, std::to_chars(text, text + sizeof text, v).ptr);
}

std::string ValueJson(const Parameter* value) {
  if (auto* n = dynamic_cast<const Number*>(value)) return NumberJson(n->value);
  if (auto* p = dynamic_cast<const Point*>(value)) return PointJson(p->x, p->y);
  if (auto* t = dynamic_cast<const Text*>(value)) return nlohmann::json(t->text).dump();
  return "null";
}

}  // namespace

std::string NumberJson(double v) { return Shortest(v); }
std::string PointJson(float x, float y) {
  std::string text = "[";
  text.append(Shortest(x)).append(", ").append(Shortest(y)).append("]");
  return text;
}

int PrintValues(const ValuesOptions& options) {
  std::optional<FlowRun> run = LoadFlowRun(options.flow, options.frames);
  if (!run) return status::BadInput;
  CPipelineDoc& doc = *run->doc;
  std::vector<Output*> outputs;
  for (const std::string& name : options.names) {
    const std::vector<Output*> found = Resolve(doc, name);
    if (found.empty()) {
      std::string valid;
      for (Output* out : ValueOutputs(doc)) valid += (valid.empty() ? "" : ", ") + Quoted(NameOf(*out));
      std::fprintf(stderr, "kestrion: '%s' has no value %s (valid: %s)\n", options.flow.c_str(), Quoted(name).c_str(),
                   valid.empty() ? "none: no tool of the flow outputs numbers or points" : valid.c_str());
      return status::BadInput;
    }
    outputs.insert(outputs.end(), found.begin(), found.end());
  }
  // Only the tools the values come from render, so only their clips need frames.
  const std::vector<Operator*> tools = ToolsUpstream(outputs);
  if (const std::string problem = CheckClips(tools); !problem.empty()) {
    std::fprintf(stderr, "kestrion: '%s': %s\n", options.flow.c_str(), problem.c_str());
    return status::BadInput;
  }

  const FrameList& frames = run->frames;
  const uint32_t flags = PGeneral.proxy > 1 ? rflag::Proxy : 0;
  RenderMessage message{double(frames.first), double(frames.last), 1.0, nullptr};
  for (Operator* op : tools) {
    op->time_step = 1.0;
    op->OnStartRender(&message);
  }
  FrameResult result;
  {
    SignalWatch signals(doc);
    for (long frame = frames.first; frame <= frames.last && result.status == status::Done; frame += frames.step) {
      std::string line = "{\"frame\": " + std::to_string(frame);
      for (Output* out : outputs) {
        Ref<Parameter> value;
        result = RenderOutput(doc, out, frame, double(frame), flags, false, value);
        if (result.status != status::Done) break;
        line += ", " + nlohmann::json(NameOf(*out)).dump() + ": " + ValueJson(value.get());
      }
      if (result.status != status::Done) break;
      std::printf("%s}\n", line.c_str());
      std::fflush(stdout);
    }
  }
  for (Operator* op : tools) op->OnEndRender();
  if (result.status != status::Done) std::fprintf(stderr, "kestrion: %s\n", result.message.c_str());
  return result.status;
}

}  // namespace kestrion::cli

#include "cli/track_command.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <vector>

#include "cli/flow_support.h"
#include "cli/values_command.h"
#include "host/base/archive.h"
#include "host/base/prefs.h"
#include "host/document/flow_file.h"
#include "host/graph/registry.h"

namespace kestrion::cli {

namespace {

namespace fs = std::filesystem;

const char* const kPositions[] = {"Position", "Steady Position", "Unsteady Position"};

std::vector<std::string> TrackerNames(const CPipelineDoc& doc) {
  std::vector<std::string> names;
  for (Operator* op : doc.Tools())
    if (op->Class() && op->Class()->Name() == "Tracker") names.push_back(Quoted(op->Name()));
  return names;
}

// Selects (at `select`) or tracks one frame and prints its line.
FrameResult TrackFrame(CPipelineDoc& doc, Operator* tracker, long frame, uint32_t flags) {
  Ref<Parameter> value;
  FrameResult result = RenderOutput(doc, tracker->FindOutput(0, "Image"), frame, double(frame), flags, true, value);
  std::string line = "{\"frame\": " + std::to_string(frame);
  for (const char* label : kPositions) {
    if (result.status != status::Done) return result;
    result = RenderOutput(doc, tracker->FindOutput(0, label), frame, double(frame), flags, false, value);
    auto* p = dynamic_cast<Point*>(value.get());
    line.append(", \"").append(label).append("\": ").append(p ? PointJson(p->x, p->y) : "null");
  }
  if (result.status == status::Done) std::printf("%s}\n", line.c_str());
  std::fflush(stdout);
  return result;
}

// Writes the tracked flow to `target` as the last thing the command does: into a temporary file
// beside it first; then, unless a stop signal came meanwhile, the original is kept as .bak
// (when the flow itself is the target) and the file takes the target's name.
FrameResult SaveTrack(const CPipelineDoc& doc, const std::string& flow, const std::string& target) {
  const fs::path path(target);
  std::string name = ".";
  name.append(path.stem().string()).append(".track-").append(std::to_string(::getpid()));
  name.append(path.extension().string());
  const fs::path temp = path.parent_path() / name;
  HostError err;
  if (!SaveFlowFile(doc, temp.string(), &err)) return {status::FrameFailed, err.message};
  const auto give_up = [&](FrameResult why) {
    fs::remove(temp);
    return why;
  };
  if (const int sig = SignalWatch::Signal()) return give_up(StoppedBySignal(sig));
  if (target == flow) {
    std::ifstream original(flow, std::ios::binary);
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(original), std::istreambuf_iterator<char>()};
    try {
      CArchive copy(bytes);
      copy.WriteFile(flow + ".bak");
    } catch (const std::exception& e) {
      return give_up({status::FrameFailed, e.what()});
    }
  }
  if (std::rename(temp.c_str(), target.c_str()) != 0)
    return give_up({status::FrameFailed, "cannot write '" + target + "': " + std::strerror(errno)});
  return {};
}

}  // namespace

int TrackFlow(const TrackOptions& options) {
  std::optional<FlowRun> run = LoadFlowRun(options.flow, options.frames);
  if (!run) return status::BadInput;
  CPipelineDoc& doc = *run->doc;
  const FrameList& frames = run->frames;
  const std::string target = options.out.empty() ? options.flow : options.out;
  const auto refuse = [](const std::string& message) {
    std::fprintf(stderr, "kestrion: %s\n", message.c_str());
    return status::BadInput;
  };
  if (frames.step != 1) return refuse("-F " + options.frames + ": a track runs over every frame: give START-END");
  if (!IsFlowFileName(target)) return refuse("'" + target + "': a flow file ends in .json or .kfl");
  Operator* tracker = doc.FindTool(options.tool);
  if (!tracker || !tracker->Class() || tracker->Class()->Name() != "Tracker") {
    std::string valid;
    for (const std::string& name : TrackerNames(doc)) valid += (valid.empty() ? "" : ", ") + name;
    return refuse("'" + options.flow + "' has no Tracker " + Quoted(options.tool) + " (valid: " +
                  (valid.empty() ? "none" : valid) + ")");
  }
  Input* image = tracker->FindInput(0, "Image");
  if (!image->Link()) return refuse("tool " + Quoted(tracker->Name()) + ": its \"Image\" input is not connected");
  const std::vector<Operator*> tools = ToolsUpstream({tracker->Outputs()[0].get()});
  if (const std::string problem = CheckClips(tools); !problem.empty())
    return refuse("'" + options.flow + "': " + problem);

  const uint32_t flags = PGeneral.proxy > 1 ? rflag::Proxy : 0;
  RenderMessage message{double(frames.first), double(frames.last), 1.0, nullptr};
  for (Operator* op : tools) {
    op->time_step = 1.0;
    op->OnStartRender(&message);
  }
  // The pattern is selected at the first frame, at "Center" and "Size" there; the track keys
  // "Center" there too, so that the saved flow holds a key at every frame of the track.
  Input* centre = tracker->FindInput(0, "Center");
  Input* select = tracker->FindInput(0, "Select Pattern");
  centre->SetKey(Ref<Parameter>::Adopt(centre->ValueAt(double(frames.first))).Release(), double(frames.first));
  select->SetValue(new Number(1));
  FrameResult result;
  {
    SignalWatch signals(doc);
    Progress progress(frames.Count());
    for (long frame = frames.first; frame <= frames.last && result.status == status::Done; ++frame) {
      result = TrackFrame(doc, tracker, frame, flags);
      if (frame == frames.first) select->SetValue(new Number(0));
      if (result.status == status::Done) progress.FrameDone(frame, false);
    }
    if (result.status != status::Done) progress.Interrupt();
  }
  for (Operator* op : tools) op->OnEndRender();
  if (result.status == status::Done) result = SaveTrack(doc, options.flow, target);
  if (result.status != status::Done) std::fprintf(stderr, "kestrion: %s\n", result.message.c_str());
  return result.status;
}

}  // namespace kestrion::cli

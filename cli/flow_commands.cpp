#include "cli/flow_commands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "cli/frame_chunks.h"
#include "host/clip/clip.h"
#include "host/document/flow_file.h"
#include "host/base/prefs.h"
#include "host/document/source_operator.h"
#include "host/graph/threads.h"

namespace kestrion::cli {

namespace {

constexpr uint32_t kFilenameId = FourCC("File");

bool FileHasData(const std::string& path) {
  struct stat st{};
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0;
}

// A frame counts as rendered when every saver's file for it exists and is not empty.
bool FrameOnDisk(const std::vector<Operator*>& savers, long frame) {
  for (Operator* saver : savers) {
    Input* in = saver->FindInput(kFilenameId);
    Ref<ClipParameter> clip = in ? in->ValueAs<ClipParameter>() : Ref<ClipParameter>();
    if (!clip || !FileHasData(clip->FramePath(int(frame)))) return false;
  }
  return true;
}

// Removes what renders killed before they could rename a frame left beside it: the temporary
// files ".FRAME.tmp-PID-N" of this render's frames whose process is gone from this machine.
void RemoveStaleTemporaries(const std::vector<Operator*>& savers, const FrameList& frames) {
  for (Operator* saver : savers) {
    Input* in = saver->FindInput(kFilenameId);
    Ref<ClipParameter> clip = in ? in->ValueAs<ClipParameter>() : Ref<ClipParameter>();
    if (!clip) continue;
    std::set<std::string> names;
    std::filesystem::path folder;
    for (long frame = frames.first; frame <= frames.last; frame += frames.step) {
      const std::filesystem::path path(clip->FramePath(int(frame)));
      folder = path.parent_path();
      names.insert(path.filename().string());
    }
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(folder.empty() ? "." : folder, ec)) {
      const std::string file = entry.path().filename().string();
      const size_t mark = file.rfind(".tmp-");
      if (file[0] != '.' || mark == std::string::npos || mark < 1 || !names.count(file.substr(1, mark - 1))) continue;
      const long pid = std::strtol(file.c_str() + mark + 5, nullptr, 10);
      if (pid > 0 && pid != ::getpid() && ::kill(pid_t(pid), 0) != 0 && errno == ESRCH)
        std::filesystem::remove(entry.path(), ec);
    }
  }
}

// A rendered frame whose files are still being written: the writer's ticket after each saver
// render, in render order.
struct FrameWrites {
  long frame = 0;
  std::vector<std::pair<const Operator*, uint64_t>> tickets;
};

// Renders every saver at the frame's times (two with fields: n and n + 0.5); the savers queue
// their writes on `writer`.
FrameResult RenderFrame(CPipelineDoc& doc, const std::vector<Operator*>& savers, uint32_t flags, bool fields,
                        FrameWriter& writer, FrameWrites& writes) {
  const long frame = writes.frame;
  for (double time : fields ? std::vector<double>{double(frame), frame + 0.5} : std::vector<double>{double(frame)})
    for (Operator* saver : savers) {
      Ref<Parameter> out;
      FrameResult result = RenderOutput(doc, saver->Outputs()[0].get(), frame, time, flags, true, out);
      writes.tickets.emplace_back(saver, writer.Queued());
      if (result.status != status::Done) return result;
    }
  return {};
}

// Waits until a frame's files are written; the first saver whose write failed fails the frame.
FrameResult FinishWrites(FrameWriter& writer, const FrameWrites& writes) {
  for (const auto& [saver, ticket] : writes.tickets)
    if (std::optional<Failure> failure = writer.Wait(ticket)) return ToolFailed(writes.frame, saver, {*failure}, {});
  return {};
}

}  // namespace

int RenderFlow(const RenderOptions& options) {
  std::optional<Chunk> chunk;
  if (!options.chunk.empty() && !(chunk = ChunkOption(options.chunk))) return status::BadInput;
  std::optional<FlowRun> run = LoadFlowRun(options.flow, options.frames);
  if (!run) return status::BadInput;
  CPipelineDoc& doc = *run->doc;
  const std::optional<FrameList> chunk_frames = chunk ? ChunkFrames(run->frames, *chunk) : run->frames;

  const std::vector<Operator*> tools = doc.Tools();
  std::vector<Operator*> savers;
  for (Operator* op : tools)
    if (op->op_flags & opflag::Saver) savers.push_back(op);
  if (savers.empty()) {
    std::fprintf(stderr, "kestrion: '%s' has no Saver: nothing would be written\n", options.flow.c_str());
    return status::BadInput;
  }
  if (const std::string problem = CheckClips(tools); !problem.empty()) {
    std::fprintf(stderr, "kestrion: '%s': %s\n", options.flow.c_str(), problem.c_str());
    return status::BadInput;
  }
  if (chunk) {
    const std::string part = "chunk " + std::to_string(chunk->index) + "/" + std::to_string(chunk->count) +
                             " of frames " + FramesText(run->frames);
    if (!chunk_frames) {
      std::fprintf(stderr, "kestrion: %s holds no frame: nothing to render\n", part.c_str());
      return status::Done;
    }
    std::fprintf(stderr, "kestrion: %s: frames %s\n", part.c_str(), FramesText(*chunk_frames).c_str());
  }
  const FrameList& frames = *chunk_frames;

  RemoveStaleTemporaries(savers, frames);
  if (options.threads > 0) SetWorkerThreads(options.threads);
  if (options.proxy > 0) PGeneral.proxy = options.proxy;
  uint32_t flags = 0;
  if (options.quick) flags |= rflag::Quick;
  if (PGeneral.proxy > 1) flags |= rflag::Proxy;
  const double step = options.fields ? 0.5 : 1.0;

  // Frame n is written while frame n + 1 renders: a frame counts as done once its files are
  // on disk, and the first failure, of a render or of a write, ends the render.
  FrameWriter writer;
  RenderMessage message{double(frames.first), double(frames.last), step, &writer};
  for (Operator* op : tools) {
    op->time_step = step;
    op->OnStartRender(&message);
  }
  FrameResult result;
  // With --keep-going a failed frame is told at once and the render goes on; the frames that
  // failed are named at the end. Each frame's files are then waited for before the next frame
  // renders, so that a failed write is told with its own frame.
  std::vector<long> failed;
  bool all_temporary = true;
  {
    SignalWatch signals(doc);
    Progress progress(frames.Count());
    std::optional<FrameWrites> writing;
    const auto finish_writing = [&] {
      if (!writing) return true;
      result = FinishWrites(writer, *writing);
      if (result.status == status::Done) progress.FrameDone(writing->frame, false);
      const long frame = writing->frame;
      writing.reset();
      if (result.status == status::Done || !options.keep_going) return result.status == status::Done;
      progress.Interrupt();
      std::fprintf(stderr, "kestrion: %s\n", result.message.c_str());
      failed.push_back(frame);
      all_temporary = all_temporary && result.status == status::TryLater;
      writer.ClearFailure();
      result = {};
      return true;
    };
    for (long frame = frames.first; frame <= frames.last; frame += frames.step) {
      if (signals.Signal() != 0) {
        if (finish_writing()) result = StoppedBySignal(signals.Signal());
        break;
      }
      if (options.resume && FrameOnDisk(savers, frame)) {
        if (!finish_writing()) break;
        progress.FrameDone(frame, true);
        continue;
      }
      FrameWrites writes{frame, {}};
      const FrameResult rendered = RenderFrame(doc, savers, flags, options.fields, writer, writes);
      if (!finish_writing()) break;
      result = rendered;
      if (result.status != status::Done && (!options.keep_going || result.status >= status::SignalBase)) break;
      if (result.status != status::Done) {
        progress.Interrupt();
        std::fprintf(stderr, "kestrion: %s\n", result.message.c_str());
        failed.push_back(frame);
        all_temporary = all_temporary && result.status == status::TryLater;
        writer.Wait(writer.Queued());
        writer.ClearFailure();
        result = {};
        continue;
      }
      writing = std::move(writes);
      if (options.keep_going && !finish_writing()) break;
    }
    if (result.status == status::Done) finish_writing();
    if (result.status != status::Done) progress.Interrupt();
  }
  if (result.status == status::Done && !failed.empty()) {
    std::string list;
    for (long frame : failed) list += (list.empty() ? "" : ", ") + std::to_string(frame);
    result = {all_temporary ? status::TryLater : status::FrameFailed,
              std::to_string(failed.size()) + " of " + std::to_string(frames.Count()) + " frames failed: " + list};
  }
  for (Operator* op : tools) op->OnEndRender();
  if (result.status != status::Done) std::fprintf(stderr, "kestrion: %s\n", result.message.c_str());
  return result.status;
}

int ConvertFlow(const std::string& in, const std::string& out) {
  if (!IsFlowFileName(out)) {
    std::fprintf(stderr, "kestrion: '%s': a flow file ends in .json or .kfl\n", out.c_str());
    return status::BadInput;
  }
  HostError err;
  auto doc = LoadFlowFile(in, &err);
  if (!doc) {
    std::fprintf(stderr, "kestrion: %s\n", err.message.c_str());
    return status::BadInput;
  }
  if (!SaveFlowFile(*doc, out, &err)) {
    std::fprintf(stderr, "kestrion: %s\n", err.message.c_str());
    return status::FrameFailed;
  }
  return status::Done;
}

}  // namespace kestrion::cli

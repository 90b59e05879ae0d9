#include "cli/flow_commands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "host/clip/clip.h"
#include "host/base/failure.h"
#include "host/document/flow_file.h"
#include "host/base/prefs.h"
#include "host/document/source_operator.h"
#include "host/graph/threads.h"

namespace kestrion::cli {

namespace {

constexpr uint32_t kFilenameId = FourCC("File");

// A lock-free atomic is safe to store from a signal handler and to read from the watcher thread.
std::atomic<int> g_stop_signal{0};
static_assert(std::atomic<int>::is_always_lock_free);
extern "C" void OnStopSignal(int sig) { g_stop_signal.store(sig); }

struct FrameList {
  long first = 0, last = 0, step = 1;
  long Count() const { return (last - first) / step + 1; }
};

// Reads a whole number of up to nine digits, with an optional minus sign, at `at`.
bool ReadFrameNumber(const std::string& text, size_t& at, long& value) {
  const size_t start = at;
  if (at < text.size() && text[at] == '-') ++at;
  const size_t digits = at;
  while (at < text.size() && text[at] >= '0' && text[at] <= '9') ++at;
  if (at == digits || at - digits > 9) return false;
  value = std::stol(text.substr(start, at - start));
  return true;
}

// "12", "1-100" or "1-100x5"; frame numbers may be negative ("-10--1").
std::optional<FrameList> ParseFrames(const std::string& text) {
  FrameList frames;
  size_t at = 0;
  if (!ReadFrameNumber(text, at, frames.first)) return std::nullopt;
  frames.last = frames.first;
  if (at < text.size() && text[at] == '-' && !ReadFrameNumber(text, ++at, frames.last)) return std::nullopt;
  if (at < text.size() && text[at] == 'x' && (!ReadFrameNumber(text, ++at, frames.step) || frames.step < 1))
    return std::nullopt;
  if (at != text.size() || frames.last < frames.first) return std::nullopt;
  return frames;
}

std::string Quoted(const std::string& s) { return "\"" + s + "\""; }

// Checks before rendering that every saver has a clip to write and every other tool's clip
// has frames on disk; returns the first problem.
std::string CheckClips(const std::vector<Operator*>& tools) {
  for (Operator* op : tools)
    for (const auto& in : op->Inputs()) {
      if (in->Type() != vtype::Clip || in->Source() != ValueSource::Constant) continue;
      Ref<ClipParameter> clip = in->ValueAs<ClipParameter>();
      const std::string where = "tool " + Quoted(op->Name()) + ", input " + Quoted(in->Name());
      if (!clip || clip->Name().empty()) return where + ": no clip is set";
      if (!(op->op_flags & opflag::Saver) && clip->Length() == 0)
        return where + ": no frames of '" + clip->Path() + "' on disk";
    }
  return {};
}

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

// Progress on stderr: a bar redrawn in place on a terminal, a line per frame otherwise.
class Progress {
 public:
  explicit Progress(long total) : total_(total), live_(::isatty(STDERR_FILENO) != 0) {}

  void FrameDone(long frame, bool skipped) {
    ++done_;
    if (!skipped) ++rendered_;
    const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
    const double fps = rendered_ > 0 && seconds > 0 ? rendered_ / seconds : 0.0;
    const long left = total_ - done_;
    const std::string eta = fps > 0 ? Duration(double(left) / fps) : "--:--";
    if (live_) {
      constexpr int kWidth = 30;
      const int filled = int(kWidth * done_ / total_);
      std::fprintf(stderr, "\r[%.*s%*s] frame %ld  %ld/%ld  %.2f fps  %s left  ", filled,
                   "##############################", kWidth - filled, "", frame, done_, total_, fps, eta.c_str());
      if (done_ == total_) std::fputc('\n', stderr);
    } else {
      std::fprintf(stderr, "frame %ld %s (%ld/%ld, %.2f fps, %s left)\n", frame, skipped ? "already on disk" : "done",
                   done_, total_, fps, eta.c_str());
    }
    std::fflush(stderr);
  }

  // Ends a live bar's line before a message.
  void Interrupt() {
    if (live_ && done_ > 0 && done_ < total_) std::fputc('\n', stderr);
  }

 private:
  using Clock = std::chrono::steady_clock;
  static std::string Duration(double seconds) {
    const long s = long(std::ceil(seconds));
    char text[32];
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    return text;
  }

  long total_, done_ = 0, rendered_ = 0;
  bool live_;
  Clock::time_point start_ = Clock::now();
};

// Stops the render in progress when a stop signal arrives (handlers may only set a flag).
class SignalWatch {
 public:
  explicit SignalWatch(CPipelineDoc& doc) : doc_(doc) {
    struct sigaction action{};
    action.sa_handler = OnStopSignal;
    sigemptyset(&action.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &action, nullptr);
    watcher_ = std::thread([this] {
      while (!done_.load()) {
        if (g_stop_signal.load() != 0) doc_.Abort();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
    });
  }
  ~SignalWatch() {
    done_.store(true);
    watcher_.join();
  }
  int Signal() const { return g_stop_signal.load(); }

 private:
  CPipelineDoc& doc_;
  std::atomic<bool> done_{false};
  std::thread watcher_;
};

struct FrameResult {
  int status = status::Done;
  std::string message;
};

FrameResult StoppedBySignal(int sig) {
  return {status::SignalBase + sig, "stopped by signal " + std::to_string(sig) + " (" + strsignal(sig) + ")"};
}

// A frame failed at a saver for the reasons noted (or, with none, for `error`).
FrameResult SaverFailed(long frame, const Operator* saver, const std::vector<Failure>& failures,
                        const std::string& error) {
  FrameResult result{status::FrameFailed, "frame " + std::to_string(frame) + ", tool " + Quoted(saver->Name()) + ": "};
  if (!failures.empty()) {
    bool temporary = true;
    for (size_t i = 0; i < failures.size(); ++i) {
      result.message += (i ? "; " : "") + failures[i].message;
      temporary = temporary && failures[i].temporary;
    }
    if (temporary) result.status = status::TryLater;
  } else {
    result.message += error;
  }
  return result;
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
  TakeFailures();
  const long frame = writes.frame;
  for (double time : fields ? std::vector<double>{double(frame), frame + 0.5} : std::vector<double>{double(frame)})
    for (Operator* saver : savers) {
      HostError err;
      Ref<Parameter> out = doc.Render(saver->Outputs()[0].get(), time, flags, &err);
      writes.tickets.emplace_back(saver, writer.Queued());
      std::vector<Failure> failures = TakeFailures();
      if (const int sig = g_stop_signal.load()) return StoppedBySignal(sig);
      if (!out || !err.message.empty()) {
        std::string error = err.message;
        if (error.empty()) {
          const std::string why = WhyNoImage(saver, time);
          error = "no image reached it" + (why.empty() ? "" : ": " + why);
        }
        return SaverFailed(frame, saver, failures, error);
      }
      for (const Failure& f : failures) std::fprintf(stderr, "warning: frame %ld: %s\n", frame, f.message.c_str());
    }
  return {};
}

// Waits until a frame's files are written; the first saver whose write failed fails the frame.
FrameResult FinishWrites(FrameWriter& writer, const FrameWrites& writes) {
  for (const auto& [saver, ticket] : writes.tickets)
    if (std::optional<Failure> failure = writer.Wait(ticket)) return SaverFailed(writes.frame, saver, {*failure}, {});
  return {};
}

}  // namespace

int RenderFlow(const RenderOptions& options) {
  std::optional<FrameList> frames;
  if (!options.frames.empty() && !(frames = ParseFrames(options.frames))) {
    std::fprintf(stderr, "kestrion: -F %s: give frames as START-END or START-ENDxSTEP (START <= END, STEP >= 1)\n",
                 options.frames.c_str());
    return status::BadInput;
  }
  HostError err;
  auto doc = LoadFlowFile(options.flow, &err);
  if (!doc) {
    std::fprintf(stderr, "kestrion: %s\n", err.message.c_str());
    return status::BadInput;
  }
  const long first = long(std::ceil(doc->render_range.start)), last = long(std::floor(doc->render_range.end));
  if (last < first) {
    std::fprintf(stderr, "kestrion: '%s': its range holds no whole frame\n", options.flow.c_str());
    return status::BadInput;
  }
  if (!frames) frames = FrameList{first, last, 1};
  // The flow's range is where its sources are laid out; the command line picks frames within it.
  if (frames->first < first || frames->last > last) {
    const auto span = [](long a, long b) { return a == b ? std::to_string(a) : std::to_string(a) + "-" + std::to_string(b); };
    std::string outside;
    if (frames->first < first) outside = span(frames->first, std::min(frames->last, first - 1));
    if (frames->last > last) outside += (outside.empty() ? "" : " and ") + span(std::max(frames->first, last + 1), frames->last);
    std::fprintf(stderr, "kestrion: -F %s: frames %s lie outside the range %s of '%s'; widen its \"range\" to render them\n",
                 options.frames.c_str(), outside.c_str(), span(first, last).c_str(), options.flow.c_str());
    return status::BadInput;
  }

  const std::vector<Operator*> tools = doc->Tools();
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

  RemoveStaleTemporaries(savers, *frames);
  if (options.threads > 0) SetWorkerThreads(options.threads);
  if (options.proxy > 0) PGeneral.proxy = options.proxy;
  uint32_t flags = 0;
  if (options.quick) flags |= rflag::Quick;
  if (PGeneral.proxy > 1) flags |= rflag::Proxy;
  const double step = options.fields ? 0.5 : 1.0;

  // Frame n is written while frame n + 1 renders: a frame counts as done once its files are
  // on disk, and the first failure, of a render or of a write, ends the render.
  FrameWriter writer;
  RenderMessage message{double(frames->first), double(frames->last), step, &writer};
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
    SignalWatch signals(*doc);
    Progress progress(frames->Count());
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
    for (long frame = frames->first; frame <= frames->last; frame += frames->step) {
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
      const FrameResult rendered = RenderFrame(*doc, savers, flags, options.fields, writer, writes);
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
              std::to_string(failed.size()) + " of " + std::to_string(frames->Count()) + " frames failed: " + list};
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

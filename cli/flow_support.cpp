#include "cli/flow_support.h"

#include <unistd.h>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <set>

#include "host/clip/clip.h"
#include "host/document/flow_file.h"
#include "host/document/source_operator.h"

namespace kestrion::cli {

namespace {

// A lock-free atomic is safe to store from a signal handler and to read from the watcher thread.
std::atomic<int> g_stop_signal{0};
static_assert(std::atomic<int>::is_always_lock_free);
extern "C" void OnStopSignal(int sig) { g_stop_signal.store(sig); }

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

}  // namespace

std::string Quoted(const std::string& s) { return "\"" + s + "\""; }

std::optional<FlowRun> LoadFlowRun(const std::string& flow, const std::string& frames_text) {
  std::optional<FrameList> frames;
  if (!frames_text.empty() && !(frames = ParseFrames(frames_text))) {
    std::fprintf(stderr, "kestrion: -F %s: give frames as START-END or START-ENDxSTEP (START <= END, STEP >= 1)\n",
                 frames_text.c_str());
    return std::nullopt;
  }
  HostError err;
  auto doc = LoadFlowFile(flow, &err);
  if (!doc) {
    std::fprintf(stderr, "kestrion: %s\n", err.message.c_str());
    return std::nullopt;
  }
  const long first = long(std::ceil(doc->render_range.start)), last = long(std::floor(doc->render_range.end));
  if (last < first) {
    std::fprintf(stderr, "kestrion: '%s': its range holds no whole frame\n", flow.c_str());
    return std::nullopt;
  }
  if (!frames) frames = FrameList{first, last, 1};
  // The flow's range is where its sources are laid out; the command line picks frames within it.
  if (frames->first < first || frames->last > last) {
    const auto span = [](long a, long b) { return a == b ? std::to_string(a) : std::to_string(a) + "-" + std::to_string(b); };
    std::string outside;
    if (frames->first < first) outside = span(frames->first, std::min(frames->last, first - 1));
    if (frames->last > last) outside += (outside.empty() ? "" : " and ") + span(std::max(frames->first, last + 1), frames->last);
    std::fprintf(stderr, "kestrion: -F %s: frames %s lie outside the range %s of '%s'; widen its \"range\" to render them\n",
                 frames_text.c_str(), outside.c_str(), span(first, last).c_str(), flow.c_str());
    return std::nullopt;
  }
  return FlowRun{std::move(doc), *frames};
}

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

std::vector<Operator*> ToolsUpstream(const std::vector<Output*>& outputs) {
  std::vector<Operator*> tools, stack;
  std::set<const Operator*> seen;
  for (Output* out : outputs) stack.push_back(out->Owner());
  while (!stack.empty()) {
    Operator* op = stack.back();
    stack.pop_back();
    if (!seen.insert(op).second) continue;
    tools.push_back(op);
    for (const auto& in : op->Inputs()) {
      if (in->Link()) stack.push_back(in->Link()->Owner());
      if (in->Modifier()) stack.push_back(in->Modifier());
    }
  }
  return tools;
}

Progress::Progress(long total) : total_(total), live_(::isatty(STDERR_FILENO) != 0) {}

void Progress::FrameDone(long frame, bool skipped) {
  const auto duration = [](double seconds) {
    const long s = long(std::ceil(seconds));
    char text[32];
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    return std::string(text);
  };
  ++done_;
  if (!skipped) ++rendered_;
  const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
  const double fps = rendered_ > 0 && seconds > 0 ? rendered_ / seconds : 0.0;
  const long left = total_ - done_;
  const std::string eta = fps > 0 ? duration(double(left) / fps) : "--:--";
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

void Progress::Interrupt() {
  if (live_ && done_ > 0 && done_ < total_) std::fputc('\n', stderr);
}

SignalWatch::SignalWatch(CPipelineDoc& doc) : doc_(doc) {
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

SignalWatch::~SignalWatch() {
  done_.store(true);
  watcher_.join();
}

int SignalWatch::Signal() { return g_stop_signal.load(); }

FrameResult StoppedBySignal(int sig) {
  return {status::SignalBase + sig, "stopped by signal " + std::to_string(sig) + " (" + strsignal(sig) + ")"};
}

FrameResult ToolFailed(long frame, const Operator* tool, const std::vector<Failure>& failures,
                       const std::string& error) {
  FrameResult result{status::FrameFailed, "frame " + std::to_string(frame) + ", tool " + Quoted(tool->Name()) + ": "};
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

FrameResult RenderOutput(CPipelineDoc& doc, Output* out, long frame, double time, uint32_t flags, bool required,
                         Ref<Parameter>& value) {
  TakeFailures();  // what earlier renders left
  HostError err;
  value = doc.Render(out, time, flags, &err);
  std::vector<Failure> failures = TakeFailures();
  if (const int sig = SignalWatch::Signal()) return StoppedBySignal(sig);
  if (!err.message.empty() || (required && !value)) {
    std::string error = err.message;
    if (error.empty()) {
      const std::string why = WhyNoImage(out->Owner(), time);
      error = "no image reached it" + (why.empty() ? "" : ": " + why);
    }
    return ToolFailed(frame, out->Owner(), failures, error);
  }
  for (const Failure& f : failures) std::fprintf(stderr, "warning: frame %ld: %s\n", frame, f.message.c_str());
  return {};
}

}  // namespace kestrion::cli

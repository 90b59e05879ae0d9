// What the commands that run over a flow's frames share: loading the flow with the frames to
// run, the clips checked before anything renders, progress on stderr, stop signals, and the
// message and exit status of a frame that failed.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/base/failure.h"
#include "host/document/document.h"

namespace kestrion::cli {

// Exit statuses, as render-farm managers read them.
namespace status {
constexpr int Done = 0;
constexpr int FrameFailed = 1;  // permanent: running again will not help
constexpr int BadInput = 2;     // the command line or the flow is wrong
constexpr int TryLater = 75;    // temporary: the same command may succeed later
constexpr int SignalBase = 128; // stop signal n: 128 + n
}  // namespace status

struct FrameList {
  long first = 0, last = 0, step = 1;
  long Count() const { return (last - first) / step + 1; }
};

// A loaded flow and the frames a command runs over: the flow's range, or the frames that
// `frames` ("START-END[xSTEP]", empty for the whole range) picks within it.
struct FlowRun {
  std::unique_ptr<CPipelineDoc> doc;
  FrameList frames;
};
// Null, with the message printed, when the flow cannot be loaded or the frames are wrong.
std::optional<FlowRun> LoadFlowRun(const std::string& flow, const std::string& frames);

// Checks before rendering that every saver among `tools` has a clip to write and every other
// tool's clip has frames on disk; returns the first problem.
std::string CheckClips(const std::vector<Operator*>& tools);

// `outputs`' tools and every tool they take values from, each once.
std::vector<Operator*> ToolsUpstream(const std::vector<Output*>& outputs);

// Progress on stderr: a bar redrawn in place on a terminal, a line per frame otherwise.
class Progress {
 public:
  explicit Progress(long total);
  void FrameDone(long frame, bool skipped);
  // Ends a live bar's line before a message.
  void Interrupt();

 private:
  using Clock = std::chrono::steady_clock;
  long total_, done_ = 0, rendered_ = 0;
  bool live_;
  Clock::time_point start_ = Clock::now();
};

// Catches SIGINT, SIGTERM and SIGHUP while it lives and stops the renders in progress when one
// arrives (handlers may only set a flag).
class SignalWatch {
 public:
  explicit SignalWatch(CPipelineDoc& doc);
  ~SignalWatch();
  // The signal that arrived, or 0.
  static int Signal();

 private:
  CPipelineDoc& doc_;
  std::atomic<bool> done_{false};
  std::thread watcher_;
};

struct FrameResult {
  int status = status::Done;
  std::string message;
};

FrameResult StoppedBySignal(int sig);
// A frame failed at `tool` for the reasons noted (or, with none, for `error`): temporary when
// every noted failure is.
FrameResult ToolFailed(long frame, const Operator* tool, const std::vector<Failure>& failures,
                       const std::string& error);
// Renders one output at `time` (within `frame`) for a command; a tool that gives nothing is a
// failure only when `required`. Warnings noted on the way are printed.
FrameResult RenderOutput(CPipelineDoc& doc, Output* out, long frame, double time, uint32_t flags, bool required,
                         Ref<Parameter>& value);

std::string Quoted(const std::string& s);

}  // namespace kestrion::cli

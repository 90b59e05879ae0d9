// `kestrion render` and `kestrion convert`.
#pragma once

#include <string>

namespace kestrion::cli {

// Exit statuses, as render-farm managers read them.
namespace status {
constexpr int Done = 0;
constexpr int FrameFailed = 1;  // permanent: running again will not help
constexpr int BadInput = 2;     // the command line or the flow is wrong
constexpr int TryLater = 75;    // temporary: the same command may succeed later
constexpr int SignalBase = 128; // stopped by signal n: 128 + n
}  // namespace status

struct RenderOptions {
  std::string flow;
  std::string frames;  // "start-end[xstep]" or one frame; empty: the flow's range
  int threads = 0;     // 0: every core
  int proxy = 0;       // 0: the flow's own setting
  bool quick = false;
  bool fields = false;
  bool resume = false;
  bool keep_going = false;  // render every frame it can, naming those that failed at the end
};

int RenderFlow(const RenderOptions& options);
int ConvertFlow(const std::string& in, const std::string& out);

}  // namespace kestrion::cli

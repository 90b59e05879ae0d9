// `kestrion render` and `kestrion convert`.
#pragma once

#include <string>

#include "cli/flow_support.h"

namespace kestrion::cli {

struct RenderOptions {
  std::string flow;
  std::string frames;  // "start-end[xstep]" or one frame; empty: the flow's range
  int threads = 0;     // 0: every core
  int proxy = 0;       // 0: the flow's own setting
  bool quick = false;
  bool fields = false;
  bool resume = false;
  bool keep_going = false;  // render every frame it can, naming those that failed at the end
  std::string chunk;   // "K/N" or "auto" (a Slurm array task's); empty: every frame
};

int RenderFlow(const RenderOptions& options);
int ConvertFlow(const std::string& in, const std::string& out);

}  // namespace kestrion::cli

// `kestrion track`: runs a flow's Tracker over frames and saves the flow with the track.
#pragma once

#include <string>

namespace kestrion::cli {

struct TrackOptions {
  std::string flow;
  std::string tool;    // the Tracker's name in the flow
  std::string frames;  // "start-end": the pattern is selected at start, start + 1 .. end tracked
  std::string out;     // where the tracked flow goes; empty: over the flow, which is kept as FLOW.bak
};

int TrackFlow(const TrackOptions& options);

}  // namespace kestrion::cli

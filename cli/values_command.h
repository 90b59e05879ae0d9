// `kestrion values`: the values of tools' outputs over frames, one JSON object per frame.
#pragma once

#include <string>
#include <vector>

#include "host/graph/parameter.h"

namespace kestrion::cli {

struct ValuesOptions {
  std::string flow;
  std::string frames;  // "start-end[xstep]"; empty: the flow's range
  std::vector<std::string> names;  // "Tool.Output label" or "Tool"
};

int PrintValues(const ValuesOptions& options);

// A number as JSON with the shortest digits that read back to the same double; a non-finite
// one as the string "nan", "inf" or "-inf", so that every line stays valid JSON.
std::string NumberJson(double v);
// A point as [x, y], each coordinate with the shortest digits that read back to the same float.
std::string PointJson(float x, float y);

}  // namespace kestrion::cli

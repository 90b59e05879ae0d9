// A frame list split into the contiguous chunks that the tasks of a render-farm job render:
// `--chunk K/N`, or `--chunk auto` from the variables of a Slurm array task.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "cli/flow_support.h"

namespace kestrion::cli {

// The index-th (1-based) of count chunks.
struct Chunk {
  long index = 1, count = 1;
};

// "K/N" with 1 <= K <= N.
std::optional<Chunk> ParseChunk(const std::string& text);

// The chunk of a Slurm array task: K = (ID - MIN) / STEP + 1 of N = (MAX - MIN) / STEP + 1 (or
// COUNT where MAX is not set). `env` looks a variable up (null when unset); on failure `error`
// says why.
using Environment = std::function<const char*(const char*)>;
std::optional<Chunk> ChunkOfArrayTask(const Environment& env, std::string* error);

// `--chunk` as given ("K/N" or "auto", from the process's environment); null, with the message
// printed, when it is wrong or not in an array task.
std::optional<Chunk> ChunkOption(const std::string& text);

// The frames of a chunk: the first count % N chunks hold one frame more than the others, and
// chunks past the frame count hold none (null).
std::optional<FrameList> ChunkFrames(const FrameList& frames, Chunk chunk);

// Frames as -F takes them: "12", "1-24" or "1-24x2".
std::string FramesText(const FrameList& frames);

}  // namespace kestrion::cli

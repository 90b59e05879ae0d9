#include "cli/frame_chunks.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kestrion::cli {

namespace {

// A whole number that is all of `text`.
std::optional<long> WholeNumber(std::string_view text) {
  long value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

std::optional<Chunk> ParseChunk(const std::string& text) {
  const size_t slash = text.find('/');
  if (slash == std::string::npos) return std::nullopt;
  const std::optional<long> index = WholeNumber(std::string_view(text).substr(0, slash));
  const std::optional<long> count = WholeNumber(std::string_view(text).substr(slash + 1));
  if (!index || !count || *index < 1 || *index > *count) return std::nullopt;
  return Chunk{*index, *count};
}

std::optional<Chunk> ChunkOfArrayTask(const Environment& env, std::string* error) {
  const auto number = [&](const char* name) -> std::optional<long> {
    const char* value = env(name);
    return value ? WholeNumber(value) : std::nullopt;
  };
  const std::optional<long> id = number("SLURM_ARRAY_TASK_ID"), min = number("SLURM_ARRAY_TASK_MIN");
  const std::optional<long> max = number("SLURM_ARRAY_TASK_MAX"), count = number("SLURM_ARRAY_TASK_COUNT");
  const std::optional<long> step = env("SLURM_ARRAY_TASK_STEP") ? number("SLURM_ARRAY_TASK_STEP") : 1L;
  if (!env("SLURM_ARRAY_TASK_ID")) {
    *error = "--chunk auto takes the chunk from a Slurm array task (SLURM_ARRAY_TASK_ID is not set here); "
             "give --chunk K/N outside one";
    return std::nullopt;
  }
  if (!id || !min || !step || *step < 1 || (!max && !count)) {
    *error = "--chunk auto: SLURM_ARRAY_TASK_ID, _MIN, _MAX or _COUNT and _STEP are not whole numbers";
    return std::nullopt;
  }
  const long tasks = max ? (*max - *min) / *step + 1 : *count;
  const Chunk chunk{(*id - *min) / *step + 1, tasks};
  if (*id < *min || (*id - *min) % *step != 0 || chunk.index > tasks || (count && *count != tasks)) {
    *error = "--chunk auto: task " + std::to_string(*id) + " is not evenly placed in its array (" +
             std::to_string(*min) + "-" + (max ? std::to_string(*max) : "?") + " step " + std::to_string(*step) +
             (count ? ", " + std::to_string(*count) + " tasks" : "") +
             "); submit the array as --array=MIN-MAX or MIN-MAX:STEP";
    return std::nullopt;
  }
  return chunk;
}

std::optional<Chunk> ChunkOption(const std::string& text) {
  std::string error;
  std::optional<Chunk> chunk = text == "auto" ? ChunkOfArrayTask(std::getenv, &error) : ParseChunk(text);
  if (!chunk && error.empty()) error = "--chunk " + text + ": give K/N (the K-th of N chunks, 1 <= K <= N) or auto";
  if (!chunk) std::fprintf(stderr, "kestrion: %s\n", error.c_str());
  return chunk;
}

std::optional<FrameList> ChunkFrames(const FrameList& frames, Chunk chunk) {
  const long total = frames.Count(), base = total / chunk.count, longer = total % chunk.count;
  const long before = chunk.index - 1;
  const long begin = before * base + std::min(before, longer), size = base + (before < longer ? 1 : 0);
  if (size == 0) return std::nullopt;
  return FrameList{frames.first + begin * frames.step, frames.first + (begin + size - 1) * frames.step, frames.step};
}

std::string FramesText(const FrameList& frames) {
  std::string text = std::to_string(frames.first);
  if (frames.last != frames.first) text += '-' + std::to_string(frames.last);
  if (frames.last != frames.first && frames.step > 1) text += 'x' + std::to_string(frames.step);
  return text;
}

}  // namespace kestrion::cli

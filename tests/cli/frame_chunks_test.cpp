// Frame lists split into the chunks of a render-farm job: by K/N and from a Slurm array task.
#include "cli/frame_chunks.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace kestrion::cli {
namespace {

std::vector<long> Numbers(const FrameList& frames) {
  std::vector<long> numbers;
  for (long f = frames.first; f <= frames.last; f += frames.step) numbers.push_back(f);
  return numbers;
}

// Every N from 1 to 7 over lists with steps, shorter than N among them: the chunks, in order,
// hold every frame once, each chunk is a run of neighbouring frames of the list (a FrameList of
// the list's step), and no chunk holds two frames more than another.
TEST(FrameChunks, ChunksCoverTheFramesOnceInOrder) {
  const FrameList lists[] = {{1, 24, 1}, {1, 8, 2}, {-5, 7, 3}, {10, 10, 1}, {1, 3, 1}, {1001, 1100, 7}};
  for (const FrameList& frames : lists)
    for (long n = 1; n <= 7; ++n) {
      SCOPED_TRACE(FramesText(frames) + " in " + std::to_string(n));
      std::vector<long> joined;
      long smallest = frames.Count(), largest = 0;
      for (long k = 1; k <= n; ++k) {
        const std::optional<FrameList> chunk = ChunkFrames(frames, {k, n});
        const long size = chunk ? chunk->Count() : 0;
        smallest = std::min(smallest, size);
        largest = std::max(largest, size);
        if (!chunk) continue;
        EXPECT_EQ(chunk->step, frames.step);
        for (long f : Numbers(*chunk)) joined.push_back(f);
      }
      EXPECT_EQ(joined, Numbers(frames));
      EXPECT_LE(largest - smallest, 1);
    }
}

TEST(FrameChunks, TheFirstChunksTakeTheFramesLeftOver) {
  const struct {
    FrameList frames;
    long n;
    std::vector<std::string> chunks;  // "" for an empty chunk
  } rows[] = {
      {{1, 10, 1}, 4, {"1-3", "4-6", "7-8", "9-10"}},
      {{1, 8, 2}, 3, {"1-3x2", "5", "7"}},
      {{1, 2, 1}, 3, {"1", "2", ""}},
      {{0, 23, 1}, 4, {"0-5", "6-11", "12-17", "18-23"}},
  };
  for (const auto& row : rows)
    for (long k = 1; k <= row.n; ++k) {
      const std::optional<FrameList> chunk = ChunkFrames(row.frames, {k, row.n});
      EXPECT_EQ(chunk ? FramesText(*chunk) : "", row.chunks[size_t(k - 1)]) << FramesText(row.frames) << " " << k;
    }
}

TEST(FrameChunks, ChunkOptionsAreKOfN) {
  const struct {
    const char* text;
    long index, count;  // 0: refused
  } rows[] = {{"1/1", 1, 1}, {"3/7", 3, 7}, {"12/12", 12, 12}, {"0/3", 0, 0}, {"4/3", 0, 0},  {"1/0", 0, 0},
              {"-1/2", 0, 0}, {"1/", 0, 0},  {"/2", 0, 0},      {"1/2/3", 0, 0}, {" 1/2", 0, 0}, {"auto", 0, 0}};
  for (const auto& row : rows) {
    const std::optional<Chunk> chunk = ParseChunk(row.text);
    EXPECT_EQ(chunk ? chunk->index : 0, row.index) << row.text;
    EXPECT_EQ(chunk ? chunk->count : 0, row.count) << row.text;
  }
}

// Array tasks as Slurm describes them: --array=1-4 (task 3), 1-7:2 (task 5), 0-2 with only the
// count, and arrays whose tasks are not evenly spaced, which have no chunk.
TEST(FrameChunks, ArrayTasksGiveTheirPlaceInTheArray) {
  const struct {
    std::map<std::string, std::string> env;
    long index, count;        // 0: refused
    const char* error_piece;  // in the message when refused
  } rows[] = {
      {{{"ID", "3"}, {"MIN", "1"}, {"MAX", "4"}, {"COUNT", "4"}, {"STEP", "1"}}, 3, 4, ""},
      {{{"ID", "5"}, {"MIN", "1"}, {"MAX", "7"}, {"STEP", "2"}}, 3, 4, ""},
      {{{"ID", "2"}, {"MIN", "0"}, {"COUNT", "3"}}, 3, 3, ""},
      {{}, 0, 0, "SLURM_ARRAY_TASK_ID is not set"},
      {{{"ID", "4"}, {"MIN", "1"}, {"MAX", "7"}, {"STEP", "2"}}, 0, 0, "task 4 is not evenly placed"},
      {{{"ID", "7"}, {"MIN", "1"}, {"MAX", "7"}, {"COUNT", "3"}}, 0, 0, "3 tasks"},
      {{{"ID", "2"}, {"MIN", "1"}}, 0, 0, "not whole numbers"},
      {{{"ID", "x"}, {"MIN", "1"}, {"MAX", "4"}}, 0, 0, "not whole numbers"},
  };
  for (const auto& row : rows) {
    const Environment env = [&](const char* name) -> const char* {
      const std::string prefix = "SLURM_ARRAY_TASK_";
      const auto it = row.env.find(std::string(name).substr(prefix.size()));
      return it == row.env.end() ? nullptr : it->second.c_str();
    };
    std::string error;
    const std::optional<Chunk> chunk = ChunkOfArrayTask(env, &error);
    SCOPED_TRACE(error);
    EXPECT_EQ(chunk ? chunk->index : 0, row.index);
    EXPECT_EQ(chunk ? chunk->count : 0, row.count);
    EXPECT_NE(error.find(row.error_piece), std::string::npos);
  }
}

}  // namespace
}  // namespace kestrion::cli

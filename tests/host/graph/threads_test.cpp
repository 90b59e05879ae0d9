// DoMultiProcess on 1, 2 and 7 worker threads: every chunk exactly once, in the quick slot for
// quick requests, nothing for zero chunks, and a row loop that stops when the abort flag is set.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "module/image_model.h"
#include "host/image/image.h"
#include "host/graph/operator.h"
#include "host/graph/request.h"
#include "host/graph/threads.h"

namespace kestrion {
namespace {

// Counts the calls of every chunk in each of the two chunk slots.
class CountingTool : public ThreadedOperator {
 public:
  explicit CountingTool(long chunks)
      : ThreadedOperator(nullptr, nullptr, nullptr), full(size_t(chunks)), quick(size_t(chunks)) {}
  uint32_t Process(Request*) override { return 1; }
  void ProcessChunk(Request* req, long chunk) override { Count(req, full, chunk); }
  void QuickProcessChunk(Request* req, long chunk) override { Count(req, quick, chunk); }

  std::vector<std::atomic<int>> full, quick;
  std::atomic<int> wrong_request{0};
  std::atomic<int> off_caller_thread{0};
  Request* expected = nullptr;
  std::thread::id caller = std::this_thread::get_id();

 private:
  void Count(Request* req, std::vector<std::atomic<int>>& counts, long chunk) {
    if (req != expected) ++wrong_request;
    if (std::this_thread::get_id() != caller) ++off_caller_thread;
    ++counts[size_t(chunk)];
  }
};

class DoMultiProcessTest : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override { SetWorkerThreads(GetParam()); }
  void TearDown() override { SetWorkerThreads(0); }
};

// Full requests run the full slot, quick ones the quick slot.
TEST_P(DoMultiProcessTest, EveryChunkRunsExactlyOnceInItsSlot) {
  EXPECT_EQ(WorkerThreads(), GetParam());
  for (uint32_t flags : {0u, rflag::Quick | rflag::Proxy})
    for (long chunks : {1L, 2L, 7L, 1080L, 5000L}) {
      SCOPED_TRACE(testing::Message() << chunks << " chunks" << (flags ? ", quick" : ""));
      CountingTool tool(chunks);
      Request req(&tool, 3.0, flags);
      tool.expected = &req;
      tool.DoMultiProcess(&req, chunks);
      for (long c = 0; c < chunks; ++c) {
        ASSERT_EQ(tool.full[size_t(c)].load(), flags ? 0 : 1) << "chunk " << c;
        ASSERT_EQ(tool.quick[size_t(c)].load(), flags ? 1 : 0) << "chunk " << c;
      }
      EXPECT_EQ(tool.wrong_request.load(), 0);
      // One thread runs the chunks inline, on the caller's own thread.
      if (GetParam() == 1) {
        EXPECT_EQ(tool.off_caller_thread.load(), 0);
      }
    }
}

TEST_P(DoMultiProcessTest, NoChunksReturnAtOnce) {
  CountingTool tool(1);
  Request req(&tool, 0.0, 0);
  tool.DoMultiProcess(&req, 0);
  tool.DoMultiProcess(&req, -3);
  EXPECT_EQ(tool.full[0].load(), 0);
}

// Writes one row per chunk through the row loop helper and raises its own abort flag after
// `stop_after` rows. A row begun after the flag went up counts as late: only a thread that had
// already passed the test before that row can begin one.
class AbortingTool : public ThreadedOperator {
 public:
  AbortingTool(Image* out, int stop_after)
      : ThreadedOperator(nullptr, nullptr, nullptr), out_(out), stop_after_(stop_after) {}
  uint32_t Process(Request*) override { return 1; }
  void ProcessChunk(Request*, long chunk) override {
    ++calls;
    module::ForEachRow(*this, module::BandRows(out_->Height(), out_->Height(), chunk), [this](int y) {
      if (abort_flag.load()) ++late;
      std::fill_n(out_->Row(y), out_->Width(), 0xFFFFFFFFu);
      if (++written == stop_after_) abort_flag = 1;
    });
  }
  std::atomic<int> calls{0}, written{0}, late{0};

 private:
  Image* out_;
  int stop_after_;
};

TEST_P(DoMultiProcessTest, AbortStopsTheRowLoopsAndKeepsWhatWasWritten) {
  Ref<Image> img = Ref<Image>::Adopt(new Image(4, 70));
  AbortingTool tool(img.get(), 5);
  Request req(&tool, 0.0, 0);
  tool.DoMultiProcess(&req, 70);
  // Every chunk is still called once; each row is whole or untouched.
  EXPECT_EQ(tool.calls.load(), 70);
  int rows = 0;
  for (int y = 0; y < 70; ++y) {
    const uint32_t first = img->Row(y)[0];
    ASSERT_TRUE(first == 0 || first == 0xFFFFFFFFu) << y;
    for (int x = 1; x < 4; ++x) ASSERT_EQ(img->Row(y)[x], first) << y;
    if (first) ++rows;
  }
  EXPECT_EQ(rows, tool.written.load());
  // Rows that had passed the test before the flag went up may finish, one per other thread.
  EXPECT_GE(rows, 5);
  EXPECT_LE(tool.late.load(), GetParam() - 1);
  if (GetParam() == 1) {
    for (int y = 0; y < 70; ++y) EXPECT_EQ(img->Row(y)[0], y < 5 ? 0xFFFFFFFFu : 0u) << y;
  }
}

INSTANTIATE_TEST_SUITE_P(Threads, DoMultiProcessTest, ::testing::Values(1, 2, 7),
                         [](const auto& info) { return std::to_string(info.param) + "Threads"; });

TEST(WorkerThreads, BelowOneRestoresTheDefault) {
  SetWorkerThreads(3);
  EXPECT_EQ(WorkerThreads(), 3);
  SetWorkerThreads(0);
  EXPECT_EQ(WorkerThreads(), std::max(1, int(std::thread::hardware_concurrency())));
}

}  // namespace
}  // namespace kestrion

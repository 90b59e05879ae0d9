#include "host/graph/threads.h"

#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/parallel_for.h>
#include <oneapi/tbb/task_arena.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "host/graph/operator.h"
#include "host/graph/request.h"

namespace kestrion {

namespace {

int HardwareThreads() { return std::max(1, int(std::thread::hardware_concurrency())); }

// The arena of the current thread count. A render copies the pointer, so a change of the count
// never pulls the arena from under chunks that are running. TBB allows one worker fewer than
// the hardware threads unless told otherwise, so the limit is raised to the count asked for.
struct Workers {
  std::mutex lock;
  int threads = HardwareThreads();
  std::unique_ptr<tbb::global_control> limit;
  std::shared_ptr<tbb::task_arena> arena;
};

Workers& TheWorkers() {
  static Workers workers;
  return workers;
}

// The arena, made on first use so that a count set at start-up is the only one ever built;
// null for one thread, where chunks run inline.
std::shared_ptr<tbb::task_arena> Arena() {
  Workers& w = TheWorkers();
  std::lock_guard<std::mutex> hold(w.lock);
  if (w.threads > 1 && !w.arena) {
    w.limit = std::make_unique<tbb::global_control>(tbb::global_control::max_allowed_parallelism, size_t(w.threads));
    w.arena = std::make_shared<tbb::task_arena>(w.threads);
  }
  return w.arena;
}

}  // namespace

int WorkerThreads() {
  Workers& w = TheWorkers();
  std::lock_guard<std::mutex> hold(w.lock);
  return w.threads;
}

void SetWorkerThreads(int n) {
  Workers& w = TheWorkers();
  std::lock_guard<std::mutex> hold(w.lock);
  const int threads = n < 1 ? HardwareThreads() : n;
  if (threads == w.threads) return;
  w.threads = threads;
  w.arena.reset();
  w.limit.reset();
}

void ThreadedOperator::DoMultiProcess(Request* req, long chunks) {
  if (chunks <= 0) return;
  const auto chunk_fn = (req->flags & rflag::Quick) ? &ThreadedOperator::QuickProcessChunk
                                                    : &ThreadedOperator::ProcessChunk;
  const std::shared_ptr<tbb::task_arena> arena = chunks > 1 ? Arena() : nullptr;
  if (!arena) {
    for (long c = 0; c < chunks; ++c) (this->*chunk_fn)(req, c);
    return;
  }
#if defined(__SANITIZE_THREAD__)
  // The TBB library is not built for ThreadSanitizer, which cannot see the hand-offs between
  // its threads and reports its internals as races. Under it, the chunks run on plain threads
  // that it follows, so races between the tools' chunks are still found.
  std::atomic<long> next{0};
  const auto work = [&] {
    for (long c; (c = next.fetch_add(1)) < chunks;) (this->*chunk_fn)(req, c);
  };
  std::vector<std::thread> helpers;
  for (int i = 1; i < WorkerThreads(); ++i) helpers.emplace_back(work);
  work();
  for (std::thread& t : helpers) t.join();
  return;
#endif
  // TBB's auto partitioner hands out ranges of chunks and splits them further only when a
  // thread runs dry, so a thousand one-row chunks cost about as much as a plain loop.
  arena->execute([&] {
    tbb::parallel_for(tbb::blocked_range<long>(0, chunks), [&](const tbb::blocked_range<long>& range) {
      for (long c = range.begin(); c != range.end(); ++c) (this->*chunk_fn)(req, c);
    });
  });
}

}  // namespace kestrion

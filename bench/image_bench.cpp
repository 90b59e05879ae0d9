// Host image operations on a 1920 x 1080 BGRA frame of fixed-seed noise, in megapixels per
// second, against a plain memcpy of the frame; and DoMultiProcess over one chunk per row
// against a plain loop.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "bench/bench_frames.h"
#include "host/image/image.h"
#include "host/graph/operator.h"
#include "host/graph/request.h"
#include "host/graph/threads.h"

namespace kestrion {
namespace {

using namespace bench;
constexpr size_t kPixelCount = size_t(kWidth) * kHeight;

void CountPixels(benchmark::State& state) {
  CountMegapixels(state);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kPixelCount) * 4);
}

class NullTool : public ThreadedOperator {
 public:
  NullTool() : ThreadedOperator(nullptr, nullptr, nullptr) {}
  uint32_t Process(Request*) override { return 1; }
};

void BM_Memcpy(benchmark::State& state) {
  std::vector<uint32_t> from(kPixelCount, 0x12345678u), to(kPixelCount);
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), from.size() * 4);
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
  CountPixels(state);
}
BENCHMARK(BM_Memcpy);

// An operation applied in place to a frame of noise. Data-dependent operations get fresh
// noise before every run (outside the timing), since applying them again and again would
// drift the frame towards a few colours.
template <class Op>
void RunInPlace(benchmark::State& state, Op op, bool fresh = true) {
  const Ref<Image> noise = NoiseFrame();
  Ref<Image> img = NoiseFrame();
  for (auto _ : state) {
    if (fresh) {
      state.PauseTiming();
      for (int y = 0; y < kHeight; ++y) std::memcpy(img->Row(y), noise->Row(y), size_t(kWidth) * 4);
      state.ResumeTiming();
    }
    op(*img);
    benchmark::ClobberMemory();
  }
  CountPixels(state);
}

void BM_Fill(benchmark::State& s) { RunInPlace(s, [](Image& i) { i.Fill(Pixel{1, 2, 3, 4}); }, false); }
void BM_FlipX(benchmark::State& s) { RunInPlace(s, [](Image& i) { i.FlipX(); }, false); }
void BM_FlipY(benchmark::State& s) { RunInPlace(s, [](Image& i) { i.FlipY(); }, false); }
void BM_Gain(benchmark::State& s) { RunInPlace(s, [](Image& i) { i.Gain(1.1f, 0.9f, 1.0f, 1.0f); }); }
void BM_Gamma(benchmark::State& s) { RunInPlace(s, [](Image& i) { i.Gamma(2.2f, 1.0f, 0.45f, 1.0f); }); }
void BM_Saturate(benchmark::State& s) { RunInPlace(s, [](Image& i) { i.Saturate(1.3f, 1.3f, 1.3f); }); }
void BM_RGBtoYUV(benchmark::State& s) { RunInPlace(s, [](Image& i) { i.RGBtoYUV(); }); }
void BM_YUVtoRGB(benchmark::State& s) { RunInPlace(s, [](Image& i) { i.YUVtoRGB(); }); }
void BM_RGBtoHLS(benchmark::State& s) { RunInPlace(s, [](Image& i) { i.RGBtoHLS(); }); }
void BM_HLStoRGB(benchmark::State& s) { RunInPlace(s, [](Image& i) { i.HLStoRGB(); }); }
void BM_RGBtoGUV(benchmark::State& s) { RunInPlace(s, [](Image& i) { i.RGBtoGUV(); }); }
void BM_ColourDifference(benchmark::State& s) { RunInPlace(s, [](Image& i) { i.ColourDifference(); }); }
BENCHMARK(BM_Fill);
BENCHMARK(BM_FlipX);
BENCHMARK(BM_FlipY);
BENCHMARK(BM_Gain);
BENCHMARK(BM_Gamma);
BENCHMARK(BM_Saturate);
BENCHMARK(BM_RGBtoYUV);
BENCHMARK(BM_YUVtoRGB);
BENCHMARK(BM_RGBtoHLS);
BENCHMARK(BM_HLStoRGB);
BENCHMARK(BM_RGBtoGUV);
BENCHMARK(BM_ColourDifference);

// A new image for a request each time, as tools make their working copies.
void BM_CopyOfImage(benchmark::State& state) {
  Ref<Image> img = NoiseFrame();
  NullTool tool;
  for (auto _ : state) {
    Request req(&tool, 0.0, 0);
    benchmark::DoNotOptimize(img->CopyOfImage(&req));
  }
  CountPixels(state);
}
BENCHMARK(BM_CopyOfImage);

// A whole frame sampled at quality 1, each output pixel at a random sub-pixel position within
// a pixel of its own (as a warp reads), so the edges reach outside the frame.
template <bool kClamp>
void RunSampler(benchmark::State& state) {
  Ref<Image> img = NoiseFrame();
  Ref<Image> out = Ref<Image>::Adopt(new Image(kWidth, kHeight));
  std::mt19937 random(11);
  std::uniform_int_distribution<long> jitter(-256, 255);
  std::vector<long> positions;
  positions.reserve(kPixelCount * 2);
  for (long y = 0; y < kHeight; ++y)
    for (long x = 0; x < kWidth; ++x) {
      positions.push_back(x * 256 + jitter(random));
      positions.push_back(y * 256 + jitter(random));
    }
  for (auto _ : state) {
    const long* p = positions.data();
    for (int y = 0; y < kHeight; ++y) {
      auto* row = reinterpret_cast<Pixel*>(out->Row(y));
      for (int x = 0; x < kWidth; ++x, p += 2) {
        if constexpr (kClamp)
          img->DoSample_Clamp(&row[x], p[0], p[1], 1);
        else
          img->DoSample_Black(&row[x], p[0], p[1], 1);
      }
    }
    benchmark::ClobberMemory();
  }
  CountPixels(state);
}
BENCHMARK(RunSampler<false>)->Name("BM_DoSample_Black");
BENCHMARK(RunSampler<true>)->Name("BM_DoSample_Clamp");

// --- Chunks ---

// A trivial row kernel: add one to every pixel of the row.
void BumpRow(Image& img, long y) {
  uint32_t* row = img.Row(int(y));
  for (int x = 0; x < kWidth; ++x) row[x] += 1;
}

class RowTool : public ThreadedOperator {
 public:
  explicit RowTool(Image* img) : ThreadedOperator(nullptr, nullptr, nullptr), img_(img) {}
  uint32_t Process(Request*) override { return 1; }
  void ProcessChunk(Request*, long chunk) override { BumpRow(*img_, chunk); }

 private:
  Image* img_;
};

void BM_PlainRowLoop(benchmark::State& state) {
  Ref<Image> img = NoiseFrame();
  for (auto _ : state) {
    for (long y = 0; y < kHeight; ++y) BumpRow(*img, y);
    benchmark::ClobberMemory();
  }
  CountPixels(state);
}
BENCHMARK(BM_PlainRowLoop);

// DoMultiProcess over one chunk per row; the argument is the thread count (0: all).
void BM_DoMultiProcess(benchmark::State& state) {
  SetWorkerThreads(int(state.range(0)));
  Ref<Image> img = NoiseFrame();
  RowTool tool(img.get());
  Request req(&tool, 0.0, 0);
  for (auto _ : state) {
    tool.DoMultiProcess(&req, kHeight);
    benchmark::ClobberMemory();
  }
  CountPixels(state);
  state.counters["threads"] = WorkerThreads();
  SetWorkerThreads(0);
}
BENCHMARK(BM_DoMultiProcess)->Arg(1)->Arg(2)->Arg(0)->UseRealTime();

}  // namespace
}  // namespace kestrion

BENCHMARK_MAIN();

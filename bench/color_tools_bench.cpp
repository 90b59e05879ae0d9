// The colour and compositing tools on 1920 x 1080 frames of fixed-seed noise, in megapixels per
// second, with 1 and 2 worker threads (the argument). Each run is one whole Process call on a
// request, as the renderer makes it: the output frame is allocated and released every time.
// BM_Memcpy is the yardstick: the frame copied into another, made once, in row bands on the
// same worker threads. BM_NewFrame is what every tool pays before its first pixel: Dissolve with
// an operation it does not know makes its cleared output frame and writes nothing.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/bench_frames.h"
#include "host/image/image.h"
#include "host/graph/module.h"
#include "host/graph/operator.h"
#include "host/graph/registry.h"
#include "host/graph/request.h"
#include "module/image_model.h"
#include "host/graph/threads.h"

namespace kestrion {
namespace {

using namespace bench;

// A tool of a catalogue class with its inputs as the benchmark sets them.
struct ToolCase {
  const char* tool;
  std::vector<std::pair<const char*, double>> numbers;
  bool foreground = true;
};

void RunTool(benchmark::State& state, const ToolCase& c) {
  SetWorkerThreads(int(state.range(0)));
  static const Ref<Image> background = NoiseFrame(7), foreground = NoiseFrame(8);
  Registry* reg = ClassRegistry->FindByName(c.tool);
  if (!reg) {
    state.SkipWithError("tool class not registered");
    return;
  }
  Ref<Object> obj = Ref<Object>::Adopt(reg->Create(nullptr, nullptr));
  auto* op = dynamic_cast<Operator*>(obj.get());
  for (auto _ : state) {
    Request req(op, 1.0, 0);
    req.status = 0;
    for (const auto& [label, value] : c.numbers) req.SetInputData(op->FindInput(0, label), new Number(value));
    background->Use();
    req.SetInputData(op->FindInput(0, "Image"), background.get());
    if (c.foreground) {
      foreground->Use();
      req.SetInputData(op->FindInput(0, "Foreground"), foreground.get());
    }
    op->Process(&req);
    benchmark::DoNotOptimize(req.GetOutputData(op->Outputs()[0].get()));
  }
  CountMegapixels(state);
  state.counters["threads"] = WorkerThreads();
  SetWorkerThreads(0);
}

// Copies a frame's rows in bands, as the banded tools run theirs.
class CopyRows final : public ThreadedOperator {
 public:
  CopyRows(const Image& from, Image& to) : ThreadedOperator(nullptr, nullptr, nullptr), from_(from), to_(to) {}
  uint32_t Process(Request* req) override {
    DoMultiProcess(req, module::RowBands(from_.Height()));
    return 1;
  }
  void ProcessChunk(Request*, long band) override {
    const module::RowSpan rows = module::BandRows(from_.Height(), module::RowBands(from_.Height()), band);
    for (int y = rows.begin; y < rows.end; ++y) std::memcpy(to_.Row(y), from_.Row(y), size_t(from_.Width()) * 4);
  }

 private:
  const Image& from_;
  Image& to_;
};

void BM_Memcpy(benchmark::State& state) {
  SetWorkerThreads(int(state.range(0)));
  static const Ref<Image> from = NoiseFrame(7);
  const Ref<Image> to = Ref<Image>::Adopt(new Image(kWidth, kHeight));
  CopyRows copy(*from, *to);
  for (auto _ : state) {
    Request req(&copy, 1.0, 0);
    copy.Process(&req);
    benchmark::DoNotOptimize(to->Row(0));
  }
  CountMegapixels(state);
  state.counters["threads"] = WorkerThreads();
  SetWorkerThreads(0);
}

const std::string kMixLabel = "Background                               Foreground";
const std::string kAdditiveLabel = "Subtractive                                    Additive";

void BM_MergeStraight(benchmark::State& s) { RunTool(s, {"Merge", {{"Size", 1.0}, {"Angle", 0.0}}}); }
void BM_MergeRotated(benchmark::State& s) {
  RunTool(s, {"Merge", {{"Size", 1.3}, {"Angle", 30.0}, {kAdditiveLabel.c_str(), 0.5}, {"Alpha Gain", 0.8}}});
}
void BM_DissolveDissolve(benchmark::State& s) { RunTool(s, {"Dissolve", {{"Operation", 0}, {kMixLabel.c_str(), 0.4}}}); }
void BM_NewFrame(benchmark::State& s) { RunTool(s, {"Dissolve", {{"Operation", 5}, {kMixLabel.c_str(), 0.4}}}); }
void BM_DissolveRandom(benchmark::State& s) { RunTool(s, {"Dissolve", {{"Operation", 3}, {kMixLabel.c_str(), 0.4}}}); }
void BM_BooleansAdd(benchmark::State& s) { RunTool(s, {"BoolImg", {{"Operation", 1}, {"Blend", 0.7}}}); }
void BM_BooleansAnd(benchmark::State& s) { RunTool(s, {"BoolImg", {{"Operation", 3}, {"Blend", 1.0}}}); }
void BM_BooleansDivide(benchmark::State& s) { RunTool(s, {"BoolImg", {{"Operation", 7}, {"Blend", 1.0}}}); }
void BM_ColorGain(benchmark::State& s) {
  RunTool(s, {"ColorGain", {{"Gain Red", 1.2}, {"Gamma Green", 1.4}, {"Saturation Blue", 0.8}}, false});
}
void BM_ColorSpaceToHLS(benchmark::State& s) { RunTool(s, {"ColorSpace", {{"Color Space Conversion", 1}}, false}); }
void BM_ColorSpaceToYUV(benchmark::State& s) { RunTool(s, {"ColorSpace", {{"Color Space Conversion", 3}}, false}); }

BENCHMARK(BM_Memcpy)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_NewFrame)->Arg(1)->Arg(2)->UseRealTime();
// The partners of the Merge benchmarks: plain -O3 loops over the same frames, rows spread over
// the same worker threads, written into a frame made once. BM_PlainOver lays the foreground
// pixel for pixel over the background; BM_PlainAffineOver first samples it bilinearly through
// the rotation and scale of BM_MergeRotated, transparent black outside.
inline uint32_t PlainOverPixel(uint32_t f, uint32_t b) {
  const uint32_t a = f >> 24, inv = 255 - a;
  uint32_t word = 0;
  for (int shift = 0; shift < 24; shift += 8)
    word |= ((((f >> shift) & 255) * a + ((b >> shift) & 255) * inv) >> 8) << shift;
  return word | (a + (((b >> 24) * inv) >> 8)) << 24;
}

class PlainLoop : public ThreadedOperator {
 public:
  explicit PlainLoop(bool affine) : ThreadedOperator(nullptr, nullptr, nullptr), affine_(affine) {}
  uint32_t Process(Request*) override { return 1; }
  void ProcessChunk(Request*, long y) override { affine_ ? AffineRow(int(y)) : OverRow(int(y)); }

  Ref<Image> fg = NoiseFrame(8), bg = NoiseFrame(7), out = Ref<Image>::Adopt(new Image(kWidth, kHeight));

 private:
  void OverRow(int y) {
    const uint32_t *f = fg->Row(y), *b = bg->Row(y);
    uint32_t* o = out->Row(y);
    for (int x = 0; x < kWidth; ++x) o[x] = PlainOverPixel(f[x], b[x]);
  }
  void AffineRow(int y) {
    const double c = std::cos(30 * M_PI / 180) / 1.3, s = std::sin(30 * M_PI / 180) / 1.3;
    const double dx = -kWidth / 2.0, dy = y - kHeight / 2.0;
    const auto fixed = [](double v) { return int32_t(v * 65536.0); };
    int32_t u = fixed(kWidth / 2.0 + dx * c - dy * s), v = fixed(kHeight / 2.0 + dy * c + dx * s);
    const int32_t du = fixed(c), dv = fixed(s);
    const uint32_t* b = bg->Row(y);
    uint32_t* o = out->Row(y);
    for (int x = 0; x < kWidth; ++x, u += du, v += dv) {
      const int i = u >> 16, j = v >> 16;
      uint32_t f = 0;
      if (i >= 0 && j >= 0 && i < kWidth - 1 && j < kHeight - 1) {
        const uint32_t fx = uint32_t(u >> 8) & 255, fy = uint32_t(v >> 8) & 255;
        const uint32_t *top = fg->Row(j) + i, *bottom = fg->Row(j + 1) + i;
        for (int shift = 0; shift < 32; shift += 8) {
          const uint32_t t = ((top[0] >> shift) & 255) * (256 - fx) + ((top[1] >> shift) & 255) * fx;
          const uint32_t d = ((bottom[0] >> shift) & 255) * (256 - fx) + ((bottom[1] >> shift) & 255) * fx;
          f |= ((t * (256 - fy) + d * fy + 32768) >> 16) << shift;
        }
      }
      o[x] = PlainOverPixel(f, b[x]);
    }
  }

  bool affine_;
};

void RunPlainLoop(benchmark::State& state, bool affine) {
  SetWorkerThreads(int(state.range(0)));
  PlainLoop loop(affine);
  Request req(&loop, 0.0, 0);
  for (auto _ : state) {
    loop.DoMultiProcess(&req, kHeight);
    benchmark::ClobberMemory();
  }
  CountMegapixels(state);
  state.counters["threads"] = WorkerThreads();
  SetWorkerThreads(0);
}

void BM_PlainOver(benchmark::State& s) { RunPlainLoop(s, false); }
void BM_PlainAffineOver(benchmark::State& s) { RunPlainLoop(s, true); }

BENCHMARK(BM_PlainOver)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_PlainAffineOver)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_MergeStraight)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_MergeRotated)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_DissolveDissolve)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_DissolveRandom)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BooleansAdd)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BooleansAnd)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BooleansDivide)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_ColorGain)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_ColorSpaceToHLS)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_ColorSpaceToYUV)->Arg(1)->Arg(2)->UseRealTime();

}  // namespace
}  // namespace kestrion

int main(int argc, char** argv) {
  std::string error;
  auto modules = kestrion::OpenModules(KESTRION_BENCH_MODULE_DIR, &error);
  if (modules.empty()) {
    std::fprintf(stderr, "cannot load the tool module: %s\n", error.c_str());
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

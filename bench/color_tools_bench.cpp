// The colour and compositing tools on 1920 x 1080 frames of fixed-seed noise, in megapixels per
// second, with 1 and 2 worker threads (the argument). Each run is one whole Process call on a
// request, as the renderer makes it: the output frame is allocated and released every time.
// BM_Memcpy is the yardstick: the frame copied into another, made once, in row bands on the
// same worker threads. BM_NewFrame is what every tool pays before its first pixel: Dissolve with
// an operation it does not know makes its cleared output frame and writes nothing.
#include <benchmark/benchmark.h>

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

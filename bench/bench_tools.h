// How the benchmarks drive a tool: one whole Process call on a request per run, as the
// renderer makes it (the output frame is taken and released every time, through the host's pool
// of pixel memory as in a render of a sequence), on 1920 x 1080
// noise with the worker threads the argument gives; the cases that more than one benchmark
// program measures; the frame copy that the tools are read against; and the main of a program
// that needs the tool module.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "bench/bench_frames.h"
#include "host/graph/module.h"
#include "host/graph/operator.h"
#include "host/graph/registry.h"
#include "host/graph/request.h"
#include "host/graph/threads.h"
#include "module/image_model.h"

namespace kestrion::bench {

// A tool of a catalogue class with its inputs as the benchmark sets them.
struct ToolCase {
  const char* tool;
  std::vector<std::pair<std::string, double>> numbers;
  bool foreground = true;
};

// The two frames the tools take: background (the "Image" input) and foreground.
inline const Ref<Image>& Background() {
  static const Ref<Image> frame = NoiseFrame(7);
  return frame;
}
inline const Ref<Image>& Foreground() {
  static const Ref<Image> frame = NoiseFrame(8);
  return frame;
}

inline void RunTool(benchmark::State& state, const ToolCase& c) {
  SetWorkerThreads(int(state.range(0)));
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
    for (const auto& [label, value] : c.numbers) req.SetInputData(op->FindInput(0, label.c_str()), new Number(value));
    Background()->Use();
    req.SetInputData(op->FindInput(0, "Image"), Background().get());
    if (c.foreground) {
      Foreground()->Use();
      req.SetInputData(op->FindInput(0, "Foreground"), Foreground().get());
    }
    op->Process(&req);
    benchmark::DoNotOptimize(req.GetOutputData(op->Outputs()[0].get()));
  }
  CountMegapixels(state);
  state.counters["threads"] = WorkerThreads();
  SetWorkerThreads(0);
}

// Copies a frame's rows in bands on the worker threads, as the banded tools run theirs.
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

// The background frame copied into a frame made once, with the worker threads the argument gives.
inline void BM_Memcpy(benchmark::State& state) {
  SetWorkerThreads(int(state.range(0)));
  const Ref<Image> to = Ref<Image>::Adopt(new Image(kWidth, kHeight));
  CopyRows copy(*Background(), *to);
  for (auto _ : state) {
    Request req(&copy, 1.0, 0);
    copy.Process(&req);
    benchmark::DoNotOptimize(to->Row(0));
  }
  CountMegapixels(state);
  state.counters["threads"] = WorkerThreads();
  SetWorkerThreads(0);
}

inline const std::string kMixLabel = "Background                               Foreground";
inline const std::string kAdditiveLabel = "Subtractive                                    Additive";

inline const ToolCase kMergeStraight{"Merge", {{"Size", 1.0}, {"Angle", 0.0}}};
inline const ToolCase kMergeRotated{"Merge", {{"Size", 1.3}, {"Angle", 30.0}, {kAdditiveLabel, 0.5}, {"Alpha Gain", 0.8}}};
inline const ToolCase kDissolveDissolve{"Dissolve", {{"Operation", 0}, {kMixLabel, 0.4}}};
inline const ToolCase kBooleansAdd{"BoolImg", {{"Operation", 1}, {"Blend", 0.7}}};
inline const ToolCase kBooleansAddUnblended{"BoolImg", {{"Operation", 1}, {"Blend", 1.0}}};
inline const ToolCase kBooleansAnd{"BoolImg", {{"Operation", 3}, {"Blend", 1.0}}};
inline const ToolCase kColorGain{"ColorGain", {{"Gain Red", 1.2}, {"Gamma Green", 1.4}, {"Saturation Blue", 0.8}}, false};
inline const ToolCase kColorSpaceToHLS{"ColorSpace", {{"Color Space Conversion", 1}}, false};
inline const ToolCase kColorSpaceToYUV{"ColorSpace", {{"Color Space Conversion", 3}}, false};

// Loads the tool module, then runs the benchmarks the command line selects.
inline int RunWithToolModule(int argc, char** argv, benchmark::BenchmarkReporter* reporter = nullptr) {
  std::string error;
  auto modules = OpenModules(KESTRION_BENCH_MODULE_DIR, &error);
  if (modules.empty()) {
    std::fprintf(stderr, "cannot load the tool module: %s\n", error.c_str());
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks(reporter);
  benchmark::Shutdown();
  return 0;
}

}  // namespace kestrion::bench

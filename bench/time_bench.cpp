// The time tools on 1920 x 1080 frames of fixed-seed noise, with 1 and 2 worker threads (the
// argument): the Time Stretcher's blend of three source frames in megapixels per second, next
// to BM_Memcpy, the frame copied in row bands on the same threads.
#include <benchmark/benchmark.h>

#include "bench/bench_tools.h"

namespace kestrion {
namespace {

using namespace bench;

// A source time a quarter past the centre frame with a spread of 0.25: all three frames weigh in.
void BM_TimeStretcherBlend(benchmark::State& state) {
  SetWorkerThreads(int(state.range(0)));
  Ref<Object> obj = Ref<Object>::Adopt(ClassRegistry->FindByName("TimeInterpolator")->Create(nullptr, nullptr));
  auto* op = dynamic_cast<Operator*>(obj.get());
  Input* image = op->FindInput(0, "Image");
  static const Ref<Image> next = NoiseFrame(9);
  Image* const samples[3] = {Foreground().get(), Background().get(), next.get()};
  for (auto _ : state) {
    Request req(op, 1.0, 0);
    req.status = 0;
    req.SetInputData(op->FindInput(0, "Source Time"), new Number(2.25));
    req.SetInputData(op->FindInput(0, "Sample Spread"), new Number(0.25));
    for (int slot = 0; slot < 3; ++slot) {
      samples[slot]->Use();
      req.SetInputData(image, samples[slot], slot);
      req.SetInputTime(image, 1.0 + slot, slot);
    }
    op->Process(&req);
    benchmark::DoNotOptimize(req.GetOutputData(op->Outputs()[0].get()));
  }
  CountMegapixels(state);
  state.counters["threads"] = WorkerThreads();
  SetWorkerThreads(0);
}

BENCHMARK(BM_Memcpy)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_TimeStretcherBlend)->Arg(1)->Arg(2)->UseRealTime();

}  // namespace
}  // namespace kestrion

int main(int argc, char** argv) { return kestrion::bench::RunWithToolModule(argc, argv); }

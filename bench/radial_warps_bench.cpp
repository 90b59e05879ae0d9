// Ripple and Dent on 1920 x 1080 frames of fixed-seed noise, in megapixels per second, with 1 and
// 2 worker threads (the argument), at their defaults and at the shapes and profiles whose
// arithmetic costs most (Radial's angle, Random's draws in order, the trigonometric dents).
// BM_Memcpy is the yardstick. Vortex and Coordinate Space are measured next to their OpenCV
// partners in opencv_pairs_bench.
#include <benchmark/benchmark.h>

#include "bench/bench_tools.h"

namespace kestrion {
namespace {

using namespace bench;

ToolCase Ripple(double shape, double dampening = 0) {
  return {"Drip", {{"Shape", shape}, {"Amplitude", 0.1}, {"Dampening", dampening}, {"Frequency", 10}, {"Phase", 0}}, false};
}
ToolCase Dent(double type) { return {"Dent", {{"Type", type}, {"Size", 0.5}, {"Strength", 1}}, false}; }

void BM_RippleCircular(benchmark::State& s) { RunTool(s, Ripple(0)); }
void BM_RippleCircularDamped(benchmark::State& s) { RunTool(s, Ripple(0, 0.3)); }
void BM_RippleRandom(benchmark::State& s) { RunTool(s, Ripple(2)); }
void BM_RippleStar(benchmark::State& s) { RunTool(s, Ripple(6)); }
void BM_RippleRadial(benchmark::State& s) { RunTool(s, Ripple(7)); }
void BM_Dent1(benchmark::State& s) { RunTool(s, Dent(0)); }
void BM_Dent3(benchmark::State& s) { RunTool(s, Dent(3)); }
void BM_DentCosine(benchmark::State& s) { RunTool(s, Dent(4)); }
void BM_DentSine(benchmark::State& s) { RunTool(s, Dent(5)); }

BENCHMARK(BM_Memcpy)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_RippleCircular)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_RippleCircularDamped)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_RippleRandom)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_RippleStar)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_RippleRadial)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_Dent1)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_Dent3)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_DentCosine)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_DentSine)->Arg(1)->Arg(2)->UseRealTime();

}  // namespace
}  // namespace kestrion

int main(int argc, char** argv) { return kestrion::bench::RunWithToolModule(argc, argv); }

// The filter tools on 1920 x 1080 frames of fixed-seed noise, in megapixels per second, with 1
// and 2 worker threads (the argument), beside BM_Memcpy, the frame copied in row bands. Blur
// sizes are given against a 320-pixel frame: a size of r / 6 is a radius of r pixels here, so
// the pairs at radius 5 and 50 show the cost does not grow with the size.
#include <benchmark/benchmark.h>

#include "bench/bench_tools.h"

namespace kestrion {
namespace {

using namespace bench;

void BlurCase(benchmark::State& s, int kernel, double radius) {
  RunTool(s, {"Blur", {{"Filter", kernel}, {"Blur Size", radius / 6.0}}, false});
}
void BM_BlurSoften(benchmark::State& s) { BlurCase(s, 0, 5); }
void BM_BlurSoften50(benchmark::State& s) { BlurCase(s, 0, 50); }
void BM_BlurBox(benchmark::State& s) { BlurCase(s, 1, 5); }
void BM_BlurBox50(benchmark::State& s) { BlurCase(s, 1, 50); }
void BM_BlurBartlett(benchmark::State& s) { BlurCase(s, 2, 5); }
void BM_BlurBartlett50(benchmark::State& s) { BlurCase(s, 2, 50); }
void BM_BlurSharpen(benchmark::State& s) { BlurCase(s, 4, 5); }
void BM_GlowSoften(benchmark::State& s) { RunTool(s, {"Glow", {{"Filter", 0}}, false}); }
void BM_GlowBartlet(benchmark::State& s) { RunTool(s, {"Glow", {{"Filter", 1}}, false}); }
void BM_CustomFilter3(benchmark::State& s) { RunTool(s, kCustomFilter3); }
void BM_CustomFilter7(benchmark::State& s) { RunTool(s, kCustomFilter7); }
void FilterCase(benchmark::State& s, int effect, double power) {
  RunTool(s, {"Filter", {{"FilterType", effect}, {"Power", power}}, false});
}
void BM_FilterRelief(benchmark::State& s) { FilterCase(s, 0, 1); }
void BM_FilterMedian3(benchmark::State& s) { RunTool(s, kFilterMedian3); }
void BM_FilterMedian5(benchmark::State& s) { RunTool(s, kFilterMedian5); }
void BM_FilterNoise(benchmark::State& s) { FilterCase(s, 3, 1); }
void BM_FilterDefocus(benchmark::State& s) { FilterCase(s, 4, 5); }
void BM_FilterSobel(benchmark::State& s) { RunTool(s, kFilterSobel); }
void BM_FilterLaplacian(benchmark::State& s) { RunTool(s, kFilterLaplacian); }
void BM_FilterGrain(benchmark::State& s) { FilterCase(s, 7, 1); }
// A blur of 19 pixels at 10 degrees, and the radial one about the middle.
void BM_MotionBlurLinear(benchmark::State& s) { RunTool(s, {"MotionBlur", {{"Length", -0.01}, {"Angle", 10}}, false}); }
void BM_MotionBlurRadial(benchmark::State& s) {
  RunTool(s, {"MotionBlur", {{"Type", 1}, {"Length", -0.01}, {"Angle", 10}}, false});
}

BENCHMARK(BM_Memcpy)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BlurSoften)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BlurSoften50)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BlurBox)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BlurBox50)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BlurBartlett)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BlurBartlett50)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BlurSharpen)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_GlowSoften)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_GlowBartlet)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_CustomFilter3)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_CustomFilter7)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_FilterRelief)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_FilterMedian3)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_FilterMedian5)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_FilterNoise)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_FilterDefocus)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_FilterSobel)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_FilterLaplacian)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_FilterGrain)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_MotionBlurLinear)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_MotionBlurRadial)->Arg(1)->Arg(2)->UseRealTime();

}  // namespace
}  // namespace kestrion

int main(int argc, char** argv) { return kestrion::bench::RunWithToolModule(argc, argv); }

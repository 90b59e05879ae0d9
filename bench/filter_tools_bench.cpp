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

BENCHMARK(BM_Memcpy)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BlurSoften)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BlurSoften50)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BlurBox)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BlurBox50)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BlurBartlett)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BlurBartlett50)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BlurSharpen)->Arg(1)->Arg(2)->UseRealTime();

}  // namespace
}  // namespace kestrion

int main(int argc, char** argv) { return kestrion::bench::RunWithToolModule(argc, argv); }

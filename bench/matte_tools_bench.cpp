// The matte tools on 1920 x 1080 frames of fixed-seed noise, in megapixels per second, with 1 and
// 2 worker threads (the argument), at their defaults and with a matte blur of 10 (a box radius
// of 60 pixels on this frame). BM_Memcpy is the yardstick, as in color_tools_bench.
#include <benchmark/benchmark.h>

#include "bench/bench_tools.h"

namespace kestrion {
namespace {

using namespace bench;

void BM_KeyerDefaults(benchmark::State& s) { RunTool(s, kKeyerDefaults); }
void BM_KeyerBlur10(benchmark::State& s) { RunTool(s, kKeyerBlur10); }
void BM_ChromaKeyerDefaults(benchmark::State& s) { RunTool(s, {"ChromaKey", {}, false}); }
void BM_ChromaKeyerBlur10(benchmark::State& s) { RunTool(s, {"ChromaKey", {{"Matte Blur", 10.0}}, false}); }
void BM_LumaKeyerDefaults(benchmark::State& s) { RunTool(s, {"Threshold", {}, false}); }
void BM_LumaKeyerBlur10(benchmark::State& s) { RunTool(s, {"Threshold", {{"Matte Blur", 10.0}}, false}); }
void BM_MatteControlDefaults(benchmark::State& s) { RunTool(s, {"MatteControl", {}, false}); }
void BM_MatteControlBlur10(benchmark::State& s) { RunTool(s, kMatteControlBlur10); }

BENCHMARK(BM_Memcpy)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_KeyerDefaults)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_KeyerBlur10)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_ChromaKeyerDefaults)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_ChromaKeyerBlur10)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_LumaKeyerDefaults)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_LumaKeyerBlur10)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_MatteControlDefaults)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_MatteControlBlur10)->Arg(1)->Arg(2)->UseRealTime();

}  // namespace
}  // namespace kestrion

int main(int argc, char** argv) { return kestrion::bench::RunWithToolModule(argc, argv); }

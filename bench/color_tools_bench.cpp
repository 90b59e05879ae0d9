// The colour and compositing tools on 1920 x 1080 frames of fixed-seed noise, in megapixels per
// second, with 1 and 2 worker threads (the argument). BM_Memcpy is the yardstick: the frame
// copied in row bands on the same worker threads. BM_NewFrame is what a tool that takes a cleared
// output frame pays before its first pixel: Dissolve with an operation it does not know makes
// its cleared frame and writes nothing. (Tools that write every row take an uncleared frame from
// the host's pool and pay next to nothing.)
#include <benchmark/benchmark.h>

#include "bench/bench_tools.h"

namespace kestrion {
namespace {

using namespace bench;

void BM_NewFrame(benchmark::State& s) { RunTool(s, {"Dissolve", {{"Operation", 5}, {kMixLabel, 0.4}}}); }
void BM_MergeStraight(benchmark::State& s) { RunTool(s, kMergeStraight); }
void BM_MergeRotated(benchmark::State& s) { RunTool(s, kMergeRotated); }
void BM_DissolveDissolve(benchmark::State& s) { RunTool(s, kDissolveDissolve); }
void BM_DissolveRandom(benchmark::State& s) { RunTool(s, {"Dissolve", {{"Operation", 3}, {kMixLabel, 0.4}}}); }
void BM_BooleansAdd(benchmark::State& s) { RunTool(s, kBooleansAdd); }
void BM_BooleansAddUnblended(benchmark::State& s) { RunTool(s, kBooleansAddUnblended); }
void BM_BooleansAnd(benchmark::State& s) { RunTool(s, kBooleansAnd); }
void BM_BooleansDivide(benchmark::State& s) { RunTool(s, {"BoolImg", {{"Operation", 7}, {"Blend", 1.0}}}); }
void BM_ColorGain(benchmark::State& s) { RunTool(s, kColorGain); }
void BM_ColorSpaceToHLS(benchmark::State& s) { RunTool(s, kColorSpaceToHLS); }
void BM_ColorSpaceToYUV(benchmark::State& s) { RunTool(s, kColorSpaceToYUV); }

BENCHMARK(BM_Memcpy)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_NewFrame)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_MergeStraight)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_MergeRotated)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_DissolveDissolve)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_DissolveRandom)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BooleansAdd)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BooleansAddUnblended)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BooleansAnd)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_BooleansDivide)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_ColorGain)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_ColorSpaceToHLS)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_ColorSpaceToYUV)->Arg(1)->Arg(2)->UseRealTime();

}  // namespace
}  // namespace kestrion

int main(int argc, char** argv) { return kestrion::bench::RunWithToolModule(argc, argv); }

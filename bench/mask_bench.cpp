// Masks per second on a 1920 x 1080 frame: a Rectangle turned 30 degrees, a Circle and a Polygon
// of 40 curved segments. BM_<Shape>Mask renders the tool whole, as the renderer does: the
// base's surface, the tool's drawing, the mask handed on and its bounds. BM_<Shape>Fill runs the
// tool's drawing alone (reading its inputs and Cairo's fill) on a surface kept between runs; the
// difference is the base's own work. Masks draw on one thread: the argument (1 or 2 worker
// threads) changes nothing and is there to compare with the other tools.
#include <benchmark/benchmark.h>

#include <cmath>

#include "bench/bench_tools.h"
#include "host/base/prefs.h"
#include "host/document/node_lists.h"
#include "host/draw/mask_operator.h"

namespace kestrion {
namespace {

using namespace bench;

struct MaskCase {
  const char* tool;
  std::vector<std::pair<std::string, double>> numbers;
  bool star = false;  // the Polygon's outline: 40 key points round the centre, in and out
};

const MaskCase kRectangle{"RectangleMask", {{"Width", 0.5}, {"Height", 0.5}, {"Angle", 30}}};
const MaskCase kCircle{"Circle", {{"Size", 0.6}}};
const MaskCase kPolygon{"PolygonMask", {{"Size", 1.0}}, true};

// 40 key points alternately 0.4 and 0.3 from the centre, handles along the circle.
NodeLists Star() {
  NodeShape shape;
  for (int k = 0; k < 40; ++k) {
    const double a = k * 2 * M_PI / 40, r = k % 2 ? 0.3 : 0.4, h = r * 0.05;
    const auto node = [](double x, double y) { return PathKeyPoint{0, float(x), float(y), 0.0f}; };
    const double x = r * std::cos(a), y = r * std::sin(a);
    shape.nodes.push_back(node(x, y));
    shape.nodes.push_back(node(x - h * std::sin(a), y + h * std::cos(a)));
    const double b = (k + 1) * 2 * M_PI / 40, r2 = (k + 1) % 2 ? 0.3 : 0.4;
    shape.nodes.push_back(node(r2 * std::cos(b) + r2 * 0.05 * std::sin(b), r2 * std::sin(b) - r2 * 0.05 * std::cos(b)));
  }
  return NodeLists{{shape}};
}

// The tool of a case, on a 1920 x 1080 flow.
Ref<Object> MakeMask(const MaskCase& c) {
  PVidMode.width = kWidth;
  PVidMode.height = kHeight;
  Registry* reg = ClassRegistry->FindByName(c.tool);
  Ref<Object> obj = Ref<Object>::Adopt(reg ? reg->Create(nullptr, nullptr) : nullptr);
  if (c.star)
    if (auto* lists = dynamic_cast<NodeListTool*>(obj.get())) lists->SetNodeLists(Star());
  return obj;
}

// A request at time 1 with the case's numbers and every other input at its value.
void Prepare(Request& req, Operator* op, const MaskCase& c) {
  req.status = 0;
  for (const auto& in : op->Inputs()) req.SetInputData(in.get(), in->ValueAt(1.0));
  for (const auto& [label, value] : c.numbers) req.SetInputData(op->FindInput(0, label.c_str()), new Number(value));
}

void RunMask(benchmark::State& state, const MaskCase& c, bool fill_only) {
  SetWorkerThreads(int(state.range(0)));
  Ref<Object> obj = MakeMask(c);
  auto* op = dynamic_cast<MaskOperator*>(obj.get());
  if (!op) {
    state.SkipWithError("mask class not registered");
    return;
  }
  MaskSurface surface(kWidth, kHeight, true);
  const MaskFrame frame{kWidth, kHeight};
  for (auto _ : state) {
    Request req(op, 1.0, 0);
    Prepare(req, op, c);
    if (fill_only)
      benchmark::DoNotOptimize(op->Draw(&req, surface, frame));
    else
      benchmark::DoNotOptimize(op->Process(&req));
  }
  state.counters["masks/s"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
  CountMegapixels(state);
  SetWorkerThreads(0);
}

void BM_RectangleMask(benchmark::State& s) { RunMask(s, kRectangle, false); }
void BM_RectangleFill(benchmark::State& s) { RunMask(s, kRectangle, true); }
void BM_CircleMask(benchmark::State& s) { RunMask(s, kCircle, false); }
void BM_CircleFill(benchmark::State& s) { RunMask(s, kCircle, true); }
void BM_PolygonMask(benchmark::State& s) { RunMask(s, kPolygon, false); }
void BM_PolygonFill(benchmark::State& s) { RunMask(s, kPolygon, true); }

BENCHMARK(BM_RectangleMask)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_RectangleFill)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_CircleMask)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_CircleFill)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_PolygonMask)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_PolygonFill)->Arg(1)->Arg(2)->UseRealTime();

}  // namespace
}  // namespace kestrion

int main(int argc, char** argv) { return kestrion::bench::RunWithToolModule(argc, argv); }

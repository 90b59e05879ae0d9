// The time and motion tools on 1920 x 1080 frames of fixed-seed noise. The Time Stretcher's
// blend of three source frames in megapixels per second with 1 and 2 worker threads (the
// argument), next to BM_Memcpy, the frame copied in row bands on the same threads. The
// Tracker in frames per second with a Size of 0.05 (a 97 x 55 pattern) on a clip whose picture
// moves by (3, 2) pixels a frame: following on from the last frame (local searches and the
// sub-pixel refinement), and finding the pattern afresh at each Accuracy (the argument), as on
// the first frame of a track or in an interactive render (a coarse search of the whole frame
// and a local one).
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

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

// Frame k of the clip: a window of a larger noise picture moved by (3k, 2k).
Ref<Image> MovingFrame(int k) {
  static const Ref<Image> picture = [] {
    Ref<Image> img = Ref<Image>::Adopt(new Image(kWidth + 64, kHeight + 64));
    std::mt19937 random(11);
    for (int y = 0; y < img->Height(); ++y)
      for (int x = 0; x < img->Width(); ++x) img->Row(y)[x] = uint32_t(random()) | 0xFF000000u;
    return img;
  }();
  Ref<Image> frame = Ref<Image>::Adopt(new Image(kWidth, kHeight));
  frame->ImageCrop(picture.get(), 3 * k, 2 * k);
  return frame;
}

constexpr int kClipFrames = 8;

// Renders the tracker at frame k with the flags given; Select Pattern as asked.
void TrackFrame(Operator* tracker, const std::vector<Ref<Image>>& clip, int k, uint32_t flags, bool select, int accuracy) {
  Request req(tracker, double(k), flags);
  req.SetInputData(tracker->FindInput(0, "Center"), new Point(0.5f, 0.5f));
  req.SetInputData(tracker->FindInput(0, "Size"), new Number(0.05));
  req.SetInputData(tracker->FindInput(0, "Color"), new Number(4));
  req.SetInputData(tracker->FindInput(0, "Accuracy"), new Number(accuracy));
  req.SetInputData(tracker->FindInput(0, "Select Pattern"), new Number(select ? 1 : 0));
  tracker->CheckRequest(&req);
  req.status = 0;
  clip[size_t(k)]->Use();
  req.SetInputData(tracker->FindInput(0, "Image"), clip[size_t(k)].get());
  tracker->Process(&req);
  benchmark::DoNotOptimize(req.GetOutputData(tracker->FindOutput(0, "Position")));
}

void RunTracker(benchmark::State& state, uint32_t flags) {
  std::vector<Ref<Image>> clip;
  for (int k = 0; k < kClipFrames; ++k) clip.push_back(MovingFrame(k));
  Ref<Object> obj = Ref<Object>::Adopt(ClassRegistry->FindByName("Tracker")->Create(nullptr, nullptr));
  auto* tracker = dynamic_cast<Operator*>(obj.get());
  const int accuracy = int(state.range(0));
  TrackFrame(tracker, clip, 0, 0, true, accuracy);
  TrackFrame(tracker, clip, 1, 0, false, accuracy);  // the first frame tracked searches the whole frame
  int k = 1;
  for (auto _ : state) TrackFrame(tracker, clip, k = k % (kClipFrames - 1) + 1, flags, false, accuracy);
  state.counters["frames/s"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_TrackerFollow(benchmark::State& state) { RunTracker(state, 0); }
void BM_TrackerFindAfresh(benchmark::State& state) { RunTracker(state, rflag::Interactive); }

BENCHMARK(BM_Memcpy)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_TimeStretcherBlend)->Arg(1)->Arg(2)->UseRealTime();
BENCHMARK(BM_TrackerFollow)->Arg(0)->UseRealTime();
BENCHMARK(BM_TrackerFindAfresh)->DenseRange(0, 3)->UseRealTime();

}  // namespace
}  // namespace kestrion

int main(int argc, char** argv) { return kestrion::bench::RunWithToolModule(argc, argv); }

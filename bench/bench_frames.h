// What the benchmarks share: the 1920 x 1080 frame they measure on, filled with fixed-seed
// noise, and the megapixels-per-second counter.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>

#include "host/image/image.h"

namespace kestrion::bench {

constexpr int kWidth = 1920, kHeight = 1080;
constexpr double kPixels = double(kWidth) * kHeight;

inline Ref<Image> NoiseFrame(unsigned seed = 7) {
  Ref<Image> img = Ref<Image>::Adopt(new Image(kWidth, kHeight));
  std::mt19937 random(seed);
  for (int y = 0; y < kHeight; ++y)
    for (int x = 0; x < kWidth; ++x) img->Row(y)[x] = uint32_t(random());
  return img;
}

// Frames of the run as megapixels per second.
inline void CountMegapixels(benchmark::State& state) {
  state.counters["Mpx/s"] = benchmark::Counter(kPixels * double(state.iterations()) / 1e6, benchmark::Counter::kIsRate);
}

}  // namespace kestrion::bench

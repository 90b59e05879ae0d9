// Row kernels of the host's colour operations. The image operations (Image::Gain, RGBtoYUV, ...)
// run them over every row in place; a tool that works in bands on the worker threads prepares
// the operation's constants once per render and runs its rows from its input into its output,
// so that the copy and the operation are one pass.
//
// Every row function takes `count` pixel words of `in` into `out`; `out` is either `in` itself
// or does not overlap it. Alpha is kept by the colour operations.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kestrion {

class Image;

enum class ColourConversion { RgbToYuv, YuvToRgb, RgbToHls, HlsToRgb };

// One row converted between colour spaces, as the Image operation of the same name does it.
void ConvertRow(ColourConversion conversion, const uint32_t* in, uint32_t* out, int count);

// A byte map per channel (blue, green, red, alpha), as Image::Gain and Image::Gamma apply them.
class ChannelMaps {
 public:
  // Every byte kept.
  ChannelMaps();
  static ChannelMaps Gain(float red, float green, float blue, float alpha);
  static ChannelMaps Gamma(float red, float green, float blue, float alpha);
  // These maps followed by `next`, as one map.
  ChannelMaps Then(const ChannelMaps& next) const;

  void Row(const uint32_t* in, uint32_t* out, int count) const;
  // A mask row, through the alpha map.
  void MaskRow(const uint8_t* in, uint8_t* out, int count) const;

 private:
  // table[c][v]: the new value of byte c where it is v, already shifted to byte c's place.
  std::array<std::array<uint32_t, 256>, 4> table_;
};

// The colour channels moved from the pixel's luminance, as Image::Saturate does it.
class Saturation {
 public:
  Saturation(float red, float green, float blue);
  void Row(const uint32_t* in, uint32_t* out, int count) const;

 private:
  // delta_[c][d + 255] for blue, green, red: round-half-up(d * factor), d = c - Y, held to
  // -256..256 (enough to reach either end of a byte from any Y).
  std::array<std::array<int32_t, 511>, 3> delta_;
  // Where every factor is below 8 and each delta_ entry equals (d * step + 2^19) >> 20 held
  // the same way, the row takes these products rather than the tables (no gathers).
  bool by_products_ = false;
  std::array<int32_t, 3> step_{};
};

// The resampling of Image::ImageResize (triangle) and of ResizeOfImage's area average from one
// image into another of the caller's size, its taps worked out once. The destination's rows
// can then be made in bands, in any order and on any thread, each band the bytes the whole
// operation gives. Throws std::invalid_argument when the depths differ. Both images must
// outlive it.
class Resampler {
 public:
  Resampler(const Image& src, Image& dst, bool triangle);
  // Destination rows begin .. end - 1.
  void Rows(int begin, int end) const;
  // Destination row y, worked in `scratch`, ScratchWords() words that the caller keeps.
  void Row(int y, uint32_t* scratch) const;
  size_t ScratchWords() const;

  // The source positions and 14-bit weights (summing to 16384) of every destination position
  // along one axis; `count` taps each, unused ones weighing 0.
  struct Taps {
    int count = 0;
    std::vector<int> index;
    std::vector<uint32_t> weight;
  };

 private:
  static Taps MakeTaps(int src, int dst, bool triangle);

  const Image& src_;
  Image& dst_;
  Taps x_, y_;
  bool halves_ = false;  // a 32-bit image halved both ways by the triangle filter
};

}  // namespace kestrion

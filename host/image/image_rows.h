// Row kernels of the host's colour operations. The image operations (Image::Gain, RGBtoYUV, ...)
// run them over every row in place; a tool that works in bands on the worker threads prepares
// the operation's constants once per render and runs its rows from its input into its output,
// so that the copy and the operation are one pass.
//
// Every row function takes `count` pixel words of `in` into `out`; `out` is either `in` itself
// or does not overlap it. Alpha is kept by the colour operations.
#pragma once

#include <array>
#include <cstdint>

namespace kestrion {

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

}  // namespace kestrion

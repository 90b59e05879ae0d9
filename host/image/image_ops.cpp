// Host image operations that move, copy, fill, merge or map pixels one by one.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "host/image/image.h"
#include "host/image/image_internal.h"
#include "host/image/image_rows.h"
#include "host/graph/request.h"

namespace kestrion {

using image_internal::RequireSameDepth;
using image_internal::RoundToByte;

namespace {

// Offsets beyond this put any image of a possible size wholly outside another; holding them
// here keeps the overlap arithmetic (and negation) clear of overflow.
constexpr long kFarAway = long(1) << 33;
long HoldOffset(long v) { return std::clamp(v, -kFarAway, kFarAway); }

// round(v / 255) for 0 <= v <= 255 * 255, without a division.
constexpr int Div255(int v) {
  v += 128;
  return (v + (v >> 8)) >> 8;
}

// Composites the overlap of `fg` placed at (x, y) on `bg`; Op(f, b, fa, ba) gives one channel.
template <class Op>
void Merge(Image& bg, const Image& fg, long x, long y, Op op) {
  RequireSameDepth(bg, fg);
  long dx, dy, sx, sy, w, h;
  if (!bg.OffCalc(&fg, x, y, &dx, &dy, &sx, &sy, &w, &h)) return;
  for (long j = 0; j < h; ++j) {
    if (bg.Depth() == 8) {
      uint8_t* b = bg.MaskRow(int(dy + j)) + dx;
      const uint8_t* f = fg.MaskRow(int(sy + j)) + sx;
      for (long i = 0; i < w; ++i) b[i] = uint8_t(std::min(255, op(f[i], b[i], f[i], b[i])));
      continue;
    }
    uint8_t* b = reinterpret_cast<uint8_t*>(bg.Row(int(dy + j)) + dx);
    const uint8_t* f = reinterpret_cast<const uint8_t*>(fg.Row(int(sy + j)) + sx);
    for (long i = 0; i < w; ++i, b += 4, f += 4) {
      const int fa = f[3], ba = b[3];
      for (int c = 0; c < 4; ++c) b[c] = uint8_t(std::min(255, op(f[c], b[c], fa, ba)));
    }
  }
}

}  // namespace

void Image::FlipX() {
  for (int y = 0; y < height_; ++y) {
    if (depth_ == 8)
      std::reverse(MaskRow(y), MaskRow(y) + width_);
    else
      std::reverse(Row(y), Row(y) + width_);
  }
}

void Image::FlipY() {
  const size_t row_bytes = size_t(width_) * BytesPerPixel();
  for (int y = 0; y < height_ / 2; ++y) {
    auto* top = static_cast<uint8_t*>(rows_[size_t(y)]);
    auto* bottom = static_cast<uint8_t*>(rows_[size_t(height_ - 1 - y)]);
    std::swap_ranges(top, top + row_bytes, bottom);
  }
}

Image* Image::CopyOfImage(Request* req) const {
  Image* copy = NewImageUnset(req, this);
  const size_t row_bytes = size_t(width_) * BytesPerPixel();
  for (int y = 0; y < height_; ++y) std::memcpy(copy->rows_[size_t(y)], rows_[size_t(y)], row_bytes);
  return copy;
}

Image* Image::CopyOfImage2(Request* req) const {
  if (depth_ == 32) return CopyOfImage(req);
  Image* copy = NewImage(req, width_, height_, 32, this);
  for (int y = 0; y < height_; ++y) {
    const uint8_t* src = MaskRow(y);
    uint32_t* dst = copy->Row(y);
    for (int x = 0; x < width_; ++x) dst[x] = uint32_t(src[x]) * 0x01010101u;
  }
  return copy;
}

void Image::Fill(Pixel colour) {
  for (int y = 0; y < height_; ++y) {
    if (depth_ == 8)
      std::fill_n(MaskRow(y), width_, colour.a);
    else
      std::fill_n(Row(y), width_, colour.Word());
  }
}

ChannelMaps::ChannelMaps() {
  for (size_t c = 0; c < 4; ++c)
    for (uint32_t v = 0; v < 256; ++v) table_[c][v] = v << (8 * c);
}

ChannelMaps ChannelMaps::Gamma(float red, float green, float blue, float alpha) {
  ChannelMaps maps;
  const float gammas[4] = {blue, green, red, alpha};
  for (size_t c = 0; c < 4; ++c) {
    const double e = 1.0 / double(gammas[c]);
    for (uint32_t v = 0; v < 256; ++v)
      maps.table_[c][v] = uint32_t(RoundToByte(255.0 * std::pow(v / 255.0, e))) << (8 * c);
  }
  return maps;
}

ChannelMaps ChannelMaps::Gain(float red, float green, float blue, float alpha) {
  ChannelMaps maps;
  const float gains[4] = {blue, green, red, alpha};
  for (size_t c = 0; c < 4; ++c)
    for (uint32_t v = 0; v < 256; ++v) maps.table_[c][v] = uint32_t(RoundToByte(v * double(gains[c]))) << (8 * c);
  return maps;
}

ChannelMaps ChannelMaps::Then(const ChannelMaps& next) const {
  ChannelMaps maps;
  for (size_t c = 0; c < 4; ++c)
    for (size_t v = 0; v < 256; ++v) maps.table_[c][v] = next.table_[c][table_[c][v] >> (8 * c)];
  return maps;
}

// Four table loads a pixel, kept scalar: vectorised, the loads become gathers, which run at
// two thirds of the plain loads' speed on the machines measured.
[[gnu::optimize("no-tree-vectorize")]] void ChannelMaps::Row(const uint32_t* in, uint32_t* out, int count) const {
  const auto& t = table_;
  for (int x = 0; x < count; ++x) {
    const uint32_t p = in[x];
    out[x] = t[0][p & 255] | t[1][p >> 8 & 255] | t[2][p >> 16 & 255] | t[3][p >> 24];
  }
}

void ChannelMaps::MaskRow(const uint8_t* in, uint8_t* out, int count) const {
  for (int x = 0; x < count; ++x) out[x] = uint8_t(table_[3][in[x]] >> 24);
}

namespace {
void MapChannels(Image& img, const ChannelMaps& maps) {
  for (int y = 0; y < img.Height(); ++y) {
    if (img.Depth() == 8)
      maps.MaskRow(img.MaskRow(y), img.MaskRow(y), img.Width());
    else
      maps.Row(img.Row(y), img.Row(y), img.Width());
  }
}
}  // namespace

void Image::Gamma(float red, float green, float blue, float alpha) {
  MapChannels(*this, ChannelMaps::Gamma(red, green, blue, alpha));
}

void Image::Gain(float red, float green, float blue, float alpha) {
  MapChannels(*this, ChannelMaps::Gain(red, green, blue, alpha));
}

void Image::OXMerge(const Image* fg, long x, long y) {
  Merge(*this, *fg, x, y, [](int f, int b, int fa, int ba) { return Div255(f * (255 - ba)) + Div255(b * (255 - fa)); });
}

void Image::OMerge(const Image* fg, long x, long y) {
  Merge(*this, *fg, x, y, [](int f, int b, int fa, int) { return f + Div255(b * (255 - fa)); });
}

void Image::BGRAtoBGR(void* bgr) const {
  auto* out = static_cast<uint8_t*>(bgr);
  for (int y = 0; y < height_; ++y) {
    if (depth_ == 8) {
      const uint8_t* src = MaskRow(y);
      for (int x = 0; x < width_; ++x, out += 3) out[0] = out[1] = out[2] = src[x];
      continue;
    }
    const auto* src = reinterpret_cast<const uint8_t*>(Row(y));
    for (int x = 0; x < width_; ++x, out += 3, src += 4) std::memcpy(out, src, 3);
  }
}

void Image::BGRtoBGRA(const void* bgr, unsigned char alpha) {
  const auto* in = static_cast<const uint8_t*>(bgr);
  for (int y = 0; y < height_; ++y) {
    if (depth_ == 8) {
      uint8_t* dst = MaskRow(y);
      for (int x = 0; x < width_; ++x, in += 3) dst[x] = uint8_t(Luminance(in[2], in[1], in[0]));
      continue;
    }
    uint32_t* dst = Row(y);
    for (int x = 0; x < width_; ++x, in += 3)
      dst[x] = uint32_t(in[0]) | uint32_t(in[1]) << 8 | uint32_t(in[2]) << 16 | uint32_t(alpha) << 24;
  }
}

void Image::ImageCrop(const Image* src, long x, long y) { ImageOffset(src, -HoldOffset(x), -HoldOffset(y)); }

Image* Image::CropOfImage(long x, long y, long width, long height) const {
  if (width > std::numeric_limits<int>::max() || height > std::numeric_limits<int>::max() || width < 0 ||
      height < 0)
    throw ImageSizeError("crop size " + std::to_string(width) + " x " + std::to_string(height) + " is impossible");
  Image* crop = NewImage(nullptr, int(width), int(height), depth_, this);
  crop->ImageCrop(this, x, y);
  return crop;
}

void Image::ImageOffset(const Image* src, long x, long y) {
  RequireSameDepth(*this, *src);
  if (src == this) {
    // Moving an image onto itself reads from an untouched copy.
    Ref<Parameter> copy = Ref<Parameter>::Adopt(Copy());
    ImageOffset(static_cast<const Image*>(copy.get()), x, y);
    return;
  }
  long dx = 0, dy = 0, sx = 0, sy = 0, w = 0, h = 0;
  OffCalc(src, x, y, &dx, &dy, &sx, &sy, &w, &h);
  const size_t bpp = BytesPerPixel();
  const size_t row_bytes = size_t(width_) * bpp;
  for (int j = 0; j < height_; ++j) {
    auto* row = static_cast<uint8_t*>(rows_[size_t(j)]);
    if (j < dy || j >= dy + h) {
      std::memset(row, 0, row_bytes);
      continue;
    }
    const auto* from = static_cast<const uint8_t*>(src->rows_[size_t(sy + j - dy)]) + size_t(sx) * bpp;
    std::memset(row, 0, size_t(dx) * bpp);
    std::memcpy(row + size_t(dx) * bpp, from, size_t(w) * bpp);
    std::memset(row + size_t(dx + w) * bpp, 0, row_bytes - size_t(dx + w) * bpp);
  }
}

bool Image::OffCalc(const Image* other, long x, long y, long* dst_x, long* dst_y, long* src_x, long* src_y,
                    long* width, long* height) const {
  x = HoldOffset(x);
  y = HoldOffset(y);
  const long x0 = std::max(0L, x), y0 = std::max(0L, y);
  const long x1 = std::min(long(width_), x + other->width_), y1 = std::min(long(height_), y + other->height_);
  if (x1 <= x0 || y1 <= y0) {
    *dst_x = *dst_y = *src_x = *src_y = *width = *height = 0;
    return false;
  }
  *dst_x = x0;
  *dst_y = y0;
  *src_x = x0 - x;
  *src_y = y0 - y;
  *width = x1 - x0;
  *height = y1 - y0;
  return true;
}

}  // namespace kestrion

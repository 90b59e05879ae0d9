// Images: frames of 32-bit BGRA pixels (byte 0 blue) or 8-bit masks, addressed through a row
// table whose entry y is row y counted from the top. Images built over memory that a caller
// supplies may hold their rows bottom-up, so code always goes through the row table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

#include "host/graph/parameter.h"

namespace kestrion {

class Request;

// One colour, in the byte order of a pixel word.
struct Pixel {
  uint8_t b = 0, g = 0, r = 0, a = 0;
  uint32_t Word() const { return uint32_t(b) | uint32_t(g) << 8 | uint32_t(r) << 16 | uint32_t(a) << 24; }
  static Pixel FromWord(uint32_t w) { return {uint8_t(w), uint8_t(w >> 8), uint8_t(w >> 16), uint8_t(w >> 24)}; }
  bool operator==(const Pixel&) const = default;
};

// Thrown when an image of an impossible size is asked for (negative, or over the limit).
class ImageSizeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Image : public Parameter {
 public:
  // What a new image's pixels hold: zero, or whatever its memory held before, for code that
  // writes every byte before anyone reads it.
  enum class Contents { Cleared, Unset };

  // A new image, cleared to zero unless asked otherwise. depth is 32 (BGRA) or 8 (mask).
  // Throws ImageSizeError.
  Image(int width, int height, int depth = 32, Contents contents = Contents::Cleared);
  // An image over memory the caller keeps alive; rows `stride` bytes apart, bottom-up if asked.
  Image(int width, int height, int depth, void* memory, ptrdiff_t stride, bool bottom_up);
  ~Image() override;

  uint32_t Type() const override { return vtype::Image; }
  // A copy with the same size, attributes and pixels (a Parameter, as every value's Copy is).
  Parameter* Copy() const override;
  bool Equals(const Parameter& other) const override;

  // Row y (0 at the top) as pixel words; for depth 8 use MaskRow.
  uint32_t* Row(int y) const { return static_cast<uint32_t*>(rows_[size_t(y)]); }
  uint8_t* MaskRow(int y) const { return static_cast<uint8_t*>(rows_[size_t(y)]); }
  void* const* RowTable() const { return rows_.data(); }
  int Width() const { return width_; }
  int Height() const { return height_; }
  int Depth() const { return depth_; }
  size_t BytesPerPixel() const { return size_t(depth_ / 8); }

  // Copies aspect, origin and frame attributes (not size or pixels) from another image.
  void CopyAttributesFrom(const Image& other);
  // Rows begin .. end - 1 set to zero (transparent black).
  void ClearRows(int begin, int end);

  // --- host image operations, in slot order (Copy above is the first) ---
  //
  // Every operation goes through the row table, so images over caller memory held bottom-up
  // work like any other. A mask (depth 8) counts as a single alpha channel: operations on
  // colour leave it unchanged, and operations on two images throw std::invalid_argument when
  // their depths differ.

  // Mirror the image in place: left to right, top to bottom.
  virtual void FlipX();
  virtual void FlipY();
  // A new image for the request with the size, depth, attributes and pixels of this one.
  virtual Image* CopyOfImage(Request* req) const;
  // As CopyOfImage, but always 32-bit: a mask becomes a grey image whose four bytes all hold
  // the mask value.
  virtual Image* CopyOfImage2(Request* req) const;
  // A new image for the request of width x height resampled from this one (attributes kept).
  // quality 0: area average (each output pixel the mean of the source area it covers, so
  // enlarging gives square pixels); any other quality: the ImageResize filter. Throws
  // ImageSizeError for an impossible size.
  virtual Image* ResizeOfImage(Request* req, int width, int height, int quality) const;
  // A new image for the request reduced by a whole proxy factor: max(1, W / factor) x
  // max(1, H / factor), by area average (factor 2 makes each pixel the mean of a 2 x 2 block).
  // A factor below 1 throws ImageSizeError.
  virtual Image* ScaleOfImage(Request* req, int factor) const;
  // Every pixel set to the colour; a mask takes its alpha.
  virtual void Fill(Pixel colour);
  // Colour space conversions in place, alpha kept, values rounded half away from zero and held
  // to 0..255; the first letter of a space goes into the red byte, the second into green, the
  // third into blue. YUV is full-range BT.601, computed exactly in integers (coefficients in
  // millionths). HLS is computed as the double-precision formulas give it, bit for bit.
  virtual void RGBtoYUV();
  virtual void YUVtoRGB();
  virtual void RGBtoHLS();
  virtual void HLStoRGB();
  // Per-channel gamma: T[v] = clamp(floor(255 * (v / 255)^(1 / gamma) + 0.5), 0, 255) in double
  // precision; gamma +0 gives 0 below 255 and 255 at 255, a negative gamma gives 255.
  virtual void Gamma(float red, float green, float blue, float alpha);
  // Per-channel gain: T[v] = clamp(floor(v * gain + 0.5), 0, 255) in double precision.
  virtual void Gain(float red, float green, float blue, float alpha);
  // Composites the premultiplied image `fg`, its top-left corner at (x, y) of this image, over
  // the overlapping area; the rest is unchanged. With d(v) = round(v / 255):
  //   OXMerge, exclusive-or: c = d(fg.c * (255 - bg.a)) + d(bg.c * (255 - fg.a)), alpha alike;
  //   OMerge, over:          c = fg.c + d(bg.c * (255 - fg.a)), alpha alike;
  // each held to 255.
  virtual void OXMerge(const Image* fg, long x, long y);
  virtual void OMerge(const Image* fg, long x, long y);
  // Green-difference form: red byte G, green byte (B - G + 256) >> 1, blue byte
  // (R - G + 256) >> 1 (the differences from green halved and centred on 128).
  virtual void RGBtoGUV();
  // Writes the pixels to a packed three-byte buffer: rows top to bottom, 3 * width bytes each,
  // no padding, bytes blue, green, red. A mask writes its value three times.
  virtual void BGRAtoBGR(void* bgr) const;
  // Reads the pixels from such a buffer, alpha set to `alpha`. A mask takes the luminance.
  virtual void BGRtoBGRA(const void* bgr, unsigned char alpha);
  // Moves each colour channel from the pixel's luminance Y (see Luminance) by its factor:
  // c = clamp(round-half-away-from-zero(Y + (c - Y) * s), 0, 255), in double precision.
  virtual void Saturate(float red, float green, float blue);
  // Box and triangular blurs in place. The four switches choose the channels (non-zero: blur;
  // a mask follows the alpha switch); x_radius and y_radius (below 0 count as 0) are in
  // pixels. Blur weighs the 2r + 1 pixels of each direction alike; Bartlet weighs offset d
  // by r + 1 - |d|. Rows and columns past the edges repeat the edge pixel. Each pass keeps
  // 8 fractional bits and the result is rounded to the nearest byte.
  virtual void Blur(long red, long green, long blue, long alpha, long x_radius, long y_radius);
  virtual void Bartlet(long red, long green, long blue, long alpha, long x_radius, long y_radius);
  // Fills this image from `src` read from (x, y) on: pixel (i, j) = src(i + x, j + y);
  // outside the source, transparent black.
  virtual void ImageCrop(const Image* src, long x, long y);
  // A new image of width x height (one reference, the caller's; not bound to a request) holding
  // this image's pixels from (x, y) on, transparent black outside; attributes kept. Throws
  // ImageSizeError for an impossible size.
  virtual Image* CropOfImage(long x, long y, long width, long height) const;
  // Fills this image from `src` moved by (x, y): pixel (i, j) = src(i - x, j - y); outside the
  // source, transparent black.
  virtual void ImageOffset(const Image* src, long x, long y);
  // Resamples this image into `dst` (its size chosen by the caller) with a separable triangle
  // filter: bilinear when enlarging, and when reducing a triangle as wide as two destination
  // pixels, so every source pixel is averaged in. Edges repeat the edge pixel.
  virtual void ImageResize(Image* dst) const;
  // Samplers; x and y in 1/256 pixel, pixel centres at whole pixels. quality 0: nearest pixel,
  // ((x + 128) >> 8, (y + 128) >> 8); any other quality: bilinear between the four pixels
  // around (x >> 8, y >> 8) with weights in 1/256, rounded. A neighbour outside the image
  // counts as transparent black for DoSample_Black and as the nearest edge pixel for
  // DoSample_Clamp. A mask's value lands in all four bytes; an empty image gives 0.
  void DoSample_Black(Pixel* out, long x, long y, long quality) const;
  void DoSample_Clamp(Pixel* out, long x, long y, long quality) const;
  // `count` samples along a line as pixel words, each exactly what the sampler above gives:
  // sample k is read at (X >> 8, Y >> 8) with X = x + k dx and Y = y + k dy in 1/65536 pixel,
  // 32-bit sums that wrap as repeated steps do. Returns where the samples are: `out` (room for
  // `count` words), or, when they are all a run of one row of this image, that row itself.
  const uint32_t* SampleRow_Black(uint32_t* out, int count, int32_t x, int32_t y, int32_t dx, int32_t dy,
                                  long quality) const;
  const uint32_t* SampleRow_Clamp(uint32_t* out, int count, int32_t x, int32_t y, int32_t dx, int32_t dy,
                                  long quality) const;
  // `count` samples at points given one by one, x[k] and y[k] in 1/256 pixel, as pixel words:
  // out[k] is exactly what DoSample_Black or DoSample_Clamp gives at that point.
  void SamplePoints_Black(uint32_t* out, int count, const int32_t* x, const int32_t* y, long quality) const;
  void SamplePoints_Clamp(uint32_t* out, int count, const int32_t* x, const int32_t* y, long quality) const;
  // Where `other`, its top-left corner at (x, y) of this image, overlaps this image: the
  // overlap starts at (dst_x, dst_y) here and at (src_x, src_y) in `other` and is width x
  // height pixels. Returns false, with all six 0, when they do not overlap.
  bool OffCalc(const Image* other, long x, long y, long* dst_x, long* dst_y, long* src_x, long* src_y,
               long* width, long* height) const;
  // The colour-difference form of the keyers: with Y = Luminance(R, G, B) of the original
  // bytes, A = Y and each colour channel 128 + its ColourDifferences value.
  virtual void ColourDifference();

  float x_aspect = 1.0f;
  float y_aspect = 1.0f;
  float origin_x = 0.5f;
  float origin_y = 0.5f;
  // frameattr::FullWidth, FullHeight, Field.
  TagList frame_attrs;

  // The largest image, in bytes, that may be made (2^31 by default).
  static void SetSizeLimit(size_t bytes);
  static size_t SizeLimit();

 private:
  // Gives pixel memory back to the pool it came from.
  struct ReleasePixels {
    size_t bytes;
    void operator()(uint8_t* memory) const;
  };

  int width_ = 0, height_ = 0, depth_ = 32;
  std::vector<void*> rows_;
  std::unique_ptr<uint8_t, ReleasePixels> own_;
};

// The luminance of the keyers and of Saturate: (19595 R + 38470 G + 7471 B) >> 16.
constexpr int Luminance(int red, int green, int blue) { return (19595 * red + 38470 * green + 7471 * blue) >> 16; }

// A pixel's luminance and its scaled colour differences q(R - Y, 40000), q(G - Y, 50000),
// q(B - Y, 30000), with q(d, k) = d * k / 65536 rounded toward zero.
struct ColourDifferences {
  int luminance, red, green, blue;
};
constexpr ColourDifferences ColourDifferencesOf(int red, int green, int blue) {
  const int y = Luminance(red, green, blue);
  // A shift rounds toward minus infinity; adding 65535 to negative products first rounds
  // toward zero instead.
  const auto q = [](int d, int k) { return (d * k + ((d * k) >> 31 & 0xFFFF)) >> 16; };
  return {y, q(red - y, 40000), q(green - y, 50000), q(blue - y, 30000)};
}

// A new image for the request with the size, depth and attributes of `like` (cleared to zero);
// the request owns it until it is handed on with SetOutputData.
Image* NewImage(Request* req, const Image* like);
// NewImage without the clearing, for a tool that writes every byte of every row; a row it
// leaves (a render stopped part way) it clears itself, see module::WriteEachRow.
Image* NewImageUnset(Request* req, const Image* like);
// A new image of the given size and depth, other attributes from `like` (which may be null).
Image* NewImage(Request* req, int width, int height, int depth, const Image* like);

}  // namespace kestrion

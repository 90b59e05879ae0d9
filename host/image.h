// Images: frames of 32-bit BGRA pixels (byte 0 blue) or 8-bit masks, addressed through a row
// table whose entry y is row y counted from the top. Images built over memory that a caller
// supplies may hold their rows bottom-up, so code always goes through the row table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

#include "host/parameter.h"

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
  // A new image, cleared to zero. depth is 32 (BGRA) or 8 (mask). Throws ImageSizeError.
  Image(int width, int height, int depth = 32);
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
  void Build(int width, int height, int depth);

  int width_ = 0, height_ = 0, depth_ = 32;
  std::vector<void*> rows_;
  std::unique_ptr<uint8_t[]> own_;
};

// A new image for the request with the size, depth and attributes of `like` (cleared to zero);
// the request owns it until it is handed on with SetOutputData.
Image* NewImage(Request* req, Image* like);
// A new image of the given size and depth, other attributes from `like` (which may be null).
Image* NewImage(Request* req, int width, int height, int depth, Image* like);

}  // namespace kestrion

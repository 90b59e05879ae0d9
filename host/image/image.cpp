#include "host/image/image.h"

#include <atomic>
#include <cstring>
#include <string>

#include "host/graph/request.h"

namespace kestrion {

namespace {
std::atomic<size_t> g_size_limit{size_t(1) << 31};
}

void Image::SetSizeLimit(size_t bytes) { g_size_limit.store(bytes); }
size_t Image::SizeLimit() { return g_size_limit.load(); }

static void CheckSize(int width, int height, int depth) {
  if (depth != 32 && depth != 8) throw ImageSizeError("image depth " + std::to_string(depth) + " is not 8 or 32");
  if (width < 0 || height < 0)
    throw ImageSizeError("image size " + std::to_string(width) + " x " + std::to_string(height) + " is negative");
  const uint64_t bytes = uint64_t(width) * uint64_t(height) * uint64_t(depth / 8);
  if (bytes > g_size_limit.load())
    throw ImageSizeError("image size " + std::to_string(width) + " x " + std::to_string(height) + " needs " +
                         std::to_string(bytes) + " bytes, over the limit of " + std::to_string(g_size_limit.load()));
}

Image::Image(int width, int height, int depth) { Build(width, height, depth); }

void Image::Build(int width, int height, int depth) {
  CheckSize(width, height, depth);
  width_ = width;
  height_ = height;
  depth_ = depth;
  const size_t stride = size_t(width) * BytesPerPixel();
  const size_t total = stride * size_t(height);
  own_.reset(new uint8_t[total == 0 ? 1 : total]());
  rows_.resize(size_t(height));
  for (int y = 0; y < height; ++y) rows_[size_t(y)] = own_.get() + stride * size_t(y);
}

Image::Image(int width, int height, int depth, void* memory, ptrdiff_t stride, bool bottom_up) {
  CheckSize(width, height, depth);
  width_ = width;
  height_ = height;
  depth_ = depth;
  rows_.resize(size_t(height));
  auto* base = static_cast<uint8_t*>(memory);
  for (int y = 0; y < height; ++y) {
    const ptrdiff_t index = bottom_up ? ptrdiff_t(height - y - 1) : ptrdiff_t(y);
    rows_[size_t(y)] = base + index * stride;
  }
}

Image::~Image() = default;

void Image::CopyAttributesFrom(const Image& other) {
  x_aspect = other.x_aspect;
  y_aspect = other.y_aspect;
  origin_x = other.origin_x;
  origin_y = other.origin_y;
  frame_attrs = other.frame_attrs;
}

Parameter* Image::Copy() const { return CopyOfImage(nullptr); }

bool Image::Equals(const Parameter& other) const {
  auto* o = dynamic_cast<const Image*>(&other);
  if (!o || o->width_ != width_ || o->height_ != height_ || o->depth_ != depth_) return false;
  const size_t row_bytes = size_t(width_) * BytesPerPixel();
  for (int y = 0; y < height_; ++y)
    if (std::memcmp(rows_[size_t(y)], o->rows_[size_t(y)], row_bytes) != 0) return false;
  return true;
}

Image* NewImage(Request* req, const Image* like) {
  return NewImage(req, like ? like->Width() : 0, like ? like->Height() : 0, like ? like->Depth() : 32, like);
}

Image* NewImage(Request* req, int width, int height, int depth, const Image* like) {
  auto* img = new Image(width, height, depth);
  if (like) img->CopyAttributesFrom(*like);
  if (req) req->Own(img);
  return img;
}

}  // namespace kestrion

#include "host/image/image.h"

#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "host/graph/request.h"

namespace kestrion {

namespace {
std::atomic<size_t> g_size_limit{size_t(1) << 31};

// The pixel memory of large images that have ended, kept for the next image of the same size.
// A render makes and drops frames of a few sizes over and over; memory the process still holds
// needs no fresh pages from the system (frames of 4K and up are handed back to it on every
// free otherwise) and, where a tool writes every byte, no clearing. The newest few are kept;
// under AddressSanitizer kept memory is poisoned, so a use after the image ended is still found.
class PixelPool {
 public:
  static constexpr size_t kSmallest = size_t(256) << 10;  // below this the allocator does as well
  static constexpr size_t kMostBuffers = 8;
  static constexpr size_t kMostBytes = size_t(512) << 20;
  static constexpr std::align_val_t kAlignment{64};

  // `bytes` of memory: zero when `cleared`, otherwise as it was left.
  uint8_t* Take(size_t bytes, bool cleared) {
    if (bytes >= kSmallest) {
      std::unique_lock<std::mutex> hold(lock_);
      const auto it = std::find_if(kept_.rbegin(), kept_.rend(), [&](const Kept& k) { return k.bytes == bytes; });
      if (it != kept_.rend()) {
        uint8_t* memory = it->memory;
        kept_bytes_ -= bytes;
        kept_.erase(std::next(it).base());
        hold.unlock();
        ASAN_UNPOISON_MEMORY_REGION(memory, bytes);
        if (cleared) std::memset(memory, 0, bytes);
        return memory;
      }
    }
    auto* memory = static_cast<uint8_t*>(::operator new(bytes, kAlignment));
    if (cleared) std::memset(memory, 0, bytes);
    return memory;
  }

  void Give(uint8_t* memory, size_t bytes) {
    if (bytes < kSmallest || bytes > kMostBytes) return Free(memory);
    ASAN_POISON_MEMORY_REGION(memory, bytes);
    std::vector<Kept> dropped;
    {
      std::lock_guard<std::mutex> hold(lock_);
      kept_.push_back({memory, bytes});
      kept_bytes_ += bytes;
      while (kept_.size() > kMostBuffers || kept_bytes_ > kMostBytes) {
        dropped.push_back(kept_.front());
        kept_bytes_ -= kept_.front().bytes;
        kept_.erase(kept_.begin());
      }
    }
    for (const Kept& k : dropped) {
      ASAN_UNPOISON_MEMORY_REGION(k.memory, k.bytes);
      Free(k.memory);
    }
  }

 private:
  static void Free(uint8_t* memory) { ::operator delete(memory, kAlignment); }

  struct Kept {
    uint8_t* memory;
    size_t bytes;
  };
  std::mutex lock_;
  std::vector<Kept> kept_;  // oldest first
  size_t kept_bytes_ = 0;
};

// Never destroyed: images may end after static destructors have run.
PixelPool& ThePixelPool() {
  static PixelPool* pool = new PixelPool;
  return *pool;
}
}  // namespace

void Image::ReleasePixels::operator()(uint8_t* memory) const { ThePixelPool().Give(memory, bytes); }

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

Image::Image(int width, int height, int depth, Contents contents) {
  CheckSize(width, height, depth);
  width_ = width;
  height_ = height;
  depth_ = depth;
  const size_t stride = size_t(width) * BytesPerPixel();
  const size_t total = std::max<size_t>(stride * size_t(height), 1);
  own_ = std::unique_ptr<uint8_t, ReleasePixels>(ThePixelPool().Take(total, contents == Contents::Cleared),
                                                 ReleasePixels{total});
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

void Image::ClearRows(int begin, int end) {
  const size_t row_bytes = size_t(width_) * BytesPerPixel();
  for (int y = std::max(begin, 0); y < std::min(end, height_); ++y) std::memset(rows_[size_t(y)], 0, row_bytes);
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

namespace {
Image* NewImageOf(Request* req, int width, int height, int depth, const Image* like, Image::Contents contents) {
  auto* img = new Image(width, height, depth, contents);
  if (like) img->CopyAttributesFrom(*like);
  if (req) req->Own(img);
  return img;
}
}  // namespace

Image* NewImage(Request* req, int width, int height, int depth, const Image* like) {
  return NewImageOf(req, width, height, depth, like, Image::Contents::Cleared);
}

Image* NewImageUnset(Request* req, const Image* like) {
  return NewImageOf(req, like ? like->Width() : 0, like ? like->Height() : 0, like ? like->Depth() : 32, like,
                    Image::Contents::Unset);
}

}  // namespace kestrion

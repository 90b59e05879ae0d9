// Small images for the image, frame and tool tests: made from a list of pixels given top row
// first, held in the host's own memory or over test memory whose rows lie top-down or
// bottom-up, with padding between rows that no operation may touch.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "host/image/image.h"
#include "host/base/object.h"
#include "host/graph/operator.h"

namespace kestrion::test {

// Expected pixel words and mask bytes, row after row.
using Vec = std::vector<uint32_t>;
using Bytes = std::vector<uint8_t>;

enum class Rows { Owned, TopDown, BottomUp };

// Every row layout, and the test names they give, for suites run over each of them.
constexpr Rows kAllRows[] = {Rows::Owned, Rows::TopDown, Rows::BottomUp};
inline std::string RowsTestName(const ::testing::TestParamInfo<Rows>& info) {
  return info.param == Rows::Owned ? "Owned" : info.param == Rows::TopDown ? "TopDown" : "BottomUp";
}

constexpr uint32_t Bgra(uint32_t b, uint32_t g, uint32_t r, uint32_t a) { return b | g << 8 | r << 16 | a << 24; }

constexpr uint8_t kPadding = 0xEE;
constexpr size_t kPaddingBytes = 12;

// An image and the test memory under it (empty for Rows::Owned).
struct TestImage {
  std::vector<uint8_t> memory;
  Ref<Image> image;

  Image* operator->() const { return image.get(); }
  Image* get() const { return image.get(); }

  // True when the padding after every row still holds kPadding.
  bool PaddingIntact() const {
    if (memory.empty()) return true;
    const size_t row_bytes = size_t(image->Width()) * image->BytesPerPixel();
    const size_t stride = row_bytes + kPaddingBytes;
    for (size_t at = 0; at < memory.size(); at += stride)
      for (size_t k = row_bytes; k < stride; ++k)
        if (memory[at + k] != kPadding) return false;
    return true;
  }
};

// A w x h image of the given depth; `bytes` holds the pixels top row first (4 or 1 bytes each).
inline TestImage MakeImage(int w, int h, int depth, Rows rows, const void* bytes) {
  TestImage t;
  const size_t row_bytes = size_t(w) * size_t(depth / 8);
  if (rows == Rows::Owned) {
    t.image = Ref<Image>::Adopt(new Image(w, h, depth));
  } else {
    const size_t stride = row_bytes + kPaddingBytes;
    t.memory.assign(stride * size_t(h), kPadding);
    t.image = Ref<Image>::Adopt(
        new Image(w, h, depth, t.memory.data(), ptrdiff_t(stride), rows == Rows::BottomUp));
  }
  for (int y = 0; y < h; ++y)
    std::memcpy(t.image->RowTable()[y], static_cast<const uint8_t*>(bytes) + row_bytes * size_t(y), row_bytes);
  return t;
}

inline TestImage MakeFrame(int w, int h, Rows rows, const std::vector<uint32_t>& words) {
  return MakeImage(w, h, 32, rows, words.data());
}

inline TestImage MakeMask(int w, int h, Rows rows, const std::vector<uint8_t>& values) {
  return MakeImage(w, h, 8, rows, values.data());
}

// The pixels through the row table, top row first.
inline std::vector<uint32_t> Words(const Image& img) {
  std::vector<uint32_t> out;
  for (int y = 0; y < img.Height(); ++y) out.insert(out.end(), img.Row(y), img.Row(y) + img.Width());
  return out;
}

inline std::vector<uint8_t> MaskValues(const Image& img) {
  std::vector<uint8_t> out;
  for (int y = 0; y < img.Height(); ++y) out.insert(out.end(), img.MaskRow(y), img.MaskRow(y) + img.Width());
  return out;
}

// The smallest operator a Request can name.
class NullTool : public ThreadedOperator {
 public:
  NullTool() : ThreadedOperator(nullptr, nullptr, nullptr) {}
  uint32_t Process(Request*) override { return 1; }
};

}  // namespace kestrion::test

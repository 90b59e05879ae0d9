// The warps' row loops: a row along a line and a row at positions worked out per pixel, black
// and clamped, full and quick, into a frame and into a mask, over rows longer than a piece;
// every pixel is what the single-point sampler gives there.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "module/warp_rows.h"
#include "tests/host/image/image_fixtures.h"

namespace kestrion::module {
namespace {

constexpr int kLength = 300;

// One output row's pixels, a mask's values as they are.
std::vector<uint32_t> RowOf(const Image& img) {
  std::vector<uint32_t> out;
  for (int x = 0; x < img.Width(); ++x) out.push_back(img.Depth() == 8 ? img.MaskRow(0)[x] : img.Row(0)[x]);
  return out;
}

uint32_t Single(const Image& src, Edge edge, long x, long y, long quality) {
  Pixel p;
  edge == Edge::Black ? src.DoSample_Black(&p, x, y, quality) : src.DoSample_Clamp(&p, x, y, quality);
  return src.Depth() == 8 ? p.a : p.Word();
}

template <Edge kEdge>
void ExpectSingleSamples(const Image& src, long quality) {
  SCOPED_TRACE(testing::Message() << "depth " << src.Depth() << (kEdge == Edge::Black ? ", black" : ", clamped")
                                  << ", quality " << quality);
  Ref<Image> out = Ref<Image>::Adopt(new Image(kLength, 1, src.Depth()));
  const int32_t x = -2 * 65536 + 123, y = 65536 + 77, dx = 4000, dy = 300;
  SampleLine<kEdge>(src, *out, 0, x, y, dx, dy, quality);
  std::vector<uint32_t> expected;
  for (int k = 0; k < kLength; ++k) expected.push_back(Single(src, kEdge, (x + k * dx) >> 8, (y + k * dy) >> 8, quality));
  EXPECT_EQ(RowOf(*out), expected) << "along a line";

  const auto position_x = [](int k) { return k * 13 - 600; };
  const auto position_y = [](int k) { return k * 7 % 1500 - 200; };
  SampleMappedRow<kEdge>(src, *out, 0, quality, [&](int first, int count, int32_t* sx, int32_t* sy) {
    for (int k = 0; k < count; ++k) {
      sx[k] = position_x(first + k);
      sy[k] = position_y(first + k);
    }
  });
  expected.clear();
  for (int k = 0; k < kLength; ++k) expected.push_back(Single(src, kEdge, position_x(k), position_y(k), quality));
  EXPECT_EQ(RowOf(*out), expected) << "at mapped positions";
}

TEST(WarpRows, RowsGiveTheSinglePointSamples) {
  std::mt19937 random(41);
  std::vector<uint32_t> words(35);
  for (uint32_t& w : words) w = uint32_t(random());
  std::vector<uint8_t> values(words.begin(), words.end());
  const auto frame = test::MakeFrame(7, 5, test::Rows::BottomUp, words);
  const auto mask = test::MakeMask(7, 5, test::Rows::Owned, values);
  for (const Image* src : {frame.get(), mask.get()})
    for (long quality : {0L, 1L}) {
      ExpectSingleSamples<Edge::Black>(*src, quality);
      ExpectSingleSamples<Edge::Clamp>(*src, quality);
    }
}

}  // namespace
}  // namespace kestrion::module

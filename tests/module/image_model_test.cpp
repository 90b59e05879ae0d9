// The chunk and pixel helpers of the tools: band rows from the top and from the bottom, the
// abort-aware row loop, the 15-bit blend and sizes against a 320-pixel-wide frame.
#include <gtest/gtest.h>

#include <vector>

#include "module/image_model.h"
#include "host/image/image.h"
#include "tests/host/image/image_fixtures.h"

namespace kestrion::module {
namespace {

struct BandCase {
  int height;
  long chunks, chunk;
  RowSpan top, bottom;
};

// clang-format off
const BandCase kBands[] = {
  // 10 rows in 3 bands of trunc(10 / 3) = 3; in both orders the band holding the bottom row
  // takes the remainder (the last band from the top, the first from the bottom).
  {10, 3, 0, {0, 3},  {6, 10}},
  {10, 3, 1, {3, 6},  {3, 6}},
  {10, 3, 2, {6, 10}, {0, 3}},
  // One band is everything.
  {7,  1, 0, {0, 7},  {0, 7}},
  // More bands than rows: bands of 0 rows, and the one holding the bottom row takes all.
  {2,  4, 0, {0, 0},  {0, 2}},
  {2,  4, 2, {0, 0},  {0, 0}},
  {2,  4, 3, {0, 2},  {0, 0}},
  // One chunk per row.
  {5,  5, 4, {4, 5},  {0, 1}},
};
// clang-format on

TEST(BandRows, FromTheTopAndFromTheBottom) {
  for (const BandCase& c : kBands) {
    SCOPED_TRACE(testing::Message() << "chunk " << c.chunk << " of " << c.chunks << " over " << c.height << " rows");
    EXPECT_EQ(BandRows(c.height, c.chunks, c.chunk), c.top);
    EXPECT_EQ(BandRowsFromBottom(c.height, c.chunks, c.chunk), c.bottom);
  }
}

TEST(BandRows, BandsCoverEveryRowOnce) {
  for (int height : {1, 9, 1080})
    for (long chunks : {1L, 2L, 7L, 16L}) {
      std::vector<int> top(static_cast<size_t>(height)), bottom(static_cast<size_t>(height));
      for (long c = 0; c < chunks; ++c) {
        for (RowSpan s = BandRows(height, chunks, c); s.begin < s.end; ++s.begin) ++top[size_t(s.begin)];
        for (RowSpan s = BandRowsFromBottom(height, chunks, c); s.begin < s.end; ++s.begin)
          ++bottom[size_t(s.begin)];
      }
      EXPECT_EQ(top, std::vector<int>(size_t(height), 1)) << height << " / " << chunks;
      EXPECT_EQ(bottom, std::vector<int>(size_t(height), 1)) << height << " / " << chunks;
    }
}

TEST(ForEachRow, TestsTheAbortFlagBeforeEveryRow) {
  test::NullTool tool;
  std::vector<int> rows;
  EXPECT_TRUE(ForEachRow(tool, {2, 5}, [&](int y) { rows.push_back(y); }));
  EXPECT_EQ(rows, (std::vector<int>{2, 3, 4}));
  // Raised during row 3: row 3 finishes, row 4 never starts.
  rows.clear();
  EXPECT_FALSE(ForEachRow(tool, {2, 5}, [&](int y) {
    rows.push_back(y);
    if (y == 3) tool.abort_flag = 1;
  }));
  EXPECT_EQ(rows, (std::vector<int>{2, 3}));
  // Already raised: no row at all.
  rows.clear();
  EXPECT_FALSE(ForEachRow(tool, {0, 3}, [&](int y) { rows.push_back(y); }));
  EXPECT_TRUE(rows.empty());
}

struct BlendCase {
  double m;
  int weight;
  int a, b, out;
};

// clang-format off
const BlendCase kBlends[] = {
  {0.5,  16384, 255, 0,   127},   // 255 * 16384 >> 15 = 127.5, shifted down
  {0.3,  9830,  200, 100, 129},   // floor(9830.4); (200 * 9830 + 100 * 22938) >> 15 = 129.99
  {1.0,  32768, 200, 100, 200},
  {0.0,  0,     200, 100, 100},
  {0.99999, 32767, 255, 255, 255},
  {2.0,  65536, 200, 100, 44},    // (13107200 - 3276800) >> 15 = 300: the low 8 bits
};
// clang-format on

TEST(Blend15, WeightsRoundDownAndResultsKeepTheLowByte) {
  for (const BlendCase& c : kBlends) {
    const BlendWeight w = BlendWeightOf(c.m);
    EXPECT_EQ(w.weight, c.weight) << c.m;
    EXPECT_EQ(w.complement, 32768 - c.weight) << c.m;
    EXPECT_EQ(Blend15(c.a, c.b, w), c.out) << c.m;
  }
}

TEST(ReferenceSize, MeasuresAgainstA320PixelFrame) {
  Image img(640, 10);
  EXPECT_DOUBLE_EQ(ReferenceSize(10.0, img), 20.0);
  img.x_aspect = 2.0f;
  EXPECT_DOUBLE_EQ(ReferenceSize(10.0, img), 10.0);
  img.x_aspect = 0.5f;
  EXPECT_DOUBLE_EQ(ReferenceSize(1.5, img), 6.0);
}

}  // namespace
}  // namespace kestrion::module

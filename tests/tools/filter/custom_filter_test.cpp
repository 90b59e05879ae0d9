// Custom Filter: the padding that repeats row 2 and column 1 and leaves the corners clear, the
// matrix applied mirrored left to right only, an edge detector's zero sum, the floor level,
// normalisation, blend and switches, and random matrices of every size against a reference on
// random images of every width.
#include <cstdint>

#include "host/graph/filter_matrix.h"
#include "tests/tools/filter/filter_fixture.h"

namespace kestrion::test {
namespace {

using CustomFilterTest = FilterToolTest;

// A new tool's matrix is the 3 x 3 identity: size code 0, the centre weight 9 of nine.
TEST_F(CustomFilterTest, TheDefaultMatrixIsTheIdentity) {
  std::vector<uint16_t> expected(54, 1);
  expected[0] = 0;
  expected[2] = 9;
  expected[1] = expected[3] = expected[4] = 0;
  EXPECT_EQ(In(Tool("UserFilter"), "Matrix")->ValueAs<LookUpTable>()->entries, expected);
}

TEST_F(CustomFilterTest, MatricesWorkedByHand) {
  const std::vector<int> mean(9, 1), right = {0, 0, 0, 0, 0, 1, 0, 0, 0}, top = {0, 1, 0, 0, 0, 0, 0, 0, 0};
  const std::vector<int> laplacian = {0, -1, 0, -1, 4, -1, 0, -1, 0};
  const struct {
    const char* what;
    int w, h;
    std::vector<int> greys, block;
    double normalize, floor, blend;
    int switches;
    int at;  // the one pixel compared, or -1 for all
    std::vector<Pixel> expected;
  } cases[] = {
      // The mean S / 9. Rows 0, 0, 90, 0: the rows above repeat row 2, so row 0 takes a third of
      // it; the corner pixels also read a clear corner of the padding.
      {"padding repeats row 2", 3, 4, {0, 0, 0, 0, 0, 0, 90, 90, 90, 0, 0, 0}, mean, 0, 0, 1, 15, -1,
       Greys({20, 30, 20, 30, 30, 30, 30, 30, 30, 30, 30, 30})},
      {"padding corners are clear", 3, 3, std::vector<int>(9, 90), mean, 0, 0, 1, 15, -1,
       Greys({80, 90, 80, 90, 90, 90, 80, 90, 80})},
      // A single weight of 1 (N = 256, so v = S): on the right of the middle row it reads the
      // pixel to the left (column -1 repeats column 1); at the top of the middle column it reads
      // the row above (row -1 repeats row 2).
      {"mirrored across", 3, 1, {10, 20, 30}, right, 0, 0, 1, 15, -1, Greys({20, 10, 20})},
      {"not mirrored down", 1, 4, {10, 20, 30, 40}, top, 0, 0, 1, 15, -1, Greys({30, 10, 20, 30})},
      // A Laplacian sums to 0, so N = 256: v = S, a dark centre goes below 0 and is held there;
      // the floor level adds F = trunc(floor x 256) before holding.
      {"zero sum, held at 0", 3, 3, {50, 50, 50, 50, 0, 50, 50, 50, 50}, laplacian, 0, 0, 1, 15, 4, {Grey(0)}},
      {"floor 0.5", 2, 2, std::vector<int>(4, 40), laplacian, 0, 0.5, 1, 15, 3, {Grey(128)}},
      {"floor 1", 2, 2, std::vector<int>(4, 40), laplacian, 0, 1, 1, 15, 3, {Grey(255)}},
      // Nz = trunc(0.5 x 255) = 127, N = 9 x 129: 810 x 256 / 1161 = 178.
      {"normalize 0.5", 3, 3, std::vector<int>(9, 90), mean, 0.5, 0, 1, 15, 4, {Grey(178)}},
      // Nz 255 leaves N = 1: a bright top row and right neighbour under weights of 127 give v =
      // 4 x 127 x 255 x 256, and 256 (v + F) wraps in 32 bits to a negative, held at 0.
      {"products wrap in 32 bits", 3, 3, {255, 255, 255, 0, 0, 255, 0, 0, 0},
       {127, 127, 127, 127, 1, -127, -127, -127, -127}, 1, 0, 1, 15, 4, {Grey(0)}},
      // Blend 0.5 (Bl 128): (s x 128 + 128 (v + F)) >> 8; switched-off channels keep the source.
      {"blend and switches", 3, 1, {10, 20, 30}, right, 0, 0, 0.5, 1 | 4, -1,
       {{15, 10, 15, 10}, {15, 20, 15, 20}, {25, 30, 25, 30}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Operator* op = Tool("UserFilter");
    Link(Source(c.w, c.h, Greys(c.greys)), op, "Image");
    In(op, "Matrix")->SetValue(new LookUpTable(filter_matrix::OfBlock(3, c.block)));
    Set(op, "Normalize", c.normalize);
    Set(op, "Floor level", c.floor);
    Set(op, "Blend", c.blend);
    SetSwitches(op, c.switches);
    const std::vector<Pixel> got = RenderPixels(op);
    EXPECT_EQ(c.at < 0 ? got : std::vector{got.at(size_t(c.at))}, c.expected);
  }
}

// --- the reference: the padded source read pixel by pixel ---

int Padded(const Vec& img, int w, int h, int x, int y, int c) {
  const bool across = x >= 0 && x < w, down = y >= 0 && y < h;
  if (!across && !down) return 0;
  if (!down) y = y < 0 ? std::min(2, h - 1) : h - 1;
  if (!across) x = x < 0 ? std::min(1, w - 1) : w - 1;
  return HeldByte(img, w, h, x, y, c);
}

struct CustomSetting {
  int size;
  std::vector<int> block;
  double normalize, floor, blend;
  int switches;
};

Vec ReferenceCustom(const CustomSetting& s, const Vec& img, int w, int h) {
  const int r = s.size / 2;
  int64_t n = 0;
  for (int v : s.block) n += v;
  if (n == 0) n = 1;
  const int64_t nz = int64_t(s.normalize * 255.0);
  n *= nz != 0 ? 256 - nz : 256;
  const int64_t bl = int64_t(s.blend * 256.0), f = int64_t(s.floor * 256.0);
  Vec out;
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      uint32_t word = 0;
      for (int k = 0; k < 4; ++k) {
        const int c = kSwitchByte[k], src = HeldByte(img, w, h, x, y, c);
        int64_t sum = 0;
        for (int dy = -r; dy <= r; ++dy)
          for (int j = 0; j <= 2 * r; ++j)
            sum += s.block[size_t((dy + r) * s.size + j)] * Padded(img, w, h, x + r - j, y + dy, c);
        const int64_t v = sum * 256 / n;
        const int32_t mixed = int32_t(uint32_t(uint64_t(src * (256 - bl) + bl * (v + f)))) >> 8;
        word |= uint32_t(s.switches >> k & 1 ? std::clamp(mixed, 0, 255) : src) << (8 * c);
      }
      out.push_back(word);
    }
  return out;
}

TEST_F(CustomFilterTest, RandomMatricesMatchTheReference) {
  std::vector<CustomSetting> settings;
  std::uniform_int_distribution<int> weight(-128, 127);
  for (int size : {3, 5, 7})
    for (int k = 0; k < 3; ++k) {
      std::vector<int> block(size_t(size * size));
      for (int& v : block) v = k == 2 ? weight(random_) / 16 : weight(random_);
      settings.push_back(
          {size, block, k == 1 ? -0.6 : 0.9, k == 0 ? 0.3 : -0.2, k == 2 ? 0.45 : 1.0, k == 1 ? 11 : 15});
    }
  CheckEveryWidth(
      "UserFilter", int(settings.size()),
      [&](Operator* op, int setting) {
        const CustomSetting& s = settings[size_t(setting)];
        In(op, "Matrix")->SetValue(new LookUpTable(filter_matrix::OfBlock(s.size, s.block)));
        Set(op, "Normalize", s.normalize);
        Set(op, "Floor level", s.floor);
        Set(op, "Blend", s.blend);
        SetSwitches(op, s.switches);
      },
      [&](int setting, const Vec& img, const Vec&, int w, int h) {
        return ReferenceCustom(settings[size_t(setting)], img, w, h);
      });
}

}  // namespace
}  // namespace kestrion::test

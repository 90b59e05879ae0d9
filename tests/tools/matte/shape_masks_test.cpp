// Rectangle, Circle and Triangle: the corners and boxes worked out by hand from their inputs,
// whole pixels inside them at 255 and outside at 0 (the edge band aside where edges cross
// pixels), nothing for sizes that are not positive, aliased quick renders, proxy renders at
// the reduced size, and their save records.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "host/base/archive.h"
#include "module/operator_contract.h"
#include "tests/tools/matte/mask_fixture.h"

namespace kestrion::test {
namespace {

struct Setting {
  const char* label;
  double x, y = -1;  // y >= 0: a point
};

struct ShapeCase {
  const char* what;
  const char* tool;
  std::vector<Setting> settings;
  int width, height;
  CRect bounds;
  long full;  // pixels at 255 (-1: not counted); the others are 0 but on edges within `bounds`
  uint32_t flags = 0;
  std::vector<std::pair<CPoint, uint8_t>> pixels = {};
};

// clang-format off
const ShapeCase kShapes[] = {
  // hw = 0.5 * 720 * 0.5 = 180, hh = 0.5 * 486 * 0.5 = 121.5 about (360, 243): corners
  // (540, 364.5), (540, 121.5), (180, 121.5), (180, 364.5), truncated.
  {"rectangle", "RectangleMask", {}, 720, 486, {180, 121, 540, 364}, 360 * 243},
  // cos 90 leaves ~1e-14: corners (481.5, 63), (238.5, 63), (238.5, 423), (481.5, 423).
  {"rectangle at 90", "RectangleMask", {{"Angle", 90}}, 720, 486, {238, 63, 481, 423}, 243 * 360},
  {"rectangle, width 0", "RectangleMask", {{"Width", 0}}, 720, 486, {}, 0},
  {"rectangle, height 0", "RectangleMask", {{"Height", 0}}, 720, 486, {}, 0},
  // At proxy 2 the frame is 360 x 243: hh = 60.75 about 121.5.
  {"rectangle at proxy 2", "RectangleMask", {}, 720, 486, {90, 60, 270, 182}, 180 * 122, rflag::Proxy},
  // r = 0.5 frame widths = 360 pixels both ways about (360, trunc-free 437.4): box (0, 77) to
  // (720, 797), cut by the frame's bottom. Round in pixels: row 437 full from edge to edge, and
  // column 360 from row 78 down.
  {"circle of size 1", "Circle", {{"Size", 1}, {"Center", 0.5, 0.9}}, 720, 486, {0, 77, 720, 486}, -1, 0,
   {{{1, 437}, 255}, {{718, 437}, 255}, {{360, 78}, 255}, {{360, 485}, 255}, {{360, 76}, 0}}},
  {"circle of size 0", "Circle", {{"Size", 0}}, 720, 486, {}, 0},
  // Vertices (0, 0), (8, 0), (0, 8): pixels with x + y <= 6 whole, the diagonal x + y = 7 halved.
  {"triangle", "TriangleMask", {{"Point 1", 0, 0}, {"Point 2", 1, 0}, {"Point 3", 0, 1}}, 8, 8, {0, 0, 8, 8}, 28},
  {"triangle of one point", "TriangleMask", {{"Point 1", .5, .5}, {"Point 2", .5, .5}, {"Point 3", .5, .5}}, 8, 8, {}, 0},
  {"triangle on a line", "TriangleMask", {{"Point 1", .1, .1}, {"Point 2", .5, .5}, {"Point 3", .9, .9}}, 8, 8, {}, 0},
};
// clang-format on

using ShapeMaskTest = MaskToolTest;

TEST_F(ShapeMaskTest, ShapesCoverTheirHandWorkedPixels) {
  PGeneral.proxy = 2;
  for (const ShapeCase& c : kShapes) {
    SCOPED_TRACE(c.what);
    SetFrame(c.width, c.height);
    Operator* op = Tool(c.tool);
    for (const Setting& s : c.settings) {
      if (s.y >= 0)
        SetPoint(op, s.label, float(s.x), float(s.y));
      else
        Set(op, s.label, s.x);
    }
    const RenderedMask r = Render(op, 0, c.flags);
    const int scale = c.flags & rflag::Proxy ? 2 : 1;
    EXPECT_EQ(r.mask->Width(), c.width / scale);
    EXPECT_EQ(r.mask->Height(), c.height / scale);
    EXPECT_EQ(r.bounds, c.bounds);
    if (c.full >= 0) {
      EXPECT_EQ(long(r.Count(255)), c.full);
    }
    for (const auto& [at, value] : c.pixels) EXPECT_EQ(r.At(at.x, at.y), value) << at.x << ", " << at.y;
  }
}

// Quick renders are aliased: a turned rectangle has only 0 and 255; a full render has its edge
// band.
TEST_F(ShapeMaskTest, QuickRendersAreAliased) {
  SetFrame(64, 48);
  Operator* rect = Tool("RectangleMask");
  Set(rect, "Angle", 30);
  const RenderedMask quick = Render(rect, 0, rflag::Quick), full = Render(rect);
  EXPECT_EQ(quick.Count(0) + quick.Count(255), 64u * 48u);
  EXPECT_LT(full.Count(0) + full.Count(255), 64u * 48u);
  EXPECT_GT(quick.bounds.Width(), 0);
}

// A mask is kept per time like any result, and drawn again when an input changes.
TEST_F(ShapeMaskTest, MasksAreCachedPerTime) {
  SetFrame(16, 16);
  Operator* rect = Tool("RectangleMask");
  Render(rect, 1);
  Render(rect, 1);
  EXPECT_EQ(doc_.ProcessCount(rect), 1u);
  Render(rect, 2);
  Set(rect, "Width", 0.25);
  EXPECT_EQ(Render(rect, 1).bounds, (CRect{6, 4, 10, 12}));
  EXPECT_EQ(doc_.ProcessCount(rect), 3u);
}

// Class id, base record, 0, "EndC": nothing of their own.
TEST_F(ShapeMaskTest, SaveRecordsHoldNothingOfTheirOwn) {
  for (const char* tool : {"RectangleMask", "Circle", "TriangleMask"}) {
    Operator* op = Tool(tool);
    CArchive whole, base, expected;
    ASSERT_EQ(op->Save(&whole, nullptr), 1u);
    op->Operator::Save(&base, nullptr);
    expected.WriteWord(op->Class()->ClassId());
    expected.WriteBytes(base.Bytes().data(), base.Bytes().size());
    module::WriteRecordEnd(&expected);
    EXPECT_EQ(whole.Bytes(), expected.Bytes()) << tool;
  }
}

}  // namespace
}  // namespace kestrion::test

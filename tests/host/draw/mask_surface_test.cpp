// The surface mask tools draw on: shapes with whole-pixel corners cover whole pixels, edges
// between pixels are a one-pixel band of partial values (none on an aliased surface), a path is
// filled and stroked with a one-pixel pen, a shape on one line draws nothing, far corners are
// clipped off, and the bounds of the mask are where it is not zero.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "host/draw/mask_surface.h"
#include "tests/host/image/image_fixtures.h"

namespace kestrion::test {
namespace {

// The mask and bounds a drawing gives on a w x h surface.
struct Drawn {
  Ref<Image> mask;
  CRect bounds;
};
template <class Draw>
Drawn DrawOn(int w, int h, bool antialias, Draw draw) {
  MaskSurface surface(w, h, antialias);
  draw(surface);
  Drawn out;
  out.mask = Ref<Image>::Adopt(surface.TakeMask(&out.bounds));
  return out;
}

// Whether pixel (x, y) is inside (255), outside (0) or on the edge band (anything between).
enum Coverage { Out, In, Band };
Coverage Of(const Image& mask, int x, int y) {
  const uint8_t v = mask.MaskRow(y)[x];
  return v == 0 ? Out : v == 255 ? In : Band;
}

// The smallest rectangle holding the non-zero pixels, by looking at every pixel.
CRect ScannedBounds(const Image& mask) {
  CRect r{mask.Width(), mask.Height(), 0, 0};
  for (int y = 0; y < mask.Height(); ++y)
    for (int x = 0; x < mask.Width(); ++x)
      if (mask.MaskRow(y)[x])
        r = {std::min(r.left, x), std::min(r.top, y), std::max(r.right, x + 1), std::max(r.bottom, y + 1)};
  return r.left < r.right ? r : CRect{};
}

// In within `full`, on the band within `edge` around it, out beyond.
Coverage Within(int x, int y, CRect full, CRect edge) {
  const auto inside = [&](const CRect& r) { return x >= r.left && x < r.right && y >= r.top && y < r.bottom; };
  return inside(full) ? In : inside(edge) ? Band : Out;
}

constexpr CPoint kBox[] = {{2, 1}, {6, 1}, {6, 4}, {2, 4}};
constexpr CPoint kWedge[] = {{0, 0}, {4, 0}, {0, 4}};
constexpr CPoint kSame[] = {{3, 3}, {3, 3}, {3, 3}};
constexpr CPoint kLine[] = {{1, 1}, {3, 2}, {5, 3}, {7, 4}};
constexpr CPoint kHuge[] = {{-5000000, -5000000}, {5000000, -5000000}, {5000000, 5000000}};

TEST(MaskSurface, ShapesCoverWholePixelsInsideTheirCorners) {
  const struct {
    const char* what;
    void (*draw)(MaskSurface&);
    Coverage (*expected)(int, int);
    CRect bounds;
  } cases[] = {
      {"box", [](MaskSurface& s) { s.Polygon(kBox, 4); },
       [](int x, int y) { return Within(x, y, {2, 1, 6, 4}, {2, 1, 6, 4}); }, {2, 1, 6, 4}},
      // x + y < 4: pixels whose far corner is inside are full, those the edge crosses a band.
      {"wedge", [](MaskSurface& s) { s.Polygon(kWedge, 3); },
       [](int x, int y) { return x + y <= 2 ? In : x + y == 3 ? Band : Out; }, {0, 0, 4, 4}},
      // Centre (4, 3), radii 3 and 2: the pixels of rows 2 and 3 within x 2..5 lie wholly inside,
      // the rest of the box is crossed by the edge (the least covered, at its corners, 16%).
      {"ellipse", [](MaskSurface& s) { s.Ellipse(1, 1, 7, 5); },
       [](int x, int y) { return Within(x, y, {2, 2, 6, 4}, {1, 1, 7, 5}); }, {1, 1, 7, 5}},
      // Filled, then stroked half a pixel to either side of the outline.
      {"path", [](MaskSurface& s) {
         const CPoint chain[] = {{2, 1}, {2, 1}, {6, 1}, {6, 1}, {6, 1}, {6, 4}, {6, 4},
                                 {6, 4}, {2, 4}, {2, 4}, {2, 4}, {2, 1}, {2, 1}};
         s.BeginPath();
         s.PolyBezier(chain, 13);
         s.EndPath();
         s.StrokeAndFillPath();
       },
       [](int x, int y) { return Within(x, y, {2, 1, 6, 4}, {1, 0, 7, 5}); }, {1, 0, 7, 5}},
      // Corners millions of pixels away are clipped off exactly: right of the diagonal y = x
      // full, on it a band.
      {"far corners", [](MaskSurface& s) { s.Polygon(kHuge, 3); },
       [](int x, int y) { return y < x ? In : y == x ? Band : Out; }, {0, 0, 8, 6}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const Drawn d = DrawOn(8, 6, true, c.draw);
    ASSERT_EQ(d.mask->Depth(), 8);
    for (int y = 0; y < 6; ++y)
      for (int x = 0; x < 8; ++x)
        EXPECT_EQ(Of(*d.mask, x, y), c.expected(x, y)) << x << ", " << y << " holds " << int(d.mask->MaskRow(y)[x]);
    EXPECT_EQ(d.bounds, c.bounds);
  }
}

// Aliased edges: every pixel is in or out, those the wedge's diagonal halves one way or the other.
TEST(MaskSurface, AnAliasedSurfaceHasNoPartialValues) {
  const Drawn d = DrawOn(8, 6, false, [&](MaskSurface& s) { s.Polygon(kWedge, 3); });
  for (int y = 0; y < 6; ++y)
    for (int x = 0; x < 8; ++x) {
      const Coverage c = Of(*d.mask, x, y);
      EXPECT_EQ(c, x + y <= 2 ? In : x + y >= 4 ? Out : c == Band ? In : c) << x << ", " << y;
    }
}

TEST(MaskSurface, NothingIsDrawnForShapesWithoutInside) {
  const struct {
    const char* what;
    long (*draw)(MaskSurface&);
    long result;
  } cases[] = {
      {"three equal points", [](MaskSurface& s) { return s.Polygon(kSame, 3); }, 1},
      {"one point", [](MaskSurface& s) { return s.Polygon(kSame, 1); }, 0},
      {"an empty box", [](MaskSurface& s) { return s.Ellipse(2, 2, 2, 5); }, 1},
      {"a far box", [](MaskSurface& s) { return s.Ellipse(0, 0, 1 << 22, 4); }, 0},
      {"a path on one line", [](MaskSurface& s) {
         s.BeginPath();
         s.PolyBezier(kLine, 4);
         s.EndPath();
         return s.StrokeAndFillPath();
       }, 0},
      {"a chain of two points", [](MaskSurface& s) {
         s.BeginPath();
         const long ok = s.PolyBezier(kLine, 2);
         s.EndPath();
         s.StrokeAndFillPath();
         return ok;
       }, 0},
  };
  for (const auto& c : cases) {
    long result = -1;
    const Drawn d = DrawOn(8, 6, true, [&](MaskSurface& s) { result = c.draw(s); });
    EXPECT_EQ(result, c.result) << c.what;
    EXPECT_EQ(MaskValues(*d.mask), Bytes(48, 0)) << c.what;
    EXPECT_EQ(d.bounds, CRect{}) << c.what;
  }
}

TEST(MaskSurface, ImpossibleSizesAreRefused) {
  for (const auto& [w, h] : std::vector<std::pair<int, int>>{{0, 5}, {5, -1}, {40000, 1}, {1, 32768}})
    EXPECT_THROW(MaskSurface(w, h, true), ImageSizeError) << w << " x " << h;
}

// The bounds the surface reports against a scan of every pixel: random polygons, some partly
// outside, on every width from 1 to 67, anti-aliased and aliased.
TEST(MaskSurface, BoundsAreWhereTheMaskIsNotZero) {
  std::mt19937 random(11);
  for (int w = 1; w <= 67; ++w)
    for (bool antialias : {true, false}) {
      const int h = 1 + int(random() % 9);
      std::vector<CPoint> points(3 + random() % 4);
      for (CPoint& p : points) p = {int(random() % unsigned(w + 8)) - 4, int(random() % unsigned(h + 8)) - 4};
      const Drawn d = DrawOn(w, h, antialias, [&](MaskSurface& s) { s.Polygon(points.data(), int(points.size())); });
      EXPECT_EQ(d.bounds, ScannedBounds(*d.mask)) << w << " x " << h << (antialias ? "" : " aliased");
    }
}

}  // namespace
}  // namespace kestrion::test

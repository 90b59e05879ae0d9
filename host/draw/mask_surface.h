// The surface mask tools draw on: an 8-bit coverage surface (a Cairo A8 image) at the frame
// size of the request, drawn with the calls the tools know from device contexts. Drawing
// coordinates are pixel corners: pixel (i, j) covers [i, i + 1) x [j, j + 1), so a shape with
// whole-number corners covers whole pixels. Shapes fill by the even-odd rule; a path is filled,
// then stroked with a one-pixel pen with round joins. Edges are anti-aliased unless the surface
// is aliased (quick renders).
#pragma once

#include <vector>

#include "host/graph/ui.h"
#include "host/image/image.h"

struct _cairo;
struct _cairo_surface;

namespace kestrion {

class MaskSurface final : public DrawSurface {
 public:
  // A cleared width x height surface. Throws ImageSizeError when it is larger than an image may
  // be or than Cairo draws.
  MaskSurface(int width, int height, bool antialias);
  ~MaskSurface() override;
  MaskSurface(const MaskSurface&) = delete;
  MaskSurface& operator=(const MaskSurface&) = delete;

  int Width() const { return width_; }
  int Height() const { return height_; }

  // Fills the polygon through the points, closed back to the first. Returns 1, or 0 for fewer
  // than two points. Parts far outside the surface are clipped off exactly.
  long Polygon(const CPoint* points, int count);
  // Fills the ellipse inscribed in the box from (left, top) to (right, bottom). Returns 1, or 0
  // when the box reaches beyond kFarLimit.
  long Ellipse(int left, int top, int right, int bottom);
  // A path: BeginPath, PolyBezier (a start point, then three points per cubic segment), EndPath;
  // StrokeAndFillPath then closes and draws it.
  void BeginPath();
  // Returns 1, or 0 when the count is not 1 + 3n, no path is open, or a point lies beyond
  // kFarLimit (the path then draws nothing).
  long PolyBezier(const CPoint* points, int count);
  void EndPath();
  // Fills the path and strokes it with the pen. A path whose points all lie on one line has no
  // inside and draws nothing (0); otherwise returns 1.
  long StrokeAndFillPath();

  // The drawing as a depth-8 mask (inside 255, outside 0) over the surface's memory: one
  // reference, the caller's. `bounds` gets the smallest rectangle that holds every non-zero
  // pixel (right and bottom exclusive; all 0 when there is none). Nothing can be drawn after.
  Image* TakeMask(CRect* bounds);

  // Cairo rasterises coordinates up to about 65536 from the surface's corner (measured); shapes
  // reaching further than this, with a margin for the pen, are clipped or not drawn.
  static constexpr int kFarLimit = 65000;

 private:
  // Fills the current path and grows the box of drawn pixels by it; returns 1.
  long FillPath();
  // Grows the box of drawn pixels by a shape's extents (Cairo's fill or stroke extents).
  void Grow(double x1, double y1, double x2, double y2);

  int width_, height_;
  _cairo_surface* surface_ = nullptr;
  _cairo* cr_ = nullptr;
  std::vector<CPoint> path_;  // the points of the open path
  bool path_open_ = false, path_valid_ = false;
  CRect drawn_{};  // every non-zero pixel lies in it
};

}  // namespace kestrion

// The base of mask tools: a mask tool draws one shape on the surface the base gives it, and the
// base turns the drawing into the tool's output, a depth-8 mask at the frame size of the flow
// times the request's scale factors (1/N at --proxy N), anti-aliased on full renders and
// aliased on quick ones. GetBounds tells where the last mask is not zero. Results are cached per
// time like any tool's.
#pragma once

#include <algorithm>
#include <mutex>

#include "host/draw/mask_surface.h"
#include "host/graph/operator.h"

namespace kestrion {

// The frame a mask is drawn for: the flow's frame size in pixels (the "video" preference) and
// the request's scale factors, 1.0 at full resolution and 1 / N in proxy renders at factor N.
struct MaskFrame {
  int width = 0, height = 0;
  float sx = 1.0f, sy = 1.0f;
  int proxy = 1;
  bool operator==(const MaskFrame&) const = default;

  static MaskFrame Of(const Request& req);
  // The surface: trunc(width / N) x trunc(height / N), at least 1 x 1.
  int SurfaceWidth() const { return std::max(1, width / proxy); }
  int SurfaceHeight() const { return std::max(1, height / proxy); }
};

class MaskOperator : public ThreadedOperator {
 public:
  // Declares the "Mask" output; the tool declares its inputs after.
  MaskOperator(Registry* reg, CArchive* ar, TagList* tags);

  // Makes the surface, lets the tool draw, and hands the mask on. A tool that draws nothing
  // gives an empty mask.
  uint32_t Process(Request* req) final;
  // Where the last mask rendered is not zero (right and bottom exclusive; all 0 when empty).
  virtual CRect GetBounds();

  // The tool's drawing for a request: reads its inputs, draws its shape and returns the drawing
  // call's result (non-zero when drawn), or zero or less when it draws nothing.
  virtual long Draw(Request* req, MaskSurface& surface, const MaskFrame& frame) = 0;

 protected:
  Output* mask_out_;

 private:
  std::mutex bounds_lock_;
  CRect bounds_{};
};

}  // namespace kestrion

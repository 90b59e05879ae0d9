// Corner Positioner: places the whole frame into the quadrilateral of four corner points, with a
// perspective look. An output point is traced back through the two vanishing points of the
// quadrilateral's edges to the top and left edges; how far along each it lands is the source
// position. The mapping is worked in double precision per pixel and sampled with transparent
// black outside the frame.
#include <cmath>
#include <cstdint>

#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "module/warp_rows.h"
#include "tools/warp/corner_points.h"
#include "tools/warp/warp_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("CPin");

// Moves corners apart that coincide exactly along an axis.
constexpr double kNudge = 0.000001;
// Stands in for a denominator of exactly 0 (parallel edges): the vanishing point goes far away.
constexpr double kParallel = 0.0000001;

// Everything the rows need, worked out once per render in Process (double precision).
struct CornerRender {
  const Image* src = nullptr;
  Image* out = nullptr;
  int width = 0, height = 0;
  double x0 = 0, y0 = 0;               // the top-left corner P0
  double top_x = 0, top_y = 0;         // dT = P1 - P0
  double left_x = 0, left_y = 0;       // dL = P2 - P0
  double top_length = 0, left_length = 0;
  double v1x = 0, v1y = 0;             // where the left and right edges' lines meet
  double v2x = 0, v2y = 0;             // where the top and bottom edges' lines meet
};

// The corners, coinciding ones nudged apart in this order, the edges and the vanishing points.
CornerRender Setup(CornerPoints c) {
  CornerRender r;
  double &x0 = c.x[0], &x1 = c.x[1], &x2 = c.x[2], &x3 = c.x[3];
  double &y0 = c.y[0], &y1 = c.y[1], &y2 = c.y[2], &y3 = c.y[3];
  if (x0 == x2) x2 -= kNudge;
  if (x1 == x3) x1 += kNudge;
  if (x1 == x0) x0 -= kNudge;
  if (x3 == x2) x3 += kNudge;
  if (y0 == y2) y0 -= kNudge;
  if (y1 == y3) y3 -= kNudge;
  if (y1 == y0) y1 += kNudge;
  if (y3 == y2) y2 += kNudge;
  r.x0 = x0;
  r.y0 = y0;
  r.top_x = x1 - x0;
  r.top_y = y1 - y0;
  r.left_x = x2 - x0;
  r.left_y = y2 - y0;
  r.top_length = std::sqrt(r.top_x * r.top_x + r.top_y * r.top_y);
  r.left_length = std::sqrt(r.left_x * r.left_x + r.left_y * r.left_y);
  double den1 = r.left_x * (y3 - y1) - (x3 - x1) * r.left_y;
  if (den1 == 0) den1 = kParallel;
  const double t1 = ((y0 - y1) * (x3 - x1) - (x0 - x1) * (y3 - y1)) / den1;
  r.v1x = x0 + t1 * r.left_x;
  r.v1y = y0 + t1 * r.left_y;
  double den2 = r.top_x * (y3 - y2) - r.top_y * (x3 - x2);
  if (den2 == 0) den2 = kParallel;
  const double t2 = ((y0 - y2) * (x3 - x2) - (x0 - x2) * (y3 - y2)) / den2;
  r.v2x = x0 + t2 * r.top_x;
  r.v2y = y0 + t2 * r.top_y;
  return r;
}

// A parameter along an edge, formed again as its length along the edge over the edge's length
// with the parameter's sign; it equals the parameter up to rounding, and the rounding is kept.
inline double AlongEdge(double p, double edge_x, double edge_y, double edge_length) {
  const double px = p * edge_x, py = p * edge_y;
  const double along = std::sqrt(px * px + py * py) / edge_length;
  return p < 0 ? -along : along;
}

// Source positions (1/256 pixel) of pixels first .. first + count - 1 of the row at yn = y / H.
void CornerPositions(const CornerRender& r, double yn, int first, int count, int32_t* __restrict sx,
                     int32_t* __restrict sy) {
  const float width = float(r.width);
  for (int k = 0; k < count; ++k) {
    const double xn = float(first + k) / width;
    // Where the line from V1 through Q meets the top edge, and the line from V2 through Q the
    // left edge, as parameters along those edges.
    const double s = ((r.y0 - yn) * (r.v1x - xn) - (r.x0 - xn) * (r.v1y - yn)) /
                     ((r.v1y - yn) * r.top_x - r.top_y * (r.v1x - xn));
    const double t = ((r.y0 - yn) * (r.v2x - xn) - (r.x0 - xn) * (r.v2y - yn)) /
                     ((r.v2y - yn) * r.left_x - r.left_y * (r.v2x - xn));
    const double u = AlongEdge(s, r.top_x, r.top_y, r.top_length);
    const double v = AlongEdge(t, r.left_x, r.left_y, r.left_length);
    sx[k] = module::TruncToInt(u * r.width * 256);
    sy[k] = module::TruncToInt(v * r.height * 256);
  }
}

class CornerPin final : public CornerTool<kClassId> {
 public:
  using CornerTool::CornerTool;

  uint32_t Process(Request* req) override {
    const CornerPoints corners = ReadCorners(req, in_);
    auto* src = dynamic_cast<Image*>(req->GetInputData(in_[CornerImage]));
    if (!src) return req->SetOutputData(image_out_, nullptr);
    CornerRender& r = render_;
    r = Setup(corners);
    r.src = src;
    r.width = src->Width();
    r.height = src->Height();
    r.out = NewImage(req, src);
    DoMultiProcess(req, src->Height());
    return req->SetOutputData(image_out_, r.out);
  }

  void ProcessChunk(Request*, long row) override { Row(int(row), 1); }
  void QuickProcessChunk(Request*, long row) override { Row(int(row), 0); }

 private:
  void Row(int y, long quality) {
    if (abort_flag.load(std::memory_order_relaxed) != 0) return;
    const CornerRender& r = render_;
    const double yn = double(y) / r.height;
    module::SampleMappedRow<module::Edge::Black>(*r.src, *r.out, y, quality,
                                                 [&](int first, int count, int32_t* sx, int32_t* sy) {
                                                   CornerPositions(r, yn, first, count, sx, sy);
                                                 });
  }

  CornerRender render_;
};

}  // namespace

Object* NewCornerPin(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<CornerPin>(reg, ar, tags); }

}  // namespace kestrion::tools

#include "host/draw/mask_surface.h"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>

namespace kestrion {

namespace {

// A mask image over a Cairo surface's memory; the surface lives as long as the image.
class SurfaceImage final : public Image {
 public:
  explicit SurfaceImage(cairo_surface_t* surface)
      : Image(cairo_image_surface_get_width(surface), cairo_image_surface_get_height(surface), 8,
              cairo_image_surface_get_data(surface), cairo_image_surface_get_stride(surface), false),
        surface_(surface) {}
  ~SurfaceImage() override { cairo_surface_destroy(surface_); }

 private:
  cairo_surface_t* surface_;
};

struct DoublePoint {
  double x, y;
};

// The polygon cut to the half-plane where `inside` holds (one Sutherland-Hodgman pass); the
// cut points lie on the original edges, so what remains inside is the same shape.
template <class Inside, class Cut>
std::vector<DoublePoint> ClipPolygon(const std::vector<DoublePoint>& in, Inside inside, Cut cut) {
  std::vector<DoublePoint> out;
  for (size_t i = 0; i < in.size(); ++i) {
    const DoublePoint& a = in[i];
    const DoublePoint& b = in[(i + 1) % in.size()];
    if (inside(a)) out.push_back(a);
    if (inside(a) != inside(b)) out.push_back(cut(a, b));
  }
  return out;
}

// The polygon cut to the square of kFarLimit around the origin.
std::vector<DoublePoint> ClipToFarLimit(std::vector<DoublePoint> poly) {
  const double limit = MaskSurface::kFarLimit;
  for (int axis = 0; axis < 2; ++axis)
    for (double side : {-limit, limit}) {
      const auto coord = [axis](const DoublePoint& p) { return axis == 0 ? p.x : p.y; };
      const auto inside = [&](const DoublePoint& p) { return side < 0 ? coord(p) >= side : coord(p) <= side; };
      const auto cut = [&](const DoublePoint& a, const DoublePoint& b) {
        const double t = (side - coord(a)) / (coord(b) - coord(a));
        const DoublePoint p{a.x + (b.x - a.x) * t, a.y + (b.y - a.y) * t};
        return axis == 0 ? DoublePoint{side, p.y} : DoublePoint{p.x, side};
      };
      poly = ClipPolygon(poly, inside, cut);
    }
  return poly;
}

bool Far(const CPoint& p) {
  return std::abs(int64_t(p.x)) > MaskSurface::kFarLimit || std::abs(int64_t(p.y)) > MaskSurface::kFarLimit;
}

// Whether all the points lie on one line (or on one point).
bool OnOneLine(const std::vector<CPoint>& points) {
  for (size_t i = 1; i < points.size(); ++i) {
    const int64_t ux = int64_t(points[i].x) - points[0].x, uy = int64_t(points[i].y) - points[0].y;
    if (ux == 0 && uy == 0) continue;
    for (size_t j = i + 1; j < points.size(); ++j)
      if (ux * (int64_t(points[j].y) - points[0].y) != uy * (int64_t(points[j].x) - points[0].x)) return false;
    return true;
  }
  return true;
}

// The offset of the first non-zero byte of p[0..n), or n when there is none.
int FirstNonZero(const uint8_t* p, int n) {
  int i = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t word;
    std::memcpy(&word, p + i, 8);
    if (word) break;
  }
  for (; i < n; ++i)
    if (p[i]) return i;
  return n;
}

// Whether column x has a non-zero pixel in rows top .. bottom - 1.
bool ColumnHasNonZero(const Image& mask, int x, int top, int bottom) {
  for (int y = top; y < bottom; ++y)
    if (mask.MaskRow(y)[x]) return true;
  return false;
}

// The smallest rectangle inside `box` that holds every non-zero pixel of the mask (nothing
// outside `box` is non-zero). The box is the drawn shapes' extents, so its edge rows and columns
// almost always hold a non-zero pixel: the search looks at them first and moves inwards.
CRect NonZeroBounds(const Image& mask, CRect box) {
  const int span = box.right - box.left;
  int top = box.top;
  while (top < box.bottom && FirstNonZero(mask.MaskRow(top) + box.left, span) == span) ++top;
  if (top == box.bottom) return CRect{};
  int bottom = box.bottom;
  while (FirstNonZero(mask.MaskRow(bottom - 1) + box.left, span) == span) --bottom;
  int left = box.left, right = box.right;
  while (!ColumnHasNonZero(mask, left, top, bottom)) ++left;
  while (!ColumnHasNonZero(mask, right - 1, top, bottom)) --right;
  return CRect{left, top, right, bottom};
}

}  // namespace

MaskSurface::MaskSurface(int width, int height, bool antialias) : width_(width), height_(height) {
  if (width <= 0 || height <= 0 || width > 32767 || height > 32767 ||
      uint64_t(width) * uint64_t(height) > Image::SizeLimit())
    throw ImageSizeError("a mask of " + std::to_string(width) + " x " + std::to_string(height) +
                         " pixels cannot be drawn (1 to 32767 pixels each way, within the image size limit)");
  surface_ = cairo_image_surface_create(CAIRO_FORMAT_A8, width, height);
  cr_ = cairo_create(surface_);
  if (cairo_status(cr_) != CAIRO_STATUS_SUCCESS) {
    const std::string why = cairo_status_to_string(cairo_status(cr_));
    cairo_destroy(cr_);
    cairo_surface_destroy(surface_);
    throw ImageSizeError("a mask of " + std::to_string(width) + " x " + std::to_string(height) +
                         " pixels cannot be drawn: " + why);
  }
  cairo_set_antialias(cr_, antialias ? CAIRO_ANTIALIAS_GRAY : CAIRO_ANTIALIAS_NONE);
  cairo_set_fill_rule(cr_, CAIRO_FILL_RULE_EVEN_ODD);
  cairo_set_line_width(cr_, 1.0);
  cairo_set_line_join(cr_, CAIRO_LINE_JOIN_ROUND);
}

MaskSurface::~MaskSurface() {
  if (cr_) cairo_destroy(cr_);
  if (surface_) cairo_surface_destroy(surface_);
}

void MaskSurface::Grow(double x1, double y1, double x2, double y2) {
  const int left = std::max(0, int(std::floor(std::max(x1, -1.0)))), top = std::max(0, int(std::floor(std::max(y1, -1.0))));
  const int right = std::min(width_, int(std::ceil(std::min(x2, double(width_) + 1.0))));
  const int bottom = std::min(height_, int(std::ceil(std::min(y2, double(height_) + 1.0))));
  if (left >= right || top >= bottom) return;
  if (drawn_.left == drawn_.right) {
    drawn_ = CRect{left, top, right, bottom};
    return;
  }
  drawn_ = CRect{std::min(drawn_.left, left), std::min(drawn_.top, top), std::max(drawn_.right, right),
                 std::max(drawn_.bottom, bottom)};
}

long MaskSurface::Polygon(const CPoint* points, int count) {
  if (!cr_ || count < 2) return 0;
  std::vector<DoublePoint> poly;
  bool far = false;
  for (int i = 0; i < count; ++i) {
    poly.push_back({double(points[i].x), double(points[i].y)});
    far = far || Far(points[i]);
  }
  if (far) poly = ClipToFarLimit(std::move(poly));
  cairo_new_path(cr_);
  for (const DoublePoint& p : poly) cairo_line_to(cr_, p.x, p.y);
  cairo_close_path(cr_);
  return FillPath();
}

long MaskSurface::FillPath() {
  double x1, y1, x2, y2;
  cairo_fill_extents(cr_, &x1, &y1, &x2, &y2);
  Grow(x1, y1, x2, y2);
  cairo_fill(cr_);
  return 1;
}

long MaskSurface::Ellipse(int left, int top, int right, int bottom) {
  if (!cr_ || Far({left, top}) || Far({right, bottom})) return 0;
  if (left == right || top == bottom) return 1;  // an empty box: nothing to fill
  const double rx = std::abs(double(right) - left) / 2, ry = std::abs(double(bottom) - top) / 2;
  cairo_new_path(cr_);
  cairo_save(cr_);
  cairo_translate(cr_, (double(left) + right) / 2, (double(top) + bottom) / 2);
  cairo_scale(cr_, rx, ry);
  cairo_arc(cr_, 0.0, 0.0, 1.0, 0.0, 2 * M_PI);
  cairo_restore(cr_);
  return FillPath();
}

void MaskSurface::BeginPath() {
  path_.clear();
  path_open_ = true;
  path_valid_ = true;
}

long MaskSurface::PolyBezier(const CPoint* points, int count) {
  if (!path_open_ || count < 1 || count % 3 != 1) return 0;
  for (int i = 0; i < count; ++i)
    if (Far(points[i])) path_valid_ = false;
  path_.insert(path_.end(), points, points + count);
  return path_valid_ ? 1 : 0;
}

void MaskSurface::EndPath() { path_open_ = false; }

long MaskSurface::StrokeAndFillPath() {
  if (!cr_ || path_open_ || !path_valid_ || path_.empty() || OnOneLine(path_)) return 0;
  cairo_new_path(cr_);
  cairo_move_to(cr_, path_[0].x, path_[0].y);
  for (size_t i = 1; i + 2 < path_.size(); i += 3)
    cairo_curve_to(cr_, path_[i].x, path_[i].y, path_[i + 1].x, path_[i + 1].y, path_[i + 2].x, path_[i + 2].y);
  cairo_close_path(cr_);
  double x1, y1, x2, y2;
  cairo_stroke_extents(cr_, &x1, &y1, &x2, &y2);
  Grow(x1, y1, x2, y2);
  cairo_fill_preserve(cr_);
  cairo_stroke(cr_);
  path_.clear();
  return 1;
}

Image* MaskSurface::TakeMask(CRect* bounds) {
  *bounds = CRect{};
  if (!surface_) return nullptr;
  if (cr_) {
    cairo_destroy(cr_);
    cr_ = nullptr;
  }
  cairo_surface_flush(surface_);
  auto* mask = new SurfaceImage(surface_);
  surface_ = nullptr;
  if (drawn_.left < drawn_.right) *bounds = NonZeroBounds(*mask, drawn_);
  return mask;
}

}  // namespace kestrion

// Perspective Positioner: takes the quadrilateral of the input that four corner points mark and
// flattens it into the whole output frame. Output pixel (x, y) reads the source at the bilinear
// blend of the corners at (x / W, y / H), so each output row is a straight line through the
// source. The sampling is the tool's own: 8-bit weights, and the source's first row and column
// count as outside (black), kept so on purpose. Quick renders take the nearest of the four
// pixels instead.
#include <cstdint>

#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/warp/corner_points.h"
#include "tools/warp/warp_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("PPin");

// Everything the rows need, worked out once per render in Process (double precision).
struct PerspectiveRender {
  const Image* src = nullptr;
  Image* out = nullptr;
  int width = 0, height = 0;
  long bands = 1;
  CornerPoints corners{};
  double twist_x = 0, twist_y = 0;  // P3 - P2 - P1 + P0
};

// A source position in 1/256 pixel truncated toward zero; positions past 2^52 (and NaN), far
// outside any image, become one that is outside too.
inline int64_t PositionOf(double v) {
  constexpr double kFar = 4503599627370496.0;  // 2^52
  return v > -kFar && v < kFar ? int64_t(v) : -(int64_t(1) << 52);
}

// The pixels of a source row and the one below it from column ix on.
struct Neighbours {
  const uint32_t* top;
  const uint32_t* bottom;
};

// The bytes of two pixel words as eight 16-bit lanes (first word in lanes 0 to 3).
typedef uint8_t ByteLanes __attribute__((vector_size(16)));
typedef uint16_t HalfLanes __attribute__((vector_size(16)));
typedef uint32_t WordLanes __attribute__((vector_size(16)));
inline HalfLanes Widen(uint32_t first, uint32_t second) {
  const ByteLanes bytes = (ByteLanes)(WordLanes){first, second, 0, 0};
  return (HalfLanes)__builtin_shufflevector(bytes, ByteLanes{}, 0, 16, 1, 16, 2, 16, 3, 16, 4, 16, 5, 16, 6, 16, 7, 16);
}

// The four pixels around (sx, sy) mixed with 8-bit weights: w00 = ((255 - fy)(255 - fx)) >> 8,
// w10 = (fx (255 - fy)) >> 8, w01 = (fy (255 - fx)) >> 8, w11 = 256 - the others; each channel
// (sum of w c + 127) >> 8. The weights sum to 256, so every partial sum fits 16-bit lanes: the
// top pair and the bottom pair are weighed side by side and the halves then added.
inline uint32_t Weighted(Neighbours n, uint32_t fx, uint32_t fy) {
  const uint16_t w00 = uint16_t(((255 - fy) * (255 - fx)) >> 8), w10 = uint16_t((fx * (255 - fy)) >> 8);
  const uint16_t w01 = uint16_t((fy * (255 - fx)) >> 8), w11 = uint16_t(256 - w00 - w10 - w01);
  const HalfLanes sums = Widen(n.top[0], n.top[1]) * HalfLanes{w00, w00, w00, w00, w10, w10, w10, w10} +
                         Widen(n.bottom[0], n.bottom[1]) * HalfLanes{w01, w01, w01, w01, w11, w11, w11, w11};
  const HalfLanes mixed = (sums + __builtin_shufflevector(sums, sums, 4, 5, 6, 7, 0, 1, 2, 3) + 127) >> 8;
  const ByteLanes bytes = __builtin_shufflevector((ByteLanes)mixed, (ByteLanes)mixed, 0, 2, 4, 6, 0, 0, 0, 0, 0, 0, 0, 0,
                                                  0, 0, 0, 0);
  return ((WordLanes)bytes)[0];
}

// Quick: the nearest of the four pixels.
inline uint32_t Nearest(Neighbours n, uint32_t fx, uint32_t fy) { return (fy < 128 ? n.top : n.bottom)[fx < 128 ? 0 : 1]; }

// Output row y. Source positions move linearly along a row: pixel x reads start + x step, in
// double precision, truncated to 1/256 pixel. The row's start and step are formed without
// dividing by the height first, so corners at the frame's corners read whole pixels exactly.
template <bool kQuick>
void PerspectiveRow(const PerspectiveRender& r, int y) {
  const CornerPoints& c = r.corners;
  const double w = r.width, h = r.height;
  const double start_x = 256.0 * (w * c.x[0] + y * (w / h) * (c.x[2] - c.x[0]));
  const double step_x = 256.0 * ((c.x[1] - c.x[0]) + y * r.twist_x / h);
  const double start_y = 256.0 * (h * c.y[0] + y * (c.y[2] - c.y[0]));
  const double step_y = 256.0 * ((h / w) * (c.y[1] - c.y[0]) + y * r.twist_y / w);
  const int width = r.width, height = r.height;
  const Image& src = *r.src;
  uint32_t* __restrict out = r.out->Row(y);
  for (int x = 0; x < width; ++x) {
    const int64_t sx = PositionOf(start_x + x * step_x), sy = PositionOf(start_y + x * step_y);
    const int64_t ix = sx >> 8, iy = sy >> 8;
    if (sx < 256 || sy < 256 || ix >= width - 1 || iy >= height - 1) {
      out[x] = 0;
      continue;
    }
    const Neighbours n{src.Row(int(iy)) + ix, src.Row(int(iy + 1)) + ix};
    out[x] = kQuick ? Nearest(n, uint32_t(sx) & 255, uint32_t(sy) & 255) : Weighted(n, uint32_t(sx) & 255, uint32_t(sy) & 255);
  }
}

class PerspectivePin final : public CornerTool<kClassId> {
 public:
  using CornerTool::CornerTool;

  uint32_t Process(Request* req) override {
    const CornerPoints corners = ReadCorners(req, in_);
    auto* src = dynamic_cast<Image*>(req->GetInputData(in_[CornerImage]));
    if (!src) return req->SetOutputData(image_out_, nullptr);
    // The sampling reads whole pixel words: a mask goes through as a grey image.
    const Image* source = module::ColourImage(req, src);
    PerspectiveRender& r = render_;
    r.src = source;
    r.out = NewImage(req, source);
    r.width = src->Width();
    r.height = src->Height();
    r.bands = module::RowBands(r.height);
    r.corners = corners;
    r.twist_x = corners.x[3] - corners.x[2] - corners.x[1] + corners.x[0];
    r.twist_y = corners.y[3] - corners.y[2] - corners.y[1] + corners.y[0];
    DoMultiProcess(req, r.bands);
    return req->SetOutputData(image_out_, r.out);
  }

  void ProcessChunk(Request*, long band) override { Band<false>(band); }
  void QuickProcessChunk(Request*, long band) override { Band<true>(band); }

 private:
  template <bool kQuick>
  void Band(long band) {
    const PerspectiveRender& r = render_;
    module::ForEachRow(*this, module::BandRows(r.height, r.bands, band), [&](int y) { PerspectiveRow<kQuick>(r, y); });
  }

  PerspectiveRender render_;
};

}  // namespace

Object* NewPerspectivePin(Registry* reg, CArchive* ar, TagList* tags) {
  return module::Factory<PerspectivePin>(reg, ar, tags);
}

}  // namespace kestrion::tools

// Blur / Sharpen: softens, blurs or sharpens an image with one of four kernels of its own, on
// the channels switched on, mixed back over the source by the blend. Box Blur is a box with
// fractional edges, Soften the sum of four such boxes of other shapes (a rounded cross),
// Bartlett a triangle, Sharpen four times the source less three times the triangle. Every sum
// slides down the rows and along each row, so the cost per pixel does not grow with the size;
// the bands of rows run on the worker threads, each starting its sums afresh.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "host/graph/threads.h"
#include "host/image/window_sums.h"
#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/filter/filter_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("Blur");

enum BlurInput { FilterItem, Red, Green, Blue, Alpha, Size, Blend, Source, kInputCount };
enum Kernel { Soften = 0, BoxBlur = 1, Bartlett = 2, BoxBlurAgain = 3, Sharpen = 4 };

// The inputs in panel order.
const module::InputDecl (&InputTable())[kInputCount] {
  // "Box Blur" stands twice in the list, at 1 and 3; both choose the same box.
  // clang-format off
  static const module::InputDecl table[kInputCount] = {
    {"Filter",    vtype::Number, FourCC("FlMd"),  {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Soften"), Tag(in::ListEntry, "Box Blur"),
                                                   Tag(in::ListEntry, "Bartlett"), Tag(in::ListEntry, "Box Blur"), Tag(in::ListEntry, "Sharpen"),
                                                   Tag(in::Default, 0.0)}},
    filter::ChannelSwitch("Red", filter::kRedId),
    filter::ChannelSwitch("Green", filter::kGreenId),
    filter::ChannelSwitch("Blue", filter::kBlueId),
    filter::ChannelSwitch("Alpha", filter::kAlphaId),
    {"Blur Size", vtype::Number, FourCC("Blur"),  {Tag(in::Control, control::Slider), Tag(in::Steps, 51), Tag(in::Lowest, 0.0),
                                                   Tag(in::Highest, 50.0), Tag(in::SliderHigh, 50.0), Tag(in::Default, 1.0)}},
    {"Blend",     vtype::Number, filter::kBlendId, {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::Highest, 1.0),
                                                   Tag(in::Default, 1.0)}},
    {"Image",     vtype::Image,  ImageInputId(1), {}},
  };
  // clang-format on
  return table;
}

// Radii are held to these many pixels: a box 131071 pixels wide, and a triangle whose 64-bit
// sums (bytes x 256 x (r + 1)^4) still fit.
constexpr double kMaxBoxRadius = 65535.0;
constexpr long kMaxTriangleRadius = 2000;

// A box with fractional edges: weight 1 within the whole radii, fx/1024 on the two columns and
// fy/1024 on the two rows just outside them, fx fy / 1024^2 at the corners.
struct FractionalBox {
  long ix = 0, iy = 0;
  int32_t fx = 0, fy = 0;
};

// A radius in pixels, held to 0 .. kMaxBoxRadius (NaN gives 0).
double HeldRadius(double r) { return r > 0.0 ? std::min(r, kMaxBoxRadius) : 0.0; }

FractionalBox BoxOf(double rx, double ry) {
  FractionalBox b;
  b.ix = long(rx);
  b.iy = long(ry);
  b.fx = int32_t((rx - double(b.ix)) * 1024.0);
  b.fy = int32_t((ry - double(b.iy)) * 1024.0);
  return b;
}

struct BlurRender;
struct BandScratch;
using BandKernel = void (*)(const BlurRender& t, BandScratch& s, module::RowSpan rows, const Operator& op);

// Everything the bands need, worked out once per render in Process.
struct BlurRender {
  const Image* src = nullptr;
  Image* out = nullptr;
  int width = 0, height = 0;
  long bands = 1;
  bool from_bottom = false;  // Bartlett and Sharpen number their bands from the bottom
  BandKernel kernel = nullptr;
  uint32_t kept = 0;    // the source bytes kept: channels switched off
  int32_t blend = 256;  // B = trunc(Blend x 256)
  // Box Blur and Soften: the boxes, the area the sum of them is divided by, and whether it is a
  // whole number P over a power of two with P up to 2^32 (see DivideByArea).
  int boxes = 1;
  FractionalBox box[4];
  double area = 1.0;
  bool simple_area = false;
  // Half a step of the divisions' denominators (see DivideByArea and TriangleValue).
  double half_step = 0.0;
  // Bartlett and Sharpen: the radius, the volume (r + 1)^4, and for volumes up to 2^32 the
  // reciprocal form of the divisions (see TriangleValue).
  long radius = 0;
  uint64_t volume = 1;
  double per_volume = 0.0;
};

// A band's running sums and row buffers, one set per band, kept between renders.
template <class Sum>
struct BandSums {
  SlidingSums<WindowShape::Box, Sum> full[4], weighted[4];
  SlidingSums<WindowShape::Triangle, Sum> triangle;
  std::vector<Sum> line, edge, total;
};
struct BandScratch {
  BandSums<uint32_t> narrow;
  BandSums<uint64_t> wide;
  template <class Sum>
  BandSums<Sum>& For() {
    if constexpr (sizeof(Sum) == 4)
      return narrow;
    else
      return wide;
  }
};

const uint8_t* Bytes(const Image& img, long y) {
  return reinterpret_cast<const uint8_t*>(img.Row(int(std::clamp(y, 0L, long(img.Height()) - 1))));
}

// The last step of every kernel: the 16-bit values v of a row (held to 0 .. 65535 already)
// mixed over the source by B, their high bytes stored, and the channels switched off keeping
// the source bytes. Blend 1 (B = 256) leaves v itself.
[[gnu::noinline]] void StoreRow(const int32_t* v, const uint32_t* src, uint32_t* __restrict out, int width,
                                const BlurRender& t) {
  const auto* s = reinterpret_cast<const uint8_t*>(src);
  auto* o = reinterpret_cast<uint8_t*>(out);
  const int32_t b = t.blend;
  if (b == 256)
    for (int i = 0; i < 4 * width; ++i) o[i] = uint8_t(v[i] >> 8);
  else
    for (int i = 0; i < 4 * width; ++i) o[i] = uint8_t(filter::Mix16(v[i], s[i] << 8, b) >> 8);
  const uint32_t kept = t.kept;
  if (kept)
    for (int x = 0; x < width; ++x) out[x] = (out[x] & ~kept) | (src[x] & kept);
}

// --- Box Blur and Soften ---

// What a byte adds on an edge: trunc(byte x 256 x f / 1024).
struct EdgeShare {
  int32_t f;
  uint32_t operator()(uint8_t v) const { return uint32_t(v * f) >> 2; }
};

// total[x] += edge[clamp(x + shift)] for every pixel x of a row, four sums each: the edge
// columns of a box, `shift` columns off.
template <class Sum>
[[gnu::noinline]] void AddShifted(Sum* __restrict total, const Sum* edge, int width, long shift) {
  const long lo = std::clamp(-shift, 0L, long(width)), hi = std::clamp(long(width) - shift, lo, long(width));
  for (long x = 0; x < lo; ++x)
    for (int c = 0; c < 4; ++c) total[4 * x + c] += edge[c];
  for (long i = 4 * lo; i < 4 * hi; ++i) total[i] += edge[i + 4 * shift];
  const Sum* last = edge + 4 * (long(width) - 1);
  for (long x = hi; x < width; ++x)
    for (int c = 0; c < 4; ++c) total[4 * x + c] += last[c];
}

// v = trunc(sum x scale / area) in double precision, held to 65535, from products with
// scale / area (scale 256 where the sums are of bytes alone, else 1; no sum x scale exceeds
// 65280 x area, so a quotient is below 2^17 and its product lies within 2^-35 of it). Where
// the area is P / 2^k with a whole P up to 2^32 (every area of whole or simple radii), a
// quotient is a fraction of denominator P, at least 1 / P from a whole number when not
// whole, and half a step of 1 / P put beside the product truncates exactly. Otherwise,
// where the product less and plus 2^-24 truncate alike, the quotient truncates so too; the
// rare others are divided again. Sums convert exactly: below 2^31 through 32 bits, which
// vectorises, the wider ones through 64.
template <class Sum, bool kSimpleArea>
[[gnu::noinline]] void DivideByArea(const Sum* total, double scale, int32_t* __restrict values, size_t lanes,
                                    const BlurRender& t) {
  using Signed = std::make_signed_t<Sum>;
  const double per_area = scale / t.area, half_step = t.half_step;
  if constexpr (kSimpleArea) {
    for (size_t i = 0; i < lanes; ++i)
      values[i] = std::min(int32_t(double(Signed(total[i])) * per_area + half_step), 65535);
  } else {
    for (size_t i = 0; i < lanes; ++i) {
      const double z = double(Signed(total[i])) * per_area;
      const int32_t below = int32_t(z - 0x1p-24), above = int32_t(z + 0x1p-24);
      values[i] = std::min(below, 65535) | (below ^ above ? INT32_MIN : 0);
    }
    constexpr size_t kGroup = 16;
    for (size_t g = 0; g < lanes; g += kGroup) {
      const size_t end = std::min(g + kGroup, lanes);
      int32_t marks = 0;
      for (size_t i = g; i < end; ++i) marks |= values[i];
      if (marks < 0)
        for (size_t i = g; i < end; ++i)
          if (values[i] < 0) values[i] = int32_t(std::min(scale * double(Signed(total[i])) / t.area, 65535.0));
    }
  }
}

// A simple area's quotients, unblended and every channel on, stored as bytes straight away.
template <class Sum>
[[gnu::noinline]] void StoreQuotients(const Sum* total, double scale, uint8_t* __restrict out, size_t lanes,
                                      const BlurRender& t) {
  using Signed = std::make_signed_t<Sum>;
  const double per_area = scale / t.area, half_step = t.half_step;
  for (size_t i = 0; i < lanes; ++i)
    out[i] = uint8_t(std::min(int32_t(double(Signed(total[i])) * per_area + half_step), 65535) >> 8);
}

// Box k's sums for output row y added to total: its whole rows and the fractions of the rows
// just outside them down the columns, then along the row its whole columns and the fractions
// of the columns just outside them.
template <class Sum>
void AddBox(const BlurRender& t, BandSums<Sum>& s, int k, module::RowSpan rows, int y, Sum* __restrict line,
            Sum* __restrict edge, Sum* __restrict total) {
  const FractionalBox& b = t.box[k];
  const int w = t.width;
  const size_t lanes = 4 * size_t(w);
  const auto row = [&t](int r) { return Bytes(*t.src, r); };
  if (y > rows.begin) s.full[k].Advance(row);
  const uint8_t* top = Bytes(*t.src, y - b.iy - 1);
  const uint8_t* bottom = Bytes(*t.src, y + b.iy + 1);
  const Sum* full = s.full[k].Sums();
  const int32_t fy = b.fy;
  if (fy)
    for (size_t i = 0; i < lanes; ++i)
      line[i] = (full[i] << 8) + Sum(uint32_t(top[i] * fy) >> 2) + Sum(uint32_t(bottom[i] * fy) >> 2);
  else
    for (size_t i = 0; i < lanes; ++i) line[i] = full[i] << 8;
  if (b.fx) {
    if (y > rows.begin) s.weighted[k].Advance(row, EdgeShare{b.fx});
    const Sum* weighted = s.weighted[k].Sums();
    const int32_t fxy = b.fx * fy;
    for (size_t i = 0; i < lanes; ++i)
      edge[i] = weighted[i] + Sum(uint32_t(top[i] * fxy) >> 12) + Sum(uint32_t(bottom[i] * fxy) >> 12);
    AddShifted(total, edge, w, -b.ix - 1);
    AddShifted(total, edge, w, b.ix + 1);
  }
  SlideAlong<WindowShape::Box, 4, true>(line, w, b.ix, total);
}

template <class Sum>
void BoxBand(const BlurRender& t, BandScratch& scratch, module::RowSpan rows, const Operator& op) {
  BandSums<Sum>& s = scratch.For<Sum>();
  const int w = t.width, h = t.height;
  const size_t lanes = 4 * size_t(w);
  const auto row = [&t](int y) { return Bytes(*t.src, y); };
  for (auto* v : {&s.line, &s.edge, &s.total}) v->resize(lanes);
  std::vector<int32_t> values(lanes);
  for (int k = 0; k < t.boxes; ++k) {
    s.full[k].Start(h, t.box[k].iy, lanes, rows.begin, row);
    if (t.box[k].fx) s.weighted[k].Start(h, t.box[k].iy, lanes, rows.begin, row, EdgeShare{t.box[k].fx});
  }
  Sum* __restrict line = s.line.data();
  Sum* __restrict edge = s.edge.data();
  Sum* __restrict total = s.total.data();
  // One box of whole radii sums the bytes alone, and their 256 goes into the division.
  const bool whole = t.boxes == 1 && t.box[0].fx == 0 && t.box[0].fy == 0;
  const double scale = whole ? 256.0 : 1.0;
  module::ForEachRow(op, rows, [&](int y) {
    if (whole) {
      if (y > rows.begin) s.full[0].Advance(row);
      SlideAlong<WindowShape::Box, 4>(s.full[0].Sums(), w, t.box[0].ix, total);
    } else {
      std::fill(total, total + lanes, Sum(0));
      for (int k = 0; k < t.boxes; ++k) AddBox(t, s, k, rows, y, line, edge, total);
    }
    if (t.simple_area && t.blend == 256 && t.kept == 0) {
      StoreQuotients(total, scale, reinterpret_cast<uint8_t*>(t.out->Row(y)), lanes, t);
      return;
    }
    if (t.simple_area)
      DivideByArea<Sum, true>(total, scale, values.data(), lanes, t);
    else
      DivideByArea<Sum, false>(total, scale, values.data(), lanes, t);
    StoreRow(values.data(), t.src->Row(y), t.out->Row(y), w, t);
  });
}

// --- Bartlett and Sharpen ---

// The 16-bit value of a triangle kernel from the sum T of bytes x weights and the source value
// s16. Bartlett: 256 T / V, truncated. Sharpen: (4 s16 V - 3 x 256 T) / V truncated, which once
// held to 0 or more is 4 s16 - ceil(768 T / V). For volumes V up to 2^32 the quotients come from
// a reciprocal: 256 T / V and 768 T / V are fractions of denominator V, so when not whole they
// lie at least 1 / V from a whole number, while T x (256 / V) or T x (768 / V) in double
// precision, less or plus half a step of 1 / V, is off by less than 2^-34; half a step put
// beside the product settles truncation and ceiling exactly.
template <bool kSharpen, bool kReciprocal, class Sum>
int32_t TriangleValue(Sum sum, int32_t s16, const BlurRender& t) {
  const double product = double(std::make_signed_t<Sum>(sum)) * t.per_volume;
  if constexpr (!kSharpen) {
    if constexpr (kReciprocal) return int32_t(product + t.half_step);
    return int32_t((256 * uint64_t(sum)) / t.volume);
  } else {
    // The share is at most 3 x 65280, so 32 bits hold it.
    int32_t share;
    if constexpr (kReciprocal)
      share = int32_t(std::ceil(product - t.half_step));
    else
      share = int32_t((768 * uint64_t(sum) + t.volume - 1) / t.volume);
    return std::max(4 * s16 - share, 0);
  }
}

template <class Sum, bool kSharpen, bool kReciprocal>
void TriangleBand(const BlurRender& t, BandScratch& scratch, module::RowSpan rows, const Operator& op) {
  BandSums<Sum>& s = scratch.For<Sum>();
  const int w = t.width, h = t.height;
  const size_t lanes = 4 * size_t(w);
  const auto row = [&t](int y) { return Bytes(*t.src, y); };
  s.total.resize(lanes);
  std::vector<int32_t> values(lanes);
  s.triangle.Start(h, t.radius, lanes, rows.begin, row);
  Sum* __restrict across = s.total.data();
  module::ForEachRow(op, rows, [&](int y) {
    if (y > rows.begin) s.triangle.Advance(row);
    SlideAlong<WindowShape::Triangle, 4>(s.triangle.Sums(), w, t.radius, across);
    const uint8_t* src = Bytes(*t.src, y);
    for (size_t i = 0; i < lanes; ++i)
      values[i] = std::min(TriangleValue<kSharpen, kReciprocal>(across[i], src[i] << 8, t), 65535);
    StoreRow(values.data(), t.src->Row(y), t.out->Row(y), w, t);
  });
}

template <bool kSharpen>
BandKernel TriangleKernel(bool narrow, bool reciprocal) {
  if (reciprocal)
    return narrow ? &TriangleBand<uint32_t, kSharpen, true> : &TriangleBand<uint64_t, kSharpen, true>;
  return &TriangleBand<uint64_t, kSharpen, false>;
}

class BlurSharpen final : public filter::FilterTool<kClassId, kInputCount> {
 public:
  BlurSharpen(Registry* reg, CArchive* ar, TagList* tags) : FilterTool(reg, ar, tags, InputTable()) {}

  uint32_t Process(Request* req) override {
    const Image* src = filter::FilterSource(req, in_[Source]);
    if (!src) return req->SetOutputData(image_out_, nullptr);
    const float size = float(module::NumberInput(req, in_[Size]));
    if (!(size > 0.0f)) return module::PassThrough(req, in_[Source], image_out_);
    BlurRender& t = render_;
    t.src = src;
    t.out = NewImage(req, src);
    t.width = src->Width();
    t.height = src->Height();
    const int kernel = module::TruncToInt(module::NumberInput(req, in_[FilterItem]));
    int32_t switches[4];
    for (int c = 0; c < 4; ++c) switches[c] = module::TruncToInt(module::NumberInput(req, in_[Red + c]));
    // Sharpen takes a channel whose switch is exactly 1; the others any switch but 0.
    const bool sharpen = kernel == Sharpen;
    t.kept = ~filter::SwitchedBytes(switches, [sharpen](int32_t s) { return sharpen ? s == 1 : s != 0; });
    t.blend = module::TruncToInt(module::NumberInput(req, in_[Blend]) * 256.0);
    const double rx = module::ReferenceSize(size, *src), ry = module::ReferenceSizeDown(size, *src);
    t.kernel = nullptr;
    if (kernel == Soften || kernel == BoxBlur || kernel == BoxBlurAgain) PrepareBoxes(t, kernel == Soften, rx, ry);
    if (kernel == Bartlett || kernel == Sharpen) PrepareTriangle(t, sharpen, rx);
    if (!t.kernel || t.width == 0 || t.height == 0) return req->SetOutputData(image_out_, t.out);
    t.bands = std::clamp(long(WorkerThreads()), 1L, long(t.height));
    scratch_.resize(size_t(t.bands));
    DoMultiProcess(req, t.bands);
    return req->SetOutputData(image_out_, t.out);
  }

  void ProcessChunk(Request*, long band) override {
    const BlurRender& t = render_;
    const module::RowSpan rows = t.from_bottom ? module::BandRowsFromBottom(t.height, t.bands, band)
                                               : module::BandRows(t.height, t.bands, band);
    if (rows.begin < rows.end) t.kernel(t, scratch_[size_t(band)], rows, *this);
  }

 private:
  // Box Blur: one box of the radii. Soften: four boxes of a/7 and b/7 of them, (a, b) =
  // (1, 7), (3, 5), (5, 3), (7, 1), 1/7 taken as the double 0.14285714285714285. The area is
  // sum (2 rx + 1)(2 ry + 1) over the boxes, from the unrounded radii.
  static void PrepareBoxes(BlurRender& t, bool soften, double rx, double ry) {
    constexpr double kAcross[4] = {1, 3, 5, 7}, kDown[4] = {7, 5, 3, 1};
    t.boxes = soften ? 4 : 1;
    t.area = 0.0;
    double largest = 0.0;  // the largest sum a row can reach
    for (int k = 0; k < t.boxes; ++k) {
      const double bx = HeldRadius(soften ? kAcross[k] * rx * 0.14285714285714285 : rx);
      const double by = HeldRadius(soften ? kDown[k] * ry * 0.14285714285714285 : ry);
      t.box[k] = BoxOf(bx, by);
      t.area += (2.0 * bx + 1.0) * (2.0 * by + 1.0);
      largest += 65280.0 * double(2 * t.box[k].ix + 3) * double(2 * t.box[k].iy + 3);
    }
    // The area as P / 2^k: doubling is exact, so the first whole multiple gives P.
    double p = t.area;
    for (int k = 0; k < 64 && p != std::floor(p); ++k) p *= 2.0;
    t.simple_area = p == std::floor(p) && p <= 4294967296.0;
    t.half_step = 0.5 / p;
    t.from_bottom = false;
    t.kernel = largest < 2147483648.0 ? &BoxBand<uint32_t> : &BoxBand<uint64_t>;
  }

  // Bartlett and Sharpen: r = trunc(rx), across and down alike.
  static void PrepareTriangle(BlurRender& t, bool sharpen, double rx) {
    t.radius = long(std::min(HeldRadius(rx), double(kMaxTriangleRadius)));
    const uint64_t side = uint64_t(t.radius + 1);
    t.volume = side * side * side * side;
    t.per_volume = (sharpen ? 768.0 : 256.0) / double(t.volume);
    t.half_step = 0.5 / double(t.volume);
    const bool narrow = 255 * t.volume < (uint64_t(1) << 31), reciprocal = t.volume <= (uint64_t(1) << 32);
    t.from_bottom = true;
    t.kernel = sharpen ? TriangleKernel<true>(narrow, reciprocal) : TriangleKernel<false>(narrow, reciprocal);
  }

  BlurRender render_;
  std::vector<BandScratch> scratch_;
};

}  // namespace

Object* NewBlur(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<BlurSharpen>(reg, ar, tags); }

}  // namespace kestrion::tools

// Motion Blur: smears an image along straight lines at an angle (linear) or around and towards
// a centre (radial: spin and zoom) by averaging samples along each pixel's path. Samples that
// fall outside the image are left out ("Duplicate") or count as black ("Black"). Each output
// row is a chunk on the worker threads; a quick render takes every n-th sample only.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <utility>
#include <vector>

#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/filter/filter_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("MtBl");

enum MotionInput { Type, Edges, Center, Length, Angle, Source, kInputCount };
enum Types { Linear, Radial };
enum EdgeModes { Duplicate, Black };

// The inputs in panel order.
const module::InputDecl (&InputTable())[kInputCount] {
  // clang-format off
  static const module::InputDecl table[kInputCount] = {
    {"Type",   vtype::Number, FourCC("Type"),     {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Linear"), Tag(in::ListEntry, "Radial"),
                                                   Tag(in::Default, 0.0)}},
    {"Edges",  vtype::Number, FourCC("Edge"),     {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Duplicate"), Tag(in::ListEntry, "Black"),
                                                   Tag(in::Default, 0.0)}},
    {"Center", vtype::Point,  HighFourCC("Cent"), {Tag(in::Control, control::Offset), Tag(in::PreviewControl, control::CrossHair),
                                                   Tag(in::DefaultX, 0.5), Tag(in::DefaultY, 0.5)}},
    {"Length", vtype::Number, HighFourCC("Size"), {Tag(in::Control, control::Slider), Tag(in::SliderLow, -0.1), Tag(in::SliderHigh, 0.1),
                                                   Tag(in::Default, 0.0)}},
    {"Angle",  vtype::Number, HighFourCC("Angl"), {Tag(in::Control, control::Dial), Tag(in::Steps, 3600), Tag(in::Presentation64, 450),
                                                   Tag(in::SliderLow, 0.0), Tag(in::SliderHigh, 360.0), Tag(in::Default, 0.0)}},
    {"Image",  vtype::Image,  ImageInputId(1),    {}},
  };
  // clang-format on
  return table;
}

// A Length typed beyond this many frame widths and heights together is held there (every
// further sample would lie outside the image).
constexpr long kLengthLimit = 64;

// Everything the rows need, worked out once per render in Process.
struct MotionRender {
  const Image* src = nullptr;
  Image* out = nullptr;
  int width = 0, height = 0;
  int type = Linear;
  bool black = false;  // samples outside the image count as black
  float xs = 1.0f, ys = 1.0f;
  long length = 0;     // L = trunc(-W x Length)
  int cx = 0, cy = 0;  // the centre in pixels
  double spin = 0.0;   // a' = a x 0.1
  long step = 1;       // every sample, or every step-th in a quick render
  // Linear: each sample's offset while one can still fall inside the image, and the samples
  // after those (all outside).
  std::vector<std::pair<int, int>> offsets;
  long samples_beyond = 0;
};

// The sums of the four channels of a row's pixels and how many samples each took; the result
// is each sum / count, truncated, the high byte of the 16-bit mean (sums of bytes x 256 divided
// by the count, then >> 8, give the same byte).
struct RowSums {
  std::vector<uint32_t> sum, count;
  void Reset(int width) {
    sum.assign(4 * size_t(width), 0);
    count.assign(size_t(width), 1);
  }
  // count is whole and sum at most 255 count, so sum x (1 / count) lies within 2^-40 of the
  // quotient, and half a step of 1 / count beside it truncates exactly.
  void Store(uint32_t* __restrict out, int width) const {
    auto* o = reinterpret_cast<uint8_t*>(out);
    for (int x = 0; x < width; ++x) {
      const double per = 1.0 / double(count[size_t(x)]), half = 0.5 * per;
      for (int c = 0; c < 4; ++c) o[4 * x + c] = uint8_t(double(sum[size_t(4 * x + c)]) * per + half);
    }
  }
};

// Linear: the samples at offsets (trunc(dx k), trunc(dy k)) for k = 1, 1 + step, ... below |L|,
// the same for every pixel, added a source row at a time.
void LinearRow(const MotionRender& t, RowSums& s, int y) {
  const int w = t.width;
  s.Reset(w);
  const auto* src = reinterpret_cast<const uint8_t*>(t.src->Row(y));
  for (int i = 0; i < 4 * w; ++i) s.sum[size_t(i)] = src[i];
  const long beyond = t.black ? t.samples_beyond : 0;
  for (const auto& [ox, oy] : t.offsets) {
    const int sy = y + oy;
    const int lo = std::clamp(-ox, 0, w), hi = std::clamp(w - ox, lo, w);  // x + ox inside for lo <= x < hi
    const bool row_inside = sy >= 0 && sy < t.height;
    if (row_inside) {
      const auto* row = reinterpret_cast<const uint8_t*>(t.src->Row(sy)) + 4 * ox;
      uint32_t* sum = s.sum.data();
      for (int i = 4 * lo; i < 4 * hi; ++i) sum[i] += row[i];
    }
    // A pixel counts the samples inside, or with Black every sample.
    const int from = t.black ? 0 : row_inside ? lo : w, to = t.black ? w : row_inside ? hi : w;
    for (int x = from; x < to; ++x) ++s.count[size_t(x)];
  }
  if (beyond)
    for (int x = 0; x < w; ++x) s.count[size_t(x)] += uint32_t(beyond);
  s.Store(t.out->Row(y), w);
}

// Radial: per pixel, its radius rho and direction theta about the centre (both measured
// against the width); n = trunc(rho |a'|), raised to |L| where not greater; the samples turn by
// a' / n and move out by L / n per step.
void RadialRow(const MotionRender& t, RowSums& s, int y) {
  const int w = t.width, h = t.height;
  s.Reset(w);
  const auto* src = reinterpret_cast<const uint8_t*>(t.src->Row(y));
  for (int i = 0; i < 4 * w; ++i) s.sum[size_t(i)] = src[i];
  const double ry = double(y - t.cy) / double(w) * double(t.ys);
  const long length = std::abs(t.length);
  for (int x = 0; x < w; ++x) {
    const double rx = double(x - t.cx) / double(w) * double(t.xs);
    const double rho = double(w) * std::sqrt(rx * rx + ry * ry), theta = std::atan2(ry, rx);
    long n = long(rho * std::fabs(t.spin));
    if (n <= length) n = length;
    if (n <= 0) continue;
    const double turn = t.spin / double(n), move = double(t.length) / double(n);
    uint32_t* sum = &s.sum[4 * size_t(x)];
    uint32_t& count = s.count[size_t(x)];
    for (long k = 1; k < n; k += t.step) {
      const double angle = t.spin == 0.0 ? theta : theta + double(k) * turn, radius = rho + double(k) * move;
      const long sx = long(double(long(std::cos(angle) * radius)) / double(t.xs) + double(t.cx));
      const long sy = long(double(long(radius * std::sin(angle))) / double(t.ys) + double(t.cy));
      if (sx < 0 || sx >= w || sy < 0 || sy >= h) {
        count += t.black;
        continue;
      }
      const auto* p = reinterpret_cast<const uint8_t*>(t.src->Row(int(sy)) + sx);
      for (int c = 0; c < 4; ++c) sum[c] += p[c];
      ++count;
    }
  }
  s.Store(t.out->Row(y), w);
}

class MotionBlur final : public filter::FilterTool<kClassId, kInputCount> {
 public:
  MotionBlur(Registry* reg, CArchive* ar, TagList* tags) : FilterTool(reg, ar, tags, InputTable()) {}

  uint32_t Process(Request* req) override {
    const Image* src = filter::FilterSource(req, in_[Source]);
    if (!src) return req->SetOutputData(image_out_, nullptr);
    MotionRender& t = render_;
    t.src = src;
    t.out = NewImage(req, src);
    t.width = src->Width();
    t.height = src->Height();
    t.xs = src->x_aspect;
    t.ys = src->y_aspect;
    t.type = module::TruncToInt(module::NumberInput(req, in_[Type]));
    t.black = module::TruncToInt(module::NumberInput(req, in_[Edges])) == Black;
    const long reach = kLengthLimit * (long(t.width) + t.height);
    const double length = module::NumberInput(req, in_[Length]);
    t.length = std::clamp<long>(module::TruncToInt(-double(t.width) * length), -reach, reach);
    float cx = 0.5f, cy = 0.5f;
    if (auto* centre = dynamic_cast<Point*>(req->GetInputData(in_[Center]))) {
      cx = centre->x;
      cy = centre->y;
    }
    t.cx = module::TruncToInt(cx * float(t.width));
    t.cy = module::TruncToInt(cy * float(t.height));
    const double a = module::NumberInput(req, in_[Angle]) * 6.283185307179586 * 0.002777777777777778;
    t.spin = a * 0.1;
    t.step = req->flags & rflag::Quick ? std::max((t.width + 50) / 100, 1) : 1;
    if (t.type == Linear) PrepareLinear(t, a);
    if ((t.type == Linear || t.type == Radial) && t.width > 0) DoMultiProcess(req, t.height);
    return req->SetOutputData(image_out_, t.out);
  }

  void ProcessChunk(Request*, long y) override {
    if (abort_flag.load(std::memory_order_relaxed)) return;
    const MotionRender& t = render_;
    RowSums sums;
    if (t.type == Linear)
      LinearRow(t, sums, int(y));
    else
      RadialRow(t, sums, int(y));
  }

 private:
  // The direction (-cos a / xs, sin a / ys), reversed where L is negative (Length positive).
  // Samples whose offset reaches past the image's width or height lie outside for every pixel,
  // as do all after them.
  static void PrepareLinear(MotionRender& t, double a) {
    double dx = -std::cos(a) / double(t.xs), dy = std::sin(a) / double(t.ys);
    if (t.length < 0) {
      dx = -dx;
      dy = -dy;
    }
    t.offsets.clear();
    t.samples_beyond = 0;
    const long n = std::abs(t.length);
    for (long k = 1; k < n; k += t.step) {
      const double ox = std::trunc(dx * double(k)), oy = std::trunc(dy * double(k));
      if (std::fabs(ox) >= t.width || std::fabs(oy) >= t.height) {
        t.samples_beyond = (n - 1 - k) / t.step + 1;
        break;
      }
      t.offsets.push_back({int(ox), int(oy)});
    }
  }

  MotionRender render_;
};

}  // namespace

Object* NewMotionBlur(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<MotionBlur>(reg, ar, tags); }

}  // namespace kestrion::tools

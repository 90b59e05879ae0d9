// Ripple: moves every pixel towards or away from a centre by a sine wave whose phase follows a
// distance of one of eight shapes (circles, squares, a random field, bands, a product, a star,
// rays), the wave optionally fading with the distance. Quick renders read the undamped wave from
// a table of 2000 steps and take the nearest pixel. Points past the frame read its edge.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <vector>

#include "host/base/random.h"
#include "host/image/tables.h"
#include "module/fast_math.h"
#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "module/warp_rows.h"
#include "tools/warp/warp_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("Drip");

enum RippleInput { Shape, Center, Amplitude, Dampening, Frequency, Phase, ImageIn, kInputCount };
enum RippleShape { Circular, Square, Random, Horizontal, Vertical, Exponential, Star, Radial, kShapeCount };

// Distances are measured in 1/2000 of the frame width.
constexpr int kUnit = 2000;
constexpr double kPi = 3.141592653589793;

// The circular distance of r² = i / 10000 for i = 0 .. 19999 (r² below 2), stepped by the
// single-precision 0.0001 on purpose: saved flows render with it.
const std::array<int32_t, 20000> kRootTable = [] {
  std::array<int32_t, 20000> table{};
  for (int i = 0; i < 20000; ++i) table[size_t(i)] = int32_t(std::sqrt(i * double(0.0001f)) * kUnit * 0.707106781186595);
  return table;
}();

struct RippleRender;
using RippleRowFn = void (*)(const RippleRender&, int y);

// Everything the rows need, worked out once per render in Process.
struct RippleRender {
  const Image* src = nullptr;
  Image* out = nullptr;
  int width = 0, height = 0;
  long bands = 1;
  int cx = 0, cy = 0;     // the centre, in whole pixels
  float xs = 1, ys = 1;   // the input's pixel aspect
  double amplitude = 0;   // A
  double frequency = 0;   // F', radians per distance unit
  double phase = 0;       // P', radians
  double dampening = 0;   // D
  RippleRowFn row = nullptr;
  std::vector<double> fx;  // per column: its offset from the centre in frame widths, times xs (a float)
  std::array<float, kUnit> wave{};     // quick renders: the scale s of distances 0 .. 1999
  uint32_t first_state = 0;            // Random: the generator's state before the first draw
  std::vector<uint64_t> draws_before;  // Random: the draws of the rows above each row
};

// An offset from the centre in frame widths times a pixel aspect, in double precision and kept
// as a float.
inline float Offset(int64_t pixels, int width, float aspect) { return float(double(pixels) / width * aspect); }

// The distance measure of a shape, in 1/2000 of the frame width (Random draws from the C
// runtime's generator whose state the row carries).
template <int kShape>
inline int32_t Distance(float fx, float fy, uint32_t& state) {
  const double ax = std::fabs(fx), ay = std::fabs(fy);
  if constexpr (kShape == Circular) {
    const float r2 = float(double(fx) * fx + double(fy) * fy);
    if (r2 < 2.0f) return kRootTable[size_t(double(r2) * 10000)];
    return module::TruncToInt(std::sqrt(double(r2)) * 1414.21356237319);
  } else if constexpr (kShape == Square) {
    return module::TruncToInt(std::max(ax, ay) * kUnit);
  } else if constexpr (kShape == Random) {
    state = CrtSteps::Of(1).Apply(state);
    return CrtDraw(state) % kUnit;
  } else if constexpr (kShape == Horizontal) {
    return module::TruncToInt(ay * kUnit);
  } else if constexpr (kShape == Vertical) {
    return module::TruncToInt(ax * kUnit);
  } else if constexpr (kShape == Exponential) {
    return module::TruncToInt(ax * ay * kUnit);
  } else if constexpr (kShape == Star) {
    return module::TruncToInt(std::min(ax, ay) / std::max(ax, ay) * kUnit * 0.125);
  } else {
    if (fx == 0 && fy == 0) return 0;
    return module::TruncToInt((std::atan2(double(fx), double(fy)) + kPi) * 318.1507312406988);
  }
}

// The wave's amplitude a at offset (fx, fy): A, or with dampening A less the distance times D,
// held to 0 and above. A pixel's scale is s = 1 + a sin(F' d + P').
template <bool kDamped>
inline double WaveAmplitude(double amplitude, double dampening, double fx, double fy) {
  if constexpr (!kDamped) return amplitude;
  const double a = amplitude - std::sqrt(fx * fx + fy * fy) * dampening;
  return a > 0 ? a : 0.0;
}
// The source point, in 1/256 pixel, of a pixel at offset (fx, fy) scaled by s: the centre plus
// the offset times s.
inline int32_t SourceX(const RippleRender& t, double fx, double s) {
  return module::TruncToInt((t.cx + fx * t.width * s / t.xs) * 256.0);
}
inline int32_t SourceY(const RippleRender& t, double fy, double s) {
  return module::TruncToInt((t.cy + fy * t.width * s / t.ys) * 256.0);
}

// The source points of pixels x0 .. x0 + count - 1 of a row at fy. First, in order (Random
// draws as it goes), each pixel's distance and the scales known without a sine: the centre's 1
// and the quick wave's entries, NaN for the rest. Then the points, from the known scales or from
// both ends of the fast sine's error; and the library's sine where those differ or the fast form
// does not reach.
template <int kShape, bool kQuick, bool kDamped>
void RipplePoints(const RippleRender& t, float fy, uint32_t& state, int x0, int count, int32_t* sx, int32_t* sy) {
  int32_t distance[module::kSamplePiece];
  double fixed_scale[module::kSamplePiece];
  for (int k = 0; k < count; ++k) {
    const float fx = float(t.fx[size_t(x0 + k)]);
    const bool centre = fx == 0 && fy == 0;
    const int32_t d = distance[k] = centre ? 0 : Distance<kShape>(fx, fy, state);
    const bool waved = kQuick && !kDamped && uint32_t(d) < uint32_t(kUnit);
    fixed_scale[k] = centre ? 1.0 : waved ? t.wave[size_t(d)] : std::numeric_limits<double>::quiet_NaN();
  }
  // The loop reads the render's values from locals: a value read from memory on one side of a
  // choice only would keep the compiler from running it on vectors.
  const double fy_wide = fy, amplitude = t.amplitude, dampening = t.dampening;
  const double* offsets = t.fx.data() + x0;
  int32_t x_high[module::kSamplePiece], y_high[module::kSamplePiece];
  for (int k = 0; k < count; ++k) {
    const double fx = offsets[k], fy = fy_wide, fixed = fixed_scale[k];
    const bool known = fixed == fixed;
    // s = base + a sine: 1 + a sine, or the known scale plus nothing (whatever the sine of an
    // angle past the fast form's reach came to).
    const double base = known ? fixed : 1.0, a = known ? 0.0 : WaveAmplitude<kDamped>(amplitude, dampening, fx, fy);
    const double sine = known ? 0.0 : module::FastSinCos(t.frequency * distance[k] + t.phase).sin;
    const double error = known ? 0.0 : module::kFastTrigError;
    const module::Bracket bx = module::BracketOf(sine, error, [&](double v) { return SourceX(t, fx, base + a * v); });
    const module::Bracket by = module::BracketOf(sine, error, [&](double v) { return SourceY(t, fy, base + a * v); });
    sx[k] = bx.low;
    sy[k] = by.low;
    x_high[k] = bx.high;
    y_high[k] = by.high;
  }
  for (int k = 0; k < count; ++k) {
    const double angle = t.frequency * distance[k] + t.phase;
    const bool certain = fixed_scale[k] == fixed_scale[k] ||
                         (sx[k] == x_high[k] && sy[k] == y_high[k] && std::fabs(angle) <= module::kFastTrigLimit);
    if (certain) continue;
    const double fx = t.fx[size_t(x0 + k)];
    const double s = 1.0 + WaveAmplitude<kDamped>(amplitude, dampening, fx, fy) * std::sin(angle);
    sx[k] = SourceX(t, fx, s);
    sy[k] = SourceY(t, fy, s);
  }
}

// Output row y: each pixel's offset from the centre scaled by its s, the centre pixel's by 1,
// and the source read there, clamped to the frame.
template <int kShape, bool kQuick, bool kDamped>
void RippleRow(const RippleRender& t, int y) {
  const float fy = Offset(int64_t(y) - t.cy, t.width, t.ys);
  uint32_t state = kShape == Random ? CrtSteps::Of(t.draws_before[size_t(y)]).Apply(t.first_state) : 0;
  module::SampleMappedRow<module::Edge::Clamp>(
      *t.src, *t.out, y, kQuick ? 0 : 1, [&](int x0, int count, int32_t* sx, int32_t* sy) {
        RipplePoints<kShape, kQuick, kDamped>(t, fy, state, x0, count, sx, sy);
      });
}

// The rows of a shape: full and quick, each undamped and damped.
template <int kShape>
constexpr std::array<RippleRowFn, 4> kShapeRows = {&RippleRow<kShape, false, false>, &RippleRow<kShape, false, true>,
                                                   &RippleRow<kShape, true, false>, &RippleRow<kShape, true, true>};
constexpr std::array<std::array<RippleRowFn, 4>, kShapeCount> kRows = {
    kShapeRows<Circular>, kShapeRows<Square>,      kShapeRows<Random>, kShapeRows<Horizontal>,
    kShapeRows<Vertical>, kShapeRows<Exponential>, kShapeRows<Star>,   kShapeRows<Radial>};

class Ripple final : public ThreadedOperator {
 public:
  Ripple(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Shape",     vtype::Number, FourCC("Shpe"),  {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Circular"),
                                                     Tag(in::ListEntry, "Square"), Tag(in::ListEntry, "Random"),
                                                     Tag(in::ListEntry, "Horizontal"), Tag(in::ListEntry, "Vertical"),
                                                     Tag(in::ListEntry, "Exponential"), Tag(in::ListEntry, "Star"),
                                                     Tag(in::ListEntry, "Radial"), Tag(in::Default, 0.0)}},
      {"Center",    vtype::Point,  HighFourCC("Cent"), {Tag(in::Control, control::Offset), Tag(in::PreviewControl, control::CrossHair),
                                                     Tag(in::DefaultX, 0.5), Tag(in::DefaultY, 0.5)}},
      {"Amplitude", vtype::Number, FourCC("Ampl"),  {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 1.0),
                                                     Tag(in::Default, 0.1)}},
      {"Dampening", vtype::Number, FourCC("Damp"),  {Tag(in::Control, control::Slider), Tag(in::SliderLow, 0.0), Tag(in::SliderHigh, 1.0),
                                                     Tag(in::Default, 0.0)}},
      {"Frequency", vtype::Number, FourCC("Freq"),  {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 100.0),
                                                     Tag(in::Default, 10.0)}},
      {"Phase",     vtype::Number, FourCC("Phse"),  {Tag(in::Control, control::Dial), Tag(in::SliderLow, 0.0), Tag(in::SliderHigh, 1.0),
                                                     Tag(in::Default, 0.0)}},
      {"Image",     vtype::Image,  ImageInputId(1), {}},
    };
    // clang-format on
    image_out_ = module::DeclareImageTool(this, ar, table, in_);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  uint32_t Process(Request* req) override {
    const int shape = module::TruncToInt(module::NumberInput(req, in_[Shape]));
    const double amplitude = module::NumberInput(req, in_[Amplitude]);
    const double frequency = module::NumberInput(req, in_[Frequency]);
    const double phase = module::NumberInput(req, in_[Phase]);
    const double dampening = module::NumberInput(req, in_[Dampening]);
    const module::PointValue centre = module::PointInput(req, in_[Center]);
    auto* src = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    // A shape value past the list (typed or animated) leaves the frame as it is.
    if (!src || frequency <= 0 || amplitude <= 0 || shape < 0 || shape >= kShapeCount)
      return module::PassThrough(req, in_[ImageIn], image_out_);

    RippleRender& t = render_;
    t.src = src;
    t.out = NewImage(req, src);
    t.width = t.out->Width();
    t.height = t.out->Height();
    t.xs = src->x_aspect;
    t.ys = src->y_aspect;
    t.amplitude = amplitude;
    t.dampening = dampening;
    t.frequency = frequency * 0.0031415926535897933;
    // The phase turns backwards; negative values are brought up by whole cycles past 0.
    double p = -phase;
    if (p < 0) p += double(std::llabs(module::TruncToInt(p))) + 1;
    t.phase = p * 6.283185307179586;
    t.cx = module::TruncToInt(t.width * double(centre.x));
    t.cy = module::TruncToInt(t.height * double(centre.y));
    t.fx.resize(size_t(t.width));
    for (int x = 0; x < t.width; ++x) t.fx[size_t(x)] = Offset(int64_t(x) - t.cx, t.width, t.xs);
    const bool quick = req->flags & rflag::Quick;
    if (quick) {
      for (int i = 0; i < kUnit; ++i) {
        const int32_t k = module::TruncToInt((i * t.frequency + t.phase) * 1000);
        t.wave[size_t(i)] = float(double(SinTable[size_t(kSinTableZero + k % kSinTableZero)]) * t.amplitude + 1.0);
      }
    }
    if (shape == Random) TakeDraws(t);
    t.row = kRows[size_t(shape)][size_t(quick) * 2 + (dampening != 0)];
    t.bands = module::RowBands(t.height);
    DoMultiProcess(req, t.bands);
    return req->SetOutputData(image_out_, t.out);
  }

  void ProcessChunk(Request*, long band) override {
    const RippleRender& t = render_;
    module::ForEachRow(*this, module::BandRows(t.height, t.bands, band), [&](int y) { t.row(t, y); });
  }

 private:
  // Random draws one number for every pixel but the centre, in row order, whatever the bands:
  // the render takes its run of draws at once, and each row starts at its place in the run.
  static void TakeDraws(RippleRender& t) {
    int64_t centre_columns = 0;
    for (double fx : t.fx) centre_columns += fx == 0;
    t.draws_before.resize(size_t(t.height) + 1);
    t.draws_before[0] = 0;
    for (int y = 0; y < t.height; ++y) {
      const bool centre_row = Offset(int64_t(y) - t.cy, t.width, t.ys) == 0;
      t.draws_before[size_t(y) + 1] = t.draws_before[size_t(y)] + uint64_t(t.width - (centre_row ? centre_columns : 0));
    }
    t.first_state = crt_rand_take(t.draws_before.back());
  }

  Input* in_[kInputCount];
  Output* image_out_;
  RippleRender render_;
};

}  // namespace

Object* NewRipple(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Ripple>(reg, ar, tags); }

}  // namespace kestrion::tools

// Dent: pushes the picture inside a circle inwards or outwards along the radius from a centre
// point, by one of six radial profiles; the centre pixel and everything on or outside the
// circle stay as they are. Points past the frame read transparent black.
#include <array>
#include <cmath>
#include <cstdint>

#include "module/fast_math.h"
#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "module/warp_rows.h"
#include "tools/warp/warp_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("Dent");
constexpr double kPi = 3.141592653589793;

enum DentInput { Type, Center, Size, Strength, ImageIn, kInputCount };
// The profiles, and any other type value, which moves nothing.
enum DentType { Dent1, Kaleidoscope, Dent2, Dent3, CosineDent, SineDent, kTypeCount };

struct DentRender;
using DentRowFn = void (*)(const DentRender&, int y);

// Everything the rows need, worked out once per render in Process.
struct DentRender {
  const Image* src = nullptr;
  Image* out = nullptr;
  int width = 0, height = 0;
  long bands = 1;
  long quality = 1;
  double cxp = 0, cyp = 0;  // the centre, in pixels
  double radius = 0;        // R, in frame widths
  double k = 0;             // the strength, negated
  float xs = 1, ys = 1;     // the input's pixel aspect
  DentRowFn row = nullptr;
};

// The profiles that go through a sine or a cosine.
constexpr bool UsesTrig(int type) { return type == CosineDent || type == SineDent; }

// The argument of that sine or cosine for a pixel at distance r inside the circle of radius R,
// and the C library's value of it.
template <int kType>
inline double TrigArgument(double r, double R) {
  if constexpr (kType == CosineDent) return (R - r) / R * kPi;
  // q = r 10 - R 10, held to at most 0 as (q - |q|) / 2, which is q or 0 exactly: written so
  // (not as a choice) the compiler runs the row on vectors.
  const double q = r * 10 - R * 10;
  return 0.5 * (q - std::fabs(q));
}
template <int kType>
inline double LibraryTrig(double argument) {
  return kType == CosineDent ? std::cos(argument) : std::sin(argument);
}

// The new distance from the centre of a pixel at distance r inside the circle; `trig` is the
// value of the profile's sine or cosine, where it has one.
template <int kType>
inline double NewRadius(double r, double R, double k, double trig) {
  if constexpr (kType == Dent1) {
    return r + (R - r) * k;
  } else if constexpr (kType == Kaleidoscope) {
    return r + (R - r) * k / R;
  } else if constexpr (kType == Dent2) {
    return ((R - r) * k / R + 1) * r;
  } else if constexpr (kType == Dent3) {
    return r + std::sqrt(r) * (R - r) * k / R;
  } else if constexpr (kType == CosineDent) {
    return r + (1 - trig) * k * 0.1;
  } else if constexpr (kType == SineDent) {
    return r + trig * k * (r * 0.2) * -5.0;
  } else {
    return r;
  }
}

// The source points of pixels x0 .. x0 + count - 1 of a row at dy, all inside the circle: the
// pixel moved along its radius to the new distance. A profile with a sine or a cosine takes it
// from the fast form and the points from both ends of its error, and the library's where those
// differ.
template <int kType>
void DentPoints(const DentRender& t, double dy, int x0, int count, int32_t* sx, int32_t* sy) {
  const double R = t.radius, k = t.k, width = t.width, cxp = t.cxp, cyp = t.cyp, xs = t.xs, ys = t.ys;
  const auto offset = [&](int x) { return (x - cxp) / width * xs; };
  const auto source = [&](double moved, double d, double r, double centre, double aspect) {
    return module::TruncToInt((moved * d / r * width / aspect + centre) * 256.0);
  };
  bool doubt[module::kSamplePiece];
  for (int i = 0; i < count; ++i) {
    const double dx = offset(x0 + i), r = std::sqrt(dx * dx + dy * dy);
    if constexpr (UsesTrig(kType)) {
      const double argument = TrigArgument<kType>(r, R);
      const module::SinCos fast = module::FastSinCos(argument);
      const double trig = kType == CosineDent ? fast.cos : fast.sin;
      const module::Bracket bx = module::BracketOf(
          trig, module::kFastTrigError, [&](double v) { return source(NewRadius<kType>(r, R, k, v), dx, r, cxp, xs); });
      const module::Bracket by = module::BracketOf(
          trig, module::kFastTrigError, [&](double v) { return source(NewRadius<kType>(r, R, k, v), dy, r, cyp, ys); });
      sx[i] = bx.low;
      sy[i] = by.low;
      doubt[i] = !(int(std::fabs(argument) <= module::kFastTrigLimit) & int(bx.Certain()) & int(by.Certain()));
    } else {
      const double moved = NewRadius<kType>(r, R, k, 0.0);
      sx[i] = source(moved, dx, r, cxp, xs);
      sy[i] = source(moved, dy, r, cyp, ys);
    }
  }
  if constexpr (UsesTrig(kType)) {
    for (int i = 0; i < count; ++i) {
      if (!doubt[i]) continue;
      const double dx = offset(x0 + i), r = std::sqrt(dx * dx + dy * dy);
      const double moved = NewRadius<kType>(r, R, k, LibraryTrig<kType>(TrigArgument<kType>(r, R)));
      sx[i] = source(moved, dx, r, cxp, xs);
      sy[i] = source(moved, dy, r, cyp, ys);
    }
  }
}

// Output row y: the pixels inside the circle moved along their radius, the rest copied.
template <int kType>
void DentRow(const DentRender& t, int y) {
  const double dy = (y - t.cyp) / t.width * t.ys;
  const auto offset = [&](int x) { return (x - t.cxp) / t.width * t.xs; };
  const auto inside = [&](int x) {
    const double dx = offset(x);
    return std::sqrt(dx * dx + dy * dy) < t.radius;
  };
  const module::RowSpan run = module::RunAround(t.width, t.cxp, inside);
  module::CopyRun(*t.src, *t.out, y, 0, run.begin);
  module::CopyRun(*t.src, *t.out, y, run.end, t.width);
  module::SampleMappedRun<module::Edge::Black>(
      *t.src, *t.out, y, run.begin, run.end, t.quality,
      [&](int x0, int count, int32_t* sx, int32_t* sy) { DentPoints<kType>(t, dy, x0, count, sx, sy); });
  // The centre pixel has no direction to move in and stays.
  if (dy == 0)
    for (int x = run.begin; x < run.end; ++x)
      if (offset(x) == 0) module::CopyRun(*t.src, *t.out, y, x, x + 1);
}

constexpr std::array<DentRowFn, kTypeCount + 1> kRows = {&DentRow<Dent1>, &DentRow<Kaleidoscope>, &DentRow<Dent2>,
                                                         &DentRow<Dent3>, &DentRow<CosineDent>,   &DentRow<SineDent>,
                                                         &DentRow<kTypeCount>};

class Dent final : public ThreadedOperator {
 public:
  Dent(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // "Kaleidascope" is spelled so on purpose: flows name the entry by its text.
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Type",     vtype::Number, FourCC("Type"),     {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Dent 1"),
                                                       Tag(in::ListEntry, "Kaleidascope"), Tag(in::ListEntry, "Dent 2"),
                                                       Tag(in::ListEntry, "Dent 3"), Tag(in::ListEntry, "Cosine Dent"),
                                                       Tag(in::ListEntry, "Sine Dent"), Tag(in::Default, 0.0)}},
      {"Center",   vtype::Point,  HighFourCC("Cent"), {Tag(in::Control, control::Offset), Tag(in::PreviewControl, control::CrossHair),
                                                       Tag(in::DefaultX, 0.5), Tag(in::DefaultY, 0.5)}},
      {"Size",     vtype::Number, HighFourCC("Size"), {Tag(in::Control, control::Slider), Tag(in::PreviewControl, control::CircleHandle),
                                                       Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 10.0), Tag(in::Default, 0.5),
                                                       Tag(in::SliderPresentation, 1.0)}},
      {"Strength", vtype::Number, FourCC("Strn"),     {Tag(in::Control, control::Slider), Tag(in::Lowest, -5.0), Tag(in::SliderHigh, 10.0),
                                                       Tag(in::Default, 1.0)}},
      {"Image",    vtype::Image,  ImageInputId(1),    {}},
    };
    // clang-format on
    image_out_ = module::DeclareImageTool(this, ar, table, in_);
    in_[Size]->SetAttrs({Tag(in::TiedInput1, in_[Center])});
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  uint32_t Process(Request* req) override {
    const int type = module::TruncToInt(module::NumberInput(req, in_[Type]));
    const module::PointValue centre = module::PointInput(req, in_[Center]);
    const double size = module::NumberInput(req, in_[Size]);
    const double strength = module::NumberInput(req, in_[Strength]);
    auto* src = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    if (!src || (size == 0 && strength == 0)) return module::PassThrough(req, in_[ImageIn], image_out_);

    DentRender& t = render_;
    t.src = src;
    t.out = NewImage(req, src);
    t.width = src->Width();
    t.height = src->Height();
    t.quality = req->flags & rflag::Quick ? 0 : 1;
    t.cxp = t.width * double(centre.x);
    t.cyp = t.height * double(centre.y);
    t.radius = size * 0.5;
    t.k = -strength;
    t.xs = src->x_aspect;
    t.ys = src->y_aspect;
    t.row = kRows[type >= 0 && type < kTypeCount ? size_t(type) : size_t(kTypeCount)];
    t.bands = module::RowBands(t.height);
    DoMultiProcess(req, t.bands);
    return req->SetOutputData(image_out_, t.out);
  }

  void ProcessChunk(Request*, long band) override {
    const DentRender& t = render_;
    module::ForEachRow(*this, module::BandRows(t.height, t.bands, band), [&](int y) { t.row(t, y); });
  }

 private:
  Input* in_[kInputCount];
  Output* image_out_;
  DentRender render_;
};

}  // namespace

Object* NewDent(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Dent>(reg, ar, tags); }

}  // namespace kestrion::tools

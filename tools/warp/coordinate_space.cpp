// Coordinate Space: converts a frame between rectangular and polar coordinates about its middle.
// "Rectangular to Polar" unrolls the picture so that the output's columns are angles and its rows
// distances from the middle; "Polar to Rectangular" wraps such a picture back around it. Pixels
// are copied whole from the nearest source pixel; angles and distances are worked out once per
// column and row where only one of them varies.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "module/fast_math.h"
#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "module/warp_rows.h"
#include "tools/warp/warp_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("CrdS");
constexpr double kPi = 3.141592653589793;

enum CoordinateSpaceInput { Shape, ImageIn, kInputCount };
enum Conversion { RectangularToPolar, PolarToRectangular };

// The middle of the frame, in fractions of it: the centre of both conversions.
constexpr double kCentreX = 0.5, kCentreY = 0.5;

// Everything the rows need, worked out once per render in Process.
struct PolarRender {
  const Image* src = nullptr;
  Image* out = nullptr;
  int width = 0, height = 0;
  long bands = 1;
  int conversion = RectangularToPolar;
  double farthest = 0;           // Polar to Rectangular: the distance to the farthest corner
  std::vector<double> cos_angle;  // Rectangular to Polar: per output column x,
  std::vector<double> sin_angle;  //   the angle (x / W - 0.5) 2 pi
};

// Pixels x0 .. x0 + count - 1 of `out`'s row y copied whole from the source pixels at
// (xs[k], ys[k]), a mask's byte or a word; black where a point lies outside the source.
template <class Pixel>
void CopyPoints(const PolarRender& t, int y, int x0, int count, const int32_t* xs, const int32_t* ys) {
  const uint32_t width = uint32_t(t.width), height = uint32_t(t.height);
  void* const* rows = t.src->RowTable();
  Pixel* __restrict to = static_cast<Pixel*>(t.out->RowTable()[y]) + x0;
  for (int k = 0; k < count; ++k) {
    const bool inside = uint32_t(xs[k]) < width && uint32_t(ys[k]) < height;
    to[k] = inside ? static_cast<const Pixel*>(rows[ys[k]])[xs[k]] : Pixel(0);
  }
}
void CopyPoints(const PolarRender& t, int y, int x0, int count, const int32_t* xs, const int32_t* ys) {
  if (t.out->Depth() == 32) {
    CopyPoints<uint32_t>(t, y, x0, count, xs, ys);
  } else {
    CopyPoints<uint8_t>(t, y, x0, count, xs, ys);
  }
}

// Output row y, the distance y / H / sqrt(2) from the middle at every column's angle; points
// that fall outside the source are black.
void RectangularToPolarRow(const PolarRender& t, int y) {
  const double rho = double(y) / t.height / std::sqrt(2.0), last_x = t.width - 1, last_y = t.height - 1;
  const double* cos_angle = t.cos_angle.data();
  const double* sin_angle = t.sin_angle.data();
  int32_t sx[module::kSamplePiece], sy[module::kSamplePiece];
  for (int x0 = 0; x0 < t.width; x0 += module::kSamplePiece) {
    const int count = std::min(module::kSamplePiece, t.width - x0);
    for (int k = 0; k < count; ++k) {
      sx[k] = module::TruncToInt(last_x * (cos_angle[x0 + k] * rho + kCentreX));
      sy[k] = module::TruncToInt(last_y * (sin_angle[x0 + k] * rho + kCentreY));
    }
    CopyPoints(t, y, x0, count, sx, sy);
  }
}

// The source column of a pixel at (dx, dy) from the middle, not both zero, for its angle a (as
// the library gives it): (a + pi) / 2 pi of the way across from the left.
inline int32_t ColumnOf(double last_x, double angle) {
  return module::TruncToInt(last_x * ((angle + kPi) * 0.15915494309189535));
}

// Output row y: each pixel's distance from the middle, over the farthest corner's, picks the
// source row, and its angle the source column; the middle pixel takes column 0 of row 0. The
// angle comes from the fast atan2 and the column from both ends of its error, or from the
// library's atan2 where those differ.
void PolarToRectangularRow(const PolarRender& t, int y) {
  const double dy = double(y) / t.height - kCentreY, width = t.width, farthest = t.farthest;
  const double last_x = t.width - 1, last_y = t.height - 1;
  int32_t sx[module::kSamplePiece], sy[module::kSamplePiece];
  int32_t column_high[module::kSamplePiece];
  for (int x0 = 0; x0 < t.width; x0 += module::kSamplePiece) {
    const int count = std::min(module::kSamplePiece, t.width - x0);
    for (int k = 0; k < count; ++k) {
      const double dx = double(x0 + k) / width - kCentreX;
      const bool middle = dx == 0 && dy == 0;
      const module::Bracket column =
          module::BracketOf(module::FastAtan2(dy, dx), middle ? 0.0 : module::kFastAtan2Error,
                            [&](double angle) { return middle ? 0 : ColumnOf(last_x, angle); });
      sx[k] = column.low;
      column_high[k] = column.high;
      sy[k] = module::TruncToInt(last_y * (std::sqrt(dx * dx + dy * dy) / farthest));
    }
    for (int k = 0; k < count; ++k)
      if (sx[k] != column_high[k]) sx[k] = ColumnOf(last_x, std::atan2(dy, double(x0 + k) / width - kCentreX));
    CopyPoints(t, y, x0, count, sx, sy);
  }
}

class CoordinateSpace final : public ThreadedOperator {
 public:
  CoordinateSpace(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Shape", vtype::Number, FourCC("CrdS"),  {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Rectangular to Polar"),
                                                 Tag(in::ListEntry, "Polar to Rectangular"), Tag(in::Default, 0.0)}},
      {"Image", vtype::Image,  ImageInputId(1), {}},
    };
    // clang-format on
    image_out_ = module::DeclareImageTool(this, ar, table, in_);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  uint32_t Process(Request* req) override {
    const int shape = module::TruncToInt(module::NumberInput(req, in_[Shape]));
    auto* src = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    if (!src) return req->SetOutputData(image_out_, nullptr);
    PolarRender& t = render_;
    t.src = src;
    t.out = NewImage(req, src);
    t.width = src->Width();
    t.height = src->Height();
    t.conversion = shape;
    // Any other shape value leaves the new frame as it was made.
    if (shape != RectangularToPolar && shape != PolarToRectangular) return req->SetOutputData(image_out_, t.out);
    if (shape == RectangularToPolar) {
      t.cos_angle.resize(size_t(t.width));
      t.sin_angle.resize(size_t(t.width));
      for (int x = 0; x < t.width; ++x) {
        const double angle = (double(x) / t.width - 0.5) * 6.283185307179586;
        t.cos_angle[size_t(x)] = std::cos(angle);
        t.sin_angle[size_t(x)] = std::sin(angle);
      }
    } else {
      const double far_x = std::max(kCentreX, 1 - kCentreX), far_y = std::max(kCentreY, 1 - kCentreY);
      t.farthest = std::sqrt(far_x * far_x + far_y * far_y);
    }
    t.bands = module::RowBands(t.height);
    DoMultiProcess(req, t.bands);
    return req->SetOutputData(image_out_, t.out);
  }

  void ProcessChunk(Request*, long band) override {
    const PolarRender& t = render_;
    module::ForEachRow(*this, module::BandRows(t.height, t.bands, band), [&](int y) {
      if (t.conversion == RectangularToPolar) {
        RectangularToPolarRow(t, y);
      } else {
        PolarToRectangularRow(t, y);
      }
    });
  }

 private:
  Input* in_[kInputCount];
  Output* image_out_;
  PolarRender render_;
};

}  // namespace

Object* NewCoordinateSpace(Registry* reg, CArchive* ar, TagList* tags) {
  return module::Factory<CoordinateSpace>(reg, ar, tags);
}

}  // namespace kestrion::tools

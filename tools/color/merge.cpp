// Merge: lays the foreground, moved, scaled and rotated, over the background, blending between
// ordinary ("over") and additive compositing. One output row per chunk; the sampling positions
// step through the foreground in 16.16 fixed point, so the per-pixel path is integer only.
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "module/tile_pictures.h"
#include "tools/color/color_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("Mrge");
constexpr double kRadiansPerDegree = 0.017453292519943295;

enum MergeInput { Center, Size, Angle, AdditiveMix, AlphaGain, Background, Foreground, kInputCount };

ResBitmap g_tile;

// Everything the row kernel needs, worked out once per render in Process.
struct MergeFrame {
  const Image* fg = nullptr;
  const Image* bg = nullptr;
  Image* out = nullptr;
  int additive = 0;    // A: 0 (over) .. 255 (additive)
  int alpha_gain = 0;  // G, in 1/256
  double fg_x0 = 0, fg_y0 = 0;          // foreground origin offsets, in foreground pixels
  double centre_x = 0, centre_y = 0;    // the centre relative to the background's origin
  int32_t cos_step = 0, sin_step = 0;   // C and S: cos and sin over the size, in 16.16
  int32_t x_step = 0, y_step = 0;       // dX and dY, per output pixel
};

class Merge final : public ThreadedOperator {
 public:
  Merge(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // The blanks in the slider's label space its two words to the slider's ends.
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Center",     vtype::Point,  0x746E65C3,      {Tag(in::Control, control::Offset), Tag(in::PreviewControl, control::CrossHair),
                                                      Tag(in::DefaultX, 0.5), Tag(in::DefaultY, 0.5)}},
      {"Size",       vtype::Number, 0x657A69D3,      {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 5.0),
                                                      Tag(in::Default, 1.0), Tag(in::Presentation05, 1)}},
      {"Angle",      vtype::Number, 0x6C676EC1,      {Tag(in::Control, control::Dial), Tag(in::PreviewControl, control::AngleHandle),
                                                      Tag(in::SliderLow, 0.0), Tag(in::SliderHigh, 360.0), Tag(in::Default, 0.0),
                                                      Tag(in::Steps, 3600), Tag(in::Presentation64, 450)}},
      {"Subtractive                                    Additive",
                     vtype::Number, FourCC("AdSb"),  {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::Highest, 1.0),
                                                      Tag(in::Default, 0.0), Tag(in::Presentation05, 1)}},
      {"Alpha Gain", vtype::Number, FourCC("AlGn"),  {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::Highest, 1.0),
                                                      Tag(in::Default, 1.0), Tag(in::Presentation05, 1)}},
      {"Image",      vtype::Image,  ImageInputId(1), {}},
      {"Foreground", vtype::Image,  ImageInputId(2), {Tag(in::Required, 0)}},
    };
    // clang-format on
    module::DeclareInputs(this, table, in_);
    in_[Angle]->SetAttrs({Tag(in::TiedInput1, in_[Center]), Tag(in::TiedInput2, in_[Size])});
    image_out_ = AddOutput("Image", vtype::Image, ImageOutputId(1));
    SetThreadSettings(2, 1);
    module::LoadTilePicture(g_tile, module::TilePictureName::Merge);
    SetTilePicture(&g_tile);
    if (ar) module::SkipRecordEnd(ar);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  // A zero size or alpha gain hides the foreground: its upstream tools are not rendered.
  void CheckRequest(Request* req) override {
    auto* alpha_gain = dynamic_cast<Number*>(req->GetInputData(in_[AlphaGain]));
    auto* additive = dynamic_cast<Number*>(req->GetInputData(in_[AdditiveMix]));
    auto* size = dynamic_cast<Number*>(req->GetInputData(in_[Size]));
    if (!alpha_gain || !additive || !size) return;
    if (alpha_gain->value == 0.0 || size->value == 0.0) req->SetInputData(in_[Foreground], nullptr, 0);
    ThreadedOperator::CheckRequest(req);
  }

  uint32_t Process(Request* req) override {
    auto* centre = dynamic_cast<Point*>(req->GetInputData(in_[Center]));
    const double size = module::NumberInput(req, in_[Size]);
    const double angle = module::NumberInput(req, in_[Angle]);
    const double additive = module::NumberInput(req, in_[AdditiveMix]);
    const double alpha_gain = module::NumberInput(req, in_[AlphaGain]);
    auto* fg = dynamic_cast<Image*>(req->GetInputData(in_[Foreground]));
    auto* bg = dynamic_cast<Image*>(req->GetInputData(in_[Background]));
    if (!bg) return req->SetOutputData(image_out_, nullptr);
    if (!fg) {
      bg->Use();
      return req->SetOutputData(image_out_, bg);
    }

    MergeFrame& f = frame_;
    f = MergeFrame{};
    f.fg = fg;
    f.bg = bg;
    f.out = NewImage(req, bg);
    f.additive = module::TruncToInt(additive * 255.0);
    f.alpha_gain = module::TruncToInt(alpha_gain * 256.0);
    f.fg_x0 = fg->Width() * (0.5 - fg->origin_x);
    f.fg_y0 = fg->Height() * (0.5 - fg->origin_y);
    f.centre_x = bg->Width() * ((centre ? centre->x : 0.5f) - bg->origin_x);
    f.centre_y = bg->Height() * ((centre ? centre->y : 0.5f) - bg->origin_y);
    const double r = angle * kRadiansPerDegree;
    f.cos_step = module::TruncToInt(65536.0 * std::cos(r) / size);
    f.sin_step = module::TruncToInt(65536.0 * std::sin(r) / size);
    f.x_step = module::TruncToInt(65536.0 * (std::cos(r) / size) / fg->x_aspect);
    f.y_step = module::TruncToInt(65536.0 * (std::sin(r) / size) / fg->y_aspect);

    DoMultiProcess(req, f.out->Height());
    return req->SetOutputData(image_out_, f.out);
  }

  void ProcessChunk(Request*, long row) override { MergeRow(int(row), 1); }
  void QuickProcessChunk(Request*, long row) override { MergeRow(int(row), 0); }

 private:
  // One output row. The row start includes the background's x aspect and the per-pixel steps
  // do not; saved flows render so, and both are kept.
  void MergeRow(int y, long quality) {
    if (abort_flag.load(std::memory_order_relaxed) != 0) return;
    const MergeFrame& f = frame_;
    const double dy = y - f.centre_y, dx = -f.centre_x;
    int32_t sx = module::TruncToInt(
        65536.0 * f.fg_x0 + (f.bg->x_aspect * dx * f.cos_step - f.bg->y_aspect * dy * f.sin_step) / f.fg->x_aspect);
    int32_t sy = module::TruncToInt(
        65536.0 * f.fg_y0 + (f.bg->y_aspect * dy * f.cos_step + f.bg->x_aspect * dx * f.sin_step) / f.fg->y_aspect);
    const uint32_t* bg_row = f.bg->Row(y);
    uint32_t* out_row = f.out->Row(y);
    const int width = f.bg->Width(), over_weight = 255 - f.additive;
    for (int x = 0; x < width; ++x) {
      Pixel s;
      f.fg->DoSample_Black(&s, sx >> 8, sy >> 8, quality);
      const int alpha = (s.a * f.alpha_gain + 127) >> 8, inv = 255 - alpha;
      if (alpha == 255) {
        out_row[x] = Pixel{s.b, s.g, s.r, 255}.Word();
      } else if (alpha == 0) {
        out_row[x] = bg_row[x];
      } else {
        const Pixel p = Pixel::FromWord(bg_row[x]);
        const auto mix = [&](int c, int pc) {
          const int over = (c * alpha + pc * inv) >> 8, add = c + ((pc * inv) >> 8);
          return uint8_t(std::min(255, (over * over_weight + add * f.additive) >> 8));
        };
        out_row[x] = Pixel{mix(s.b, p.b), mix(s.g, p.g), mix(s.r, p.r), uint8_t(std::min(255, ((p.a * inv) >> 8) + alpha))}
                         .Word();
      }
      sx = module::WrapAdd(sx, f.x_step);
      sy = module::WrapAdd(sy, f.y_step);
    }
  }

  Input* in_[kInputCount];
  Output* image_out_;
  MergeFrame frame_;
};

}  // namespace

Object* NewMerge(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Merge>(reg, ar, tags); }

}  // namespace kestrion::tools

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
struct MergeRender {
  const Image* fg = nullptr;
  const Image* bg = nullptr;
  Image* out = nullptr;
  int additive = 0;     // A: 0 (over) .. 255 (additive)
  int over_weight = 0;  // 255 - A
  int alpha_gain = 0;   // G, in 1/256
  bool over_only = false;  // A = 0 and 0 <= G <= 256: OverPixel gives MergePixel's bytes
  double fg_x0 = 0, fg_y0 = 0;          // foreground origin offsets, in foreground pixels
  double centre_x = 0, centre_y = 0;    // the centre relative to the background's origin
  int32_t cos_step = 0, sin_step = 0;   // C and S: cos and sin over the size, in 16.16
  int32_t x_step = 0, y_step = 0;       // dX and dY, per output pixel
};

// The foreground sample `s` over the background pixel `p`. alpha' = (alpha G + 127) >> 8; at 255
// the sample replaces p, at 0 p stays; between, each colour channel mixes "over" (the sample
// not yet multiplied by its alpha) and "add" (already multiplied) by A. Every case is worked
// out and one chosen, so that the compiler can run the row loop on vectors.
inline uint32_t MergePixel(const MergeRender& f, uint32_t s, uint32_t p) {
  const int alpha = (int(s >> 24) * f.alpha_gain + 127) >> 8, inv = 255 - alpha;
  uint32_t mixed = 0;
  for (int shift = 0; shift < 24; shift += 8) {
    const int c = int(s >> shift) & 255, pc = int(p >> shift) & 255;
    const int over = (c * alpha + pc * inv) >> 8, add = c + ((pc * inv) >> 8);
    mixed |= uint32_t(std::min(255, (over * f.over_weight + add * f.additive) >> 8) & 255) << shift;
  }
  mixed |= uint32_t(std::min(255, ((int(p >> 24) * inv) >> 8) + alpha) & 255) << 24;
  return alpha == 255 ? s | 0xFF000000u : alpha == 0 ? p : mixed;
}

// MergePixel with A = 0 and 0 <= G <= 256, the defaults. The "add" term then weighs nothing
// and every product stays below 65536, so two channels share a 32-bit word, one per 16-bit half
// (blue and red, then green and alpha), and the compiler keeps 8 pixels to a vector without
// packing.
inline uint32_t OverPixel(const MergeRender& f, uint32_t s, uint32_t p) {
  constexpr uint32_t kHalves = 0x00FF00FF;
  const uint32_t alpha = ((s >> 24) * uint32_t(f.alpha_gain) + 127) >> 8, inv = 255 - alpha;
  const uint32_t blue_red = (((s & kHalves) * alpha + (p & kHalves) * inv) >> 8) & kHalves;
  const uint32_t behind = ((p >> 8) & kHalves) * inv;  // green and alpha of p, times inv
  const uint32_t green = (((s >> 8) & 255) * alpha + (behind & 0xFFFF)) >> 8;
  // over * (255 - A) >> 8 with A = 0, and alpha' + (alpha of p * inv) >> 8, which stays below 256.
  const uint32_t mixed = (((blue_red * 255) >> 8) & kHalves) | ((green * 255) >> 8) << 8 | ((behind >> 24) + alpha) << 24;
  return alpha == 255 ? s | 0xFF000000u : alpha == 0 ? p : mixed;
}

template <uint32_t (*kPixel)(const MergeRender&, uint32_t, uint32_t)>
void BlendRow(const MergeRender& f, const uint32_t* samples, const uint32_t* bg, uint32_t* out, int count) {
  for (int x = 0; x < count; ++x) out[x] = kPixel(f, samples[x], bg[x]);
}

// Rows are sampled and blended in pieces of this many pixels, the samples held on the stack
// unless the sampler hands out a foreground row.
constexpr int kPiece = 256;

// Output row y. The row start includes the background's x aspect and the per-pixel steps do
// not; saved flows render so, and both are kept.
void MergeRow(const MergeRender& f, int y, long quality) {
  const double dy = y - f.centre_y, dx = -f.centre_x;
  const int32_t sx = module::TruncToInt(
      65536.0 * f.fg_x0 + (f.bg->x_aspect * dx * f.cos_step - f.bg->y_aspect * dy * f.sin_step) / f.fg->x_aspect);
  const int32_t sy = module::TruncToInt(
      65536.0 * f.fg_y0 + (f.bg->y_aspect * dy * f.cos_step + f.bg->x_aspect * dx * f.sin_step) / f.fg->y_aspect);
  const uint32_t* bg_row = f.bg->Row(y);
  uint32_t* out_row = f.out->Row(y);
  uint32_t buffer[kPiece];
  for (int x = 0; x < f.bg->Width(); x += kPiece) {
    const int count = std::min(kPiece, f.bg->Width() - x);
    const uint32_t* samples =
        f.fg->SampleRow_Black(buffer, count, module::WrapAdd(sx, module::WrapMul(x, f.x_step)),
                              module::WrapAdd(sy, module::WrapMul(x, f.y_step)), f.x_step, f.y_step, quality);
    if (f.over_only) {
      BlendRow<OverPixel>(f, samples, bg_row + x, out_row + x, count);
    } else {
      BlendRow<MergePixel>(f, samples, bg_row + x, out_row + x, count);
    }
  }
}

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
    image_out_ = module::DeclareImageTool(this, ar, table, in_, 2, 1);
    in_[Angle]->SetAttrs({Tag(in::TiedInput1, in_[Center]), Tag(in::TiedInput2, in_[Size])});
    module::LoadTilePicture(g_tile, module::TilePictureName::Merge);
    SetTilePicture(&g_tile);
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

    MergeRender& f = render_;
    f = MergeRender{};
    f.fg = module::ColourImage(req, fg);
    f.bg = module::ColourImage(req, bg);
    f.out = NewImageUnset(req, f.bg);
    f.additive = module::TruncToInt(additive * 255.0);
    f.over_weight = 255 - f.additive;
    f.alpha_gain = module::TruncToInt(alpha_gain * 256.0);
    f.over_only = f.additive == 0 && f.alpha_gain >= 0 && f.alpha_gain <= 256;
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

  void ProcessChunk(Request*, long row) override { Row(int(row), 1); }
  void QuickProcessChunk(Request*, long row) override { Row(int(row), 0); }

 private:
  // Every output row is written; one that the abort flag stops is cleared.
  void Row(int y, long quality) {
    module::WriteEachRow(*this, *render_.out, {y, y + 1}, [&](int) { MergeRow(render_, y, quality); });
  }

  Input* in_[kInputCount];
  Output* image_out_;
  MergeRender render_;
};

}  // namespace

Object* NewMerge(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Merge>(reg, ar, tags); }

}  // namespace kestrion::tools

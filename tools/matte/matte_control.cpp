// Matte Control: reshapes the alpha of an image that has one: blur, contrast, gamma, inversion,
// and a garbage matte from a mask tool that makes the masked area transparent or solid. The
// colour passes through untouched.
#include <algorithm>
#include <vector>

#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/matte/matte.h"

namespace kestrion::tools {

namespace {

using namespace matte;

constexpr uint32_t kClassId = FourCC("MtCt");

enum MatteControlInput { MatteBlur, MatteContrast, MatteGamma, InvertMatte, GarbageMode, GarbageMask, ImageIn, kInputCount };
enum GarbageModes { MakeTransparent, MakeSolid };

struct ControlRender;
using GarbageKernel = void (*)(const ControlRender& k, int y, int x, uint8_t* alpha, int count);

// Everything the rows need, worked out once per render in Process.
struct ControlRender {
  const Image* src = nullptr;
  const Image* garbage = nullptr;  // the mask, when it applies
  GarbageKernel apply_garbage = nullptr;
  std::vector<uint8_t> empty_row;  // mask rows past the mask's last row read as 0
  AlphaMap map;  // contrast, gamma, inversion
  bool mapped = false;
};

inline int32_t MaskValue(uint8_t v) { return v; }
inline int32_t MaskValue(uint32_t v) { return int32_t(v >> 24); }

// Mask row j (a mask's bytes, or the alpha of a 32-bit image), or the empty row past the end.
template <class Px>
const Px* MaskRowOf(const ControlRender& k, int j) {
  if (j >= k.garbage->Height()) return reinterpret_cast<const Px*>(k.empty_row.data());
  if constexpr (sizeof(Px) == 1) {
    return k.garbage->MaskRow(j);
  } else {
    return k.garbage->Row(j);
  }
}

// The garbage matte on alpha: m = G[y][x], or at twice the width (G[2y][2x] + G[2y+1][2x]) / 2;
// a value of 1 counts as 0. Make Transparent: A = min(A, 255 - m); Make Solid: A = max(A, m).
template <int Mode, bool Twice, class Px>
void GarbageRow(const ControlRender& k, int y, int x, uint8_t* alpha, int count) {
  const Px* first = MaskRowOf<Px>(k, Twice ? 2 * y : y);
  const Px* second = MaskRowOf<Px>(k, Twice ? 2 * y + 1 : y);
  for (int i = 0; i < count; ++i) {
    const int c = x + i;
    const int32_t read = Twice ? (MaskValue(first[2 * c]) + MaskValue(second[2 * c])) / 2 : MaskValue(first[c]);
    const int32_t m = read == 1 ? 0 : read;
    alpha[i] = uint8_t(Mode == MakeTransparent ? std::min<int32_t>(alpha[i], 255 - m) : std::max<int32_t>(alpha[i], m));
  }
}

// [mode][twice][32-bit mask]
constexpr GarbageKernel kGarbage[2][2][2] = {
    {{GarbageRow<MakeTransparent, false, uint8_t>, GarbageRow<MakeTransparent, false, uint32_t>},
     {GarbageRow<MakeTransparent, true, uint8_t>, GarbageRow<MakeTransparent, true, uint32_t>}},
    {{GarbageRow<MakeSolid, false, uint8_t>, GarbageRow<MakeSolid, false, uint32_t>},
     {GarbageRow<MakeSolid, true, uint8_t>, GarbageRow<MakeSolid, true, uint32_t>}},
};

class MatteControl final : public ThreadedOperator {
 public:
  MatteControl(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // Two inputs share the label "Garbage Matte": the mode, then the mask.
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Matte Blur",     vtype::Number, 0x72756CC2,      {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 50.0),
                                                          Tag(in::Default, 0.0), Tag(in::Steps, 51)}},
      {"Matte Contrast", vtype::Number, 0x746E6FC3,      {Tag(in::Control, control::Slider), Tag(in::Lowest, -1.0), Tag(in::SliderHigh, 1.0),
                                                          Tag(in::Default, 0.0), Tag(in::Steps, 101)}},
      {"Matte Gamma",    vtype::Number, 0x616D61C7,      {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 3.0),
                                                          Tag(in::Default, 1.0), Tag(in::Steps, 101)}},
      {"Invert Matte",   vtype::Number, 0x74766EC9,      {Tag(in::Control, control::CheckBox), Tag(in::Presentation06, 1), Tag(in::Default, 0.0)}},
      {"Garbage Matte",  vtype::Number, FourCC("GMMd"),  {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Make Transparent"),
                                                          Tag(in::ListEntry, "Make Solid"), Tag(in::Default, 0.0)}},
      {"Garbage Matte",  vtype::Mask,   FourCC("GMat"),  {Tag(in::Presentation05, -1000), Tag(in::Required, 0)}},
      {"Image",          vtype::Image,  ImageInputId(1), {}},
    };
    // clang-format on
    image_out_ = module::DeclareImageTool(this, ar, table, in_, 3, 0);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  uint32_t Process(Request* req) override {
    const auto number = [&](MatteControlInput i) { return float(module::NumberInput(req, in_[i])); };
    const float blur = number(MatteBlur), contrast = number(MatteContrast), gamma = number(MatteGamma);
    const double invert = module::NumberInput(req, in_[InvertMatte]);
    const int mode = module::TruncToInt(module::NumberInput(req, in_[GarbageMode]));
    auto* given = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    const auto* garbage = dynamic_cast<Image*>(req->GetInputData(in_[GarbageMask]));
    if (!given) return req->SetOutputData(image_out_, nullptr);

    ControlRender& k = render_;
    k.src = module::ColourImage(req, given);
    const int w = k.src->Width();
    k.map = IdentityMap();
    if (NonZero(contrast)) k.map = ContrastMap(contrast);
    if (!IsOne(gamma)) k.map = Then(k.map, GammaMap(gamma));
    if (invert == 1.0) k.map = Then(k.map, InvertMap());
    k.mapped = NonZero(contrast) || !IsOne(gamma) || invert == 1.0;
    // A mask of any width but the image's or twice it, or a mode off the list, does nothing.
    const bool twice = garbage && garbage->Width() == 2 * w;
    k.garbage = garbage && (garbage->Width() == w || twice) && (mode == MakeTransparent || mode == MakeSolid) ? garbage : nullptr;
    k.apply_garbage = k.garbage ? kGarbage[mode][twice][k.garbage->Depth() != 8] : nullptr;
    if (k.garbage) k.empty_row.assign(size_t(k.garbage->Width()) * k.garbage->BytesPerPixel(), 0);

    return req->SetOutputData(image_out_, passes_.Run(*this, req, *k.src, {&blur, Positive(blur) ? 1u : 0u}));
  }

  // The input's alpha is the matte (the blur reads it taken out, a quarter of the bytes); the
  // map and the garbage matte finish it.
  void ProcessChunk(Request*, long band) override {
    const ControlRender& k = render_;
    passes_.Chunk(
        *this, band, [&](int y, int x, uint8_t* alpha, int count) { AlphaOfRow(k.src->Row(y) + x, alpha, count); },
        [&](int y, int x, uint8_t* alpha, uint32_t* out, int count) {
          if (k.mapped) MapRow(k.map, alpha, count);
          if (k.apply_garbage) k.apply_garbage(k, y, x, alpha, count);
          JoinRow(k.src->Row(y) + x, alpha, out, count);
        });
  }

 private:
  Input* in_[kInputCount];
  Output* image_out_;
  ControlRender render_;
  MattePasses passes_;
};

}  // namespace

Object* NewMatteControl(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<MatteControl>(reg, ar, tags); }

}  // namespace kestrion::tools

// Dissolve: mixes the foreground into the background by one of five operations driven by one
// fraction. All rows run in Process on one thread, because the two random operations draw one
// number per pixel from the host's sequential generator in a fixed order.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "host/base/random.h"
#include "tools/color/color_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("dmix");

enum DissolveInput { Operation, Mix, Background, Foreground, kInputCount };
enum Operations { Plain = 0, AdditiveMix = 1, Erode = 2, Random = 3, RandomNoise = 4 };

// The weights of one render: m and n = 32768 - m for the blends, the random threshold k, and
// room for one row of random draws.
struct DissolveWeights {
  module::BlendWeight blend;
  int threshold = 1;
  int* draws = nullptr;
};

// --- row kernels: `count` pixels of f and b into out ---

void DissolveRow(const uint32_t* f, const uint32_t* b, uint32_t* out, int count, const DissolveWeights& w) {
  const auto* fb = reinterpret_cast<const uint8_t*>(f);
  const auto* bb = reinterpret_cast<const uint8_t*>(b);
  auto* ob = reinterpret_cast<uint8_t*>(out);
  for (int i = 0; i < 4 * count; ++i) ob[i] = module::Blend15(fb[i], bb[i], w.blend);
}

// Works on 16-bit channel values (v << 8), in 32-bit arithmetic that wraps.
void AdditiveMixRow(const uint32_t* f, const uint32_t* b, uint32_t* out, int count, const DissolveWeights& w) {
  const auto* fb = reinterpret_cast<const uint8_t*>(f);
  const auto* bb = reinterpret_cast<const uint8_t*>(b);
  auto* ob = reinterpret_cast<uint8_t*>(out);
  const int32_t m = w.blend.weight, n = w.blend.complement;
  for (int i = 0; i < 4 * count; ++i) {
    const int32_t f16 = fb[i] << 8, b16 = bb[i] << 8, sum = std::min(f16 + b16, 65535);
    const int32_t t = module::WrapAdd(module::WrapMul(f16, m), module::WrapMul(sum, n)) >> 15;
    const int32_t u = module::WrapAdd(module::WrapMul(t, m), module::WrapMul(b16, n)) >> 15;
    ob[i] = uint8_t(u >> 8);
  }
}

// Blue + 2 green + red of a pixel, in 16-bit channel values.
inline int32_t ErodeWeight(uint32_t p) { return int32_t((p & 255) + 2 * (p >> 8 & 255) + (p >> 16 & 255)) << 8; }

void ErodeRow(const uint32_t* f, const uint32_t* b, uint32_t* out, int count, const DissolveWeights& w) {
  const int32_t m = w.blend.weight, n = w.blend.complement;
  for (int x = 0; x < count; ++x) {
    // The comparison is of signed 32-bit products, which wrap for bright pixels near mix 1.
    const bool foreground_only = module::WrapMul(ErodeWeight(f[x]), m) > module::WrapMul(ErodeWeight(b[x]), n);
    uint32_t result = 0;
    for (int shift = 0; shift < 32; shift += 8) {
      const int32_t f16 = int32_t(f[x] >> shift & 255) << 8, b16 = int32_t(b[x] >> shift & 255) << 8;
      const int32_t sum = foreground_only ? module::WrapMul(f16, m) : module::WrapAdd(module::WrapMul(f16, m), module::WrapMul(b16, n));
      result |= uint32_t(uint8_t((sum >> 15) >> 8)) << shift;
    }
    out[x] = result;
  }
}

// One draw per pixel, in row order.
void RandomRow(const uint32_t* f, const uint32_t* b, uint32_t* out, int count, const DissolveWeights& w) {
  crt_rand_n(w.draws, size_t(count));
  for (int x = 0; x < count; ++x) out[x] = w.draws[x] < w.threshold ? f[x] : b[x];
}

using RowKernel = void (*)(const uint32_t*, const uint32_t*, uint32_t*, int, const DissolveWeights&);

RowKernel KernelFor(int operation) {
  switch (operation) {
    case Plain: return DissolveRow;
    case AdditiveMix: return AdditiveMixRow;
    case Erode: return ErodeRow;
    case Random:
    case RandomNoise: return RandomRow;
    default: return nullptr;
  }
}

// FNV-1a over the tool's name: a value that tells tools apart and is the same on every run.
uint32_t NameHash(const std::string& name) {
  uint32_t h = 2166136261u;
  for (unsigned char c : name) h = (h ^ c) * 16777619u;
  return h;
}

class Dissolve final : public ThreadedOperator {
 public:
  Dissolve(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // The blanks in the slider's label space its two words to the slider's ends.
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Operation",  vtype::Number, FourCC("Type"),  {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Dissolve"),
                                                      Tag(in::ListEntry, "Additive Mix"), Tag(in::ListEntry, "Erode"),
                                                      Tag(in::ListEntry, "Random"), Tag(in::ListEntry, "Random Noise"),
                                                      Tag(in::Default, 0.0)}},
      {"Background                               Foreground",
                     vtype::Number, 0x646E6CC2,      {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 1.0),
                                                      Tag(in::Default, 1.0), Tag(in::Presentation05, 1)}},
      {"Image",      vtype::Image,  ImageInputId(1), {Tag(in::Required, 0)}},
      {"Foreground", vtype::Image,  ImageInputId(2), {Tag(in::Required, 0)}},
    };
    // clang-format on
    module::DeclareInputs(this, table, in_);
    image_out_ = AddOutput("Image", vtype::Image, ImageOutputId(1));
    SetThreadSettings(2, 1);
    if (ar) module::SkipRecordEnd(ar);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  uint32_t Process(Request* req) override {
    const double operation = module::NumberInput(req, in_[Operation]);
    const double mix = module::NumberInput(req, in_[Mix]);
    auto* bg = dynamic_cast<Image*>(req->GetInputData(in_[Background]));
    auto* fg = dynamic_cast<Image*>(req->GetInputData(in_[Foreground]));
    if (!bg || !fg) {
      Image* single = bg ? bg : fg;
      if (single) single->Use();
      return req->SetOutputData(image_out_, single);
    }
    Image* out = NewImage(req, bg);

    if (operation == 3.0) crt_srand(InstanceValue());
    if (operation == 4.0) crt_srand(SeedAt(req->time));
    if (RowKernel kernel = KernelFor(module::TruncToInt(operation))) {
      const int width = std::min(fg->Width(), bg->Width()), height = std::min(fg->Height(), bg->Height());
      draws_.resize(size_t(width));
      const DissolveWeights weights{module::BlendWeightOf(mix), module::WrapAdd(module::TruncToInt(mix * 32767.0), 1),
                                    draws_.data()};
      module::ForEachRow(*this, {0, height}, [&](int y) { kernel(fg->Row(y), bg->Row(y), out->Row(y), width, weights); });
    }
    return req->SetOutputData(image_out_, out);
  }

 private:
  // The value that seeds "Random": fixed for the tool's life (taken at its first render) so the
  // pattern is the same on every frame, and different between tools.
  uint32_t InstanceValue() {
    if (!instance_value_) instance_value_ = NameHash(Name()) | 1;
    return instance_value_;
  }

  // "Random Noise" seeds with trunc(q * t), q the instance value shifted right by 8 bits, so
  // the pattern changes every frame; the product is kept to its low 32 bits.
  uint32_t SeedAt(double time) {
    const double product = std::trunc(double(InstanceValue() >> 8) * time);
    if (!(std::fabs(product) < 9.2e18)) return 0;
    return uint32_t(int64_t(product));
  }

  Input* in_[kInputCount];
  Output* image_out_;
  uint32_t instance_value_ = 0;
  std::vector<int> draws_;  // kept between renders so a render allocates nothing
};

}  // namespace

Object* NewDissolve(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Dissolve>(reg, ar, tags); }

}  // namespace kestrion::tools

// Dissolve: mixes the foreground into the background by one of five operations driven by one
// fraction. Process works out the render's constants; the rows run in bands on the worker
// threads. The two random operations draw one number per pixel in row order: the render takes
// all its draws from the host's generator at once, and each band jumps to its first draw.
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

struct DissolveRender;
// `count` pixels of f and b into out; `state` is the generator's state before the row's first
// draw (used by the random operations only).
using RowKernel = void (*)(const uint32_t* f, const uint32_t* b, uint32_t* out, int count, const DissolveRender& d,
                           uint32_t state);

// Everything the row kernels need, worked out once per render in Process.
struct DissolveRender {
  const Image* fg = nullptr;
  const Image* bg = nullptr;
  Image* out = nullptr;
  int width = 0, height = 0;
  long bands = 1;
  RowKernel kernel = nullptr;
  module::BlendWeight blend;  // m and n = 32768 - m
  int threshold = 1;         // the random operations take the foreground where the draw is below it
  uint32_t first_state = 0;  // the generator's state before the render's first draw
  CrtSteps row_steps;        // one row of draws
  CrtRowSteps draws;         // from a row's first state to each of its draws
};

// --- row kernels ---

void DissolveRow(const uint32_t* f, const uint32_t* b, uint32_t* out, int count, const DissolveRender& d, uint32_t) {
  const auto* fb = reinterpret_cast<const uint8_t*>(f);
  const auto* bb = reinterpret_cast<const uint8_t*>(b);
  auto* ob = reinterpret_cast<uint8_t*>(out);
  const module::BlendWeight w = d.blend;
  for (int i = 0; i < 4 * count; ++i) ob[i] = module::Blend15(fb[i], bb[i], w);
}

// 16-bit lanes that may be read from pixel words.
using Lanes16 = uint16_t __attribute__((may_alias));

// The same blend for weights 0 <= m < 32768, the mixes from 0 to just below 1. There
// a m + b n = 32768 b + (a - b) m, so the byte is b + floor(2 (a - b) m / 65536): the high half of
// a 16-bit product, twice as many channels per instruction as the 32-bit products. The bytes
// are worked in 16-bit lanes of two, the low byte in place and the high byte shifted down, so
// that none is unpacked or packed again.
void DissolveRowNarrow(const uint32_t* f, const uint32_t* b, uint32_t* out, int count, const DissolveRender& d,
                       uint32_t) {
  const auto* f16 = reinterpret_cast<const Lanes16*>(f);
  const auto* b16 = reinterpret_cast<const Lanes16*>(b);
  auto* o16 = reinterpret_cast<Lanes16*>(out);
  const int16_t m = int16_t(d.blend.weight);
  const auto mixed = [m](int fc, int bc) {
    const int16_t twice_difference = int16_t(2 * (fc - bc));
    return uint16_t(bc + ((twice_difference * m) >> 16));
  };
  for (int i = 0; i < 2 * count; ++i) {
    const uint16_t fw = f16[i], bw = b16[i];
    o16[i] = uint16_t(mixed(fw & 255, bw & 255) | mixed(fw >> 8, bw >> 8) << 8);
  }
}

// Works on 16-bit channel values (v << 8), in 32-bit arithmetic that wraps.
void AdditiveMixRow(const uint32_t* f, const uint32_t* b, uint32_t* out, int count, const DissolveRender& d,
                    uint32_t) {
  const auto* fb = reinterpret_cast<const uint8_t*>(f);
  const auto* bb = reinterpret_cast<const uint8_t*>(b);
  auto* ob = reinterpret_cast<uint8_t*>(out);
  const int32_t m = d.blend.weight, n = d.blend.complement;
  for (int i = 0; i < 4 * count; ++i) {
    const int32_t f16 = fb[i] << 8, b16 = bb[i] << 8, sum = std::min(f16 + b16, 65535);
    const int32_t t = module::WrapAdd(module::WrapMul(f16, m), module::WrapMul(sum, n)) >> 15;
    const int32_t u = module::WrapAdd(module::WrapMul(t, m), module::WrapMul(b16, n)) >> 15;
    ob[i] = uint8_t(u >> 8);
  }
}

// Blue + 2 green + red of a pixel, in 16-bit channel values.
inline int32_t ErodeWeight(uint32_t p) { return int32_t((p & 255) + 2 * (p >> 8 & 255) + (p >> 16 & 255)) << 8; }

void ErodeRow(const uint32_t* f, const uint32_t* b, uint32_t* out, int count, const DissolveRender& d, uint32_t) {
  const int32_t m = d.blend.weight, n = d.blend.complement;
  for (int x = 0; x < count; ++x) {
    // The comparison is of signed 32-bit products, which wrap for bright pixels near mix 1.
    const bool foreground_only = module::WrapMul(ErodeWeight(f[x]), m) > module::WrapMul(ErodeWeight(b[x]), n);
    const int32_t background_weight = foreground_only ? 0 : n;
    uint32_t result = 0;
    for (int shift = 0; shift < 32; shift += 8) {
      const int32_t f16 = int32_t(f[x] >> shift & 255) << 8, b16 = int32_t(b[x] >> shift & 255) << 8;
      const int32_t sum = module::WrapAdd(module::WrapMul(f16, m), module::WrapMul(b16, background_weight));
      result |= uint32_t(uint8_t((sum >> 15) >> 8)) << shift;
    }
    out[x] = result;
  }
}

void RandomRow(const uint32_t* f, const uint32_t* b, uint32_t* out, int count, const DissolveRender& d,
               uint32_t state) {
  const uint32_t* multiplier = d.draws.multiplier.data();
  const uint32_t* increment = d.draws.increment.data();
  const int threshold = d.threshold;
  for (int x = 0; x < count; ++x)
    out[x] = CrtDraw(state * multiplier[x] + increment[x]) < threshold ? f[x] : b[x];
}

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
    image_out_ = module::DeclareImageTool(this, ar, table, in_, 2, 1);
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
    if (operation == 3.0) crt_srand(InstanceValue());
    if (operation == 4.0) crt_srand(SeedAt(req->time));
    DissolveRender& d = render_;
    d.kernel = KernelFor(module::TruncToInt(operation));
    if (!d.kernel) return req->SetOutputData(image_out_, NewImage(req, bg));
    d.fg = module::ColourImage(req, fg);
    d.bg = module::ColourImage(req, bg);
    d.width = std::min(fg->Width(), bg->Width());
    d.height = std::min(fg->Height(), bg->Height());
    // Where the foreground covers the background every output byte is written; elsewhere the
    // uncovered part stays cleared.
    d.out = d.width == bg->Width() && d.height == bg->Height() ? NewImageUnset(req, d.bg) : NewImage(req, d.bg);
    d.blend = module::BlendWeightOf(mix);
    d.threshold = module::WrapAdd(module::TruncToInt(mix * 32767.0), 1);
    if (d.kernel == DissolveRow && d.blend.weight >= 0 && d.blend.weight < 32768) d.kernel = DissolveRowNarrow;
    if (d.kernel == RandomRow) PrepareDraws(d);
    d.bands = module::RowBands(d.height);
    DoMultiProcess(req, d.bands);
    return req->SetOutputData(image_out_, d.out);
  }

  void ProcessChunk(Request*, long band) override {
    const DissolveRender& d = render_;
    const module::RowSpan rows = module::BandRows(d.height, d.bands, band);
    uint32_t state = CrtSteps::Of(uint64_t(rows.begin) * uint64_t(d.width)).Apply(d.first_state);
    module::WriteEachRow(*this, *d.out, rows, [&](int y) {
      d.kernel(d.fg->Row(y), d.bg->Row(y), d.out->Row(y), d.width, d, state);
      state = d.row_steps.Apply(state);
    });
  }

 private:
  // Takes the render's draws, one per pixel of the common area, and tables the steps from a
  // row's start to each of its draws.
  static void PrepareDraws(DissolveRender& d) {
    d.first_state = crt_rand_take(uint64_t(d.width) * uint64_t(d.height));
    d.row_steps = CrtSteps::Of(uint64_t(d.width));
    d.draws.Prepare(size_t(d.width));
  }

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
  DissolveRender render_;
};

}  // namespace

Object* NewDissolve(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Dissolve>(reg, ar, tags); }

}  // namespace kestrion::tools

// Channel Booleans: combines chosen foreground channels with the background's by one of
// fifteen operations, then blends the result back over the background. All rows run in
// Process on one thread. Every result depends only on the foreground byte f and the
// background byte p, so each render tables the operation and the blend for all 65536 pairs
// once, and the row kernel is a table look-up per channel.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "module/tile_pictures.h"
#include "tools/color/color_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("Bool");

enum BooleansInput { Operation, Blend, RedFrom, GreenFrom, BlueFrom, AlphaFrom, Background, Foreground, kInputCount };
enum Operations {
  Copy, Add, Subtract, And, Or, ExclusiveOr, Multiply, Divide, Maximum, Minimum, CopyInvert, Solid, Clear, Difference,
  SignedAdd
};
constexpr int kPassThrough = 4;
// The selector inputs in the order the channels are combined, and the pixel byte of each
// channel (the byte a selector's channel is read from and the byte its result is written to).
constexpr BooleansInput kSelectors[4] = {RedFrom, GreenFrom, BlueFrom, AlphaFrom};
constexpr int kChannelByte[4] = {2, 1, 0, 3};

ResBitmap g_tile;

// The operation on one foreground byte f and background byte p; other operation values leave
// the background byte.
int Combine(int operation, int f, int p) {
  switch (operation) {
    case Copy: return f;
    case Add: return std::min(255, f + p);
    case Subtract: return p - f < 1 ? 0 : p - f;
    case And: return f & p;
    case Or: return f | p;
    case ExclusiveOr: return f ^ p;
    case Multiply: return (f * p) >> 8;
    case Divide: return f == 0 ? 0 : std::min(255, (p << 8) / f);
    case Maximum: return f > p ? f : p;
    case Minimum: return f < p ? f : p;
    case CopyInvert: return 255 - f;
    case Solid: return 255;
    case Clear: return 0;
    case Difference: return std::abs(p - f);
    case SignedAdd: return std::clamp(p + 2 * f - 256, 0, 255);
    default: return p;
  }
}

// The tables of one render: combined[f << 8 | p] for channels fed from the foreground, and
// passed[p] for channels passed through; both with the blend applied.
struct BooleansTables {
  std::array<uint8_t, 65536> combined;
  std::array<uint8_t, 256> passed;
  int source_byte[4];  // foreground byte feeding each output channel, or -1 to pass it through

  void Build(int operation, int blend) {
    const int inverse = 255 - blend;
    // The blend divides by 256, so below 1 it darkens by up to a step even where the result is
    // the background; saved flows render so.
    const auto blended = [&](int p, int r) { return uint8_t(blend < 255 ? (p * inverse + r * blend) >> 8 : r); };
    for (int f = 0; f < 256; ++f)
      for (int p = 0; p < 256; ++p) combined[size_t(f << 8 | p)] = blended(p, Combine(operation, f, p));
    for (int p = 0; p < 256; ++p) passed[size_t(p)] = blended(p, p);
  }
};

void CombineRow(const uint8_t* f, const uint8_t* b, uint8_t* out, int count, const BooleansTables& t) {
  for (int x = 0; x < count; ++x, f += 4, b += 4, out += 4)
    for (int c = 0; c < 4; ++c) {
      const int byte = kChannelByte[c], from = t.source_byte[c];
      out[byte] = from < 0 ? t.passed[b[byte]] : t.combined[size_t(f[from] << 8 | b[byte])];
    }
}

class ChannelBooleans final : public ThreadedOperator {
 public:
  ChannelBooleans(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    const auto selector = [](double default_value) {
      return TagList{Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Red"),   Tag(in::ListEntry, "Green"),
                     Tag(in::ListEntry, "Blue"),          Tag(in::ListEntry, "Alpha"), Tag(in::ListEntry, "Pass Through"),
                     Tag(in::Default, default_value)};
    };
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Operation",  vtype::Number, FourCC("Type"),  {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Copy"), Tag(in::ListEntry, "Add"),
                                                      Tag(in::ListEntry, "Subtract"), Tag(in::ListEntry, "And"), Tag(in::ListEntry, "Or"),
                                                      Tag(in::ListEntry, "Exclusive Or"), Tag(in::ListEntry, "Multiply"),
                                                      Tag(in::ListEntry, "Divide"), Tag(in::ListEntry, "Maximum"), Tag(in::ListEntry, "Minimum"),
                                                      Tag(in::ListEntry, "Copy & Invert"), Tag(in::ListEntry, "Solid"), Tag(in::ListEntry, "Clear"),
                                                      Tag(in::ListEntry, "Difference"), Tag(in::ListEntry, "Signed Add"), Tag(in::Default, 0.0)}},
      {"Blend",      vtype::Number, 0x646E6CC2,      {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 1.0),
                                                      Tag(in::Default, 1.0), Tag(in::Presentation05, 1)}},
      {"Red",        vtype::Number, FourCC("RdMd"),  selector(0.0)},
      {"Green",      vtype::Number, FourCC("GnMd"),  selector(1.0)},
      {"Blue",       vtype::Number, FourCC("BlMd"),  selector(2.0)},
      {"Alpha",      vtype::Number, FourCC("AlMd"),  selector(3.0)},
      {"Image",      vtype::Image,  ImageInputId(1), {Tag(in::Presentation05, -1)}},
      {"Foreground", vtype::Image,  ImageInputId(2), {Tag(in::Required, 0), Tag(in::Presentation05, -1)}},
    };
    // clang-format on
    module::DeclareInputs(this, table, in_);
    image_out_ = AddOutput("Image", vtype::Image, ImageOutputId(1));
    SetThreadSettings(2, 1);
    module::LoadTilePicture(g_tile, module::TilePictureName::ChannelBooleans);
    SetTilePicture(&g_tile);
    if (ar) module::SkipRecordEnd(ar);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  // A zero blend, or every channel passed through, leaves the foreground unused: its upstream
  // tools are not rendered.
  void CheckRequest(Request* req) override {
    bool all_passed = true;
    for (BooleansInput s : kSelectors) {
      auto* n = dynamic_cast<Number*>(req->GetInputData(in_[s]));
      if (!n) return;
      all_passed = all_passed && n->value == kPassThrough;
    }
    auto* blend = dynamic_cast<Number*>(req->GetInputData(in_[Blend]));
    if (!blend) return;
    if (blend->value == 0.0 || all_passed) req->SetInputData(in_[Foreground], nullptr, 0);
    ThreadedOperator::CheckRequest(req);
  }

  uint32_t Process(Request* req) override {
    const int operation = module::TruncToInt(module::NumberInput(req, in_[Operation]));
    const int blend = module::TruncToInt(module::NumberInput(req, in_[Blend]) * 255.0);
    auto* bg = dynamic_cast<Image*>(req->GetInputData(in_[Background]));
    auto* fg = dynamic_cast<Image*>(req->GetInputData(in_[Foreground]));
    if (!bg) return req->SetOutputData(image_out_, nullptr);
    if (!fg) fg = bg;  // the background combined with itself
    Image* out = NewImage(req, bg);

    if (!tables_) tables_ = std::make_unique<BooleansTables>();
    BooleansTables& t = *tables_;
    for (int c = 0; c < 4; ++c) {
      // A selector names a channel (read from that channel's byte) or passes the background on.
      const int selector = module::TruncToInt(module::NumberInput(req, in_[kSelectors[c]]));
      t.source_byte[c] = selector >= 0 && selector < 4 ? kChannelByte[selector] : -1;
    }
    t.Build(operation, blend);

    const int width = std::min(fg->Width(), bg->Width()), height = std::min(fg->Height(), bg->Height());
    module::ForEachRow(*this, {0, height}, [&](int y) {
      CombineRow(reinterpret_cast<const uint8_t*>(fg->Row(y)), reinterpret_cast<const uint8_t*>(bg->Row(y)),
                 reinterpret_cast<uint8_t*>(out->Row(y)), width, t);
    });
    return req->SetOutputData(image_out_, out);
  }

 private:
  Input* in_[kInputCount];
  Output* image_out_;
  // Kept between renders so a render allocates nothing; rebuilt by every Process.
  std::unique_ptr<BooleansTables> tables_;
};

}  // namespace

Object* NewChannelBooleans(Registry* reg, CArchive* ar, TagList* tags) {
  return module::Factory<ChannelBooleans>(reg, ar, tags);
}

}  // namespace kestrion::tools

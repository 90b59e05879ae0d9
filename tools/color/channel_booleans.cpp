// Channel Booleans: combines chosen foreground channels with the background's by one of
// fifteen operations, then blends the result back over the background. Process works out the
// render's constants and picks a row kernel made for the operation and for whether a blend
// applies; the rows run in bands on the worker threads.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <utility>

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
  SignedAdd, Keep, kOperationCount  // every other operation value keeps the background byte
};
constexpr int kPassThrough = 4;
// The selector inputs in the order the channels are combined, and the pixel byte of each
// channel (the byte a selector's channel is read from and the byte its result is written to).
constexpr BooleansInput kSelectors[4] = {RedFrom, GreenFrom, BlueFrom, AlphaFrom};
constexpr int kChannelByte[4] = {2, 1, 0, 3};

ResBitmap g_tile;

// The operation on one foreground byte f and background byte p. Written without branches on
// the bytes, so that the row loops vectorise.
inline int32_t Combine(int operation, int32_t f, int32_t p) {
  switch (operation) {
    case Copy: return f;
    case Add: return std::min(255, f + p);
    case Subtract: return std::max(p - f, 0);
    case And: return f & p;
    case Or: return f | p;
    case ExclusiveOr: return f ^ p;
    case Multiply: return (f * p) >> 8;
    // trunc((p << 8) / f) in single precision: the quotient is below 65281 and any fraction of
    // it at least 1 / f, far more than half a unit in its last place, so truncation is exact.
    // The division runs for f = 0 too (by 1) and a mask clears it, so the loop has no branch.
    case Divide: {
      const int32_t q = int32_t(float(p << 8) / float(f + (f == 0)));
      return std::min(q, 255) & -int32_t(f != 0);
    }
    case Maximum: return std::max(f, p);
    case Minimum: return std::min(f, p);
    case CopyInvert: return 255 - f;
    case Solid: return 255;
    case Clear: return 0;
    case Difference: return std::abs(p - f);
    case SignedAdd: return std::clamp(p + 2 * f - 256, 0, 255);
    default: return p;
  }
}

// Rows are worked in pieces of this many pixels, the chosen foreground bytes held on the stack.
constexpr int kPiece = 256;

// Add on bytes, min(255, f + p): the byte sum wraps exactly where it comes out below f. Written
// so, the loop stays in bytes, 32 to a vector.
inline uint8_t SaturatedSum(uint8_t f, uint8_t p) {
  const uint8_t sum = uint8_t(f + p);
  return sum < f ? 255 : sum;
}

// Everything the row kernel needs, worked out once per render in Process.
struct BooleansRender;
using RowKernel = void (*)(const uint32_t* f, const uint32_t* b, uint32_t* out, int count, const BooleansRender& t);

struct BooleansRender {
  const Image* fg = nullptr;
  const Image* bg = nullptr;
  Image* out = nullptr;
  int width = 0, height = 0;
  long bands = 1;
  RowKernel kernel = nullptr;
  // For each pixel byte: the shift that brings the foreground byte feeding it to the bottom of
  // the foreground word, and -1 where the byte passes the background through (0 elsewhere).
  int shift[4] = {};
  int32_t passed[4] = {};
  bool chosen_in_place = true;  // every byte is fed by the foreground byte in its own place
  uint32_t kept = 0;            // 255 in each byte that passes the background through
  int32_t blend = 255, inverse = 0;  // b and 255 - b, b = trunc(blend * 255)
};

// The foreground words with each byte replaced by the foreground byte that feeds it.
void ChooseBytes(const uint32_t* f, uint32_t* __restrict chosen, int count, const BooleansRender& t) {
  const int s0 = t.shift[0], s1 = t.shift[1], s2 = t.shift[2], s3 = t.shift[3];
  for (int x = 0; x < count; ++x)
    chosen[x] = (f[x] >> s0 & 255) | (f[x] >> s1 & 255) << 8 | (f[x] >> s2 & 255) << 16 | (f[x] >> s3) << 24;
}

// The bytes that pass the background through, put back into a piece: p itself, or blended with
// itself, (p (255 - b) + p b) >> 8 = (255 p) >> 8, two bytes to a 32-bit product.
template <bool Blended>
void KeepPassed(const uint32_t* b, uint32_t* __restrict out, int count, uint32_t kept) {
  constexpr uint32_t kHalves = 0x00FF00FF;
  for (int x = 0; x < count; ++x) {
    const uint32_t p = b[x];
    const uint32_t value = Blended ? ((p & kHalves) * 255 >> 8 & kHalves) | ((p >> 8 & kHalves) * 255 & ~kHalves) : p;
    out[x] = (out[x] & ~kept) | (value & kept);
  }
}

// Runs piece(f, b, out, n) over the row in pieces, f holding the chosen foreground bytes, then
// puts back the bytes that pass the background through.
template <bool Blended, class Piece>
void ForEachPiece(const uint32_t* f, const uint32_t* b, uint32_t* out, int count, const BooleansRender& t,
                  Piece piece) {
  uint32_t chosen[kPiece];
  for (int start = 0; start < count; start += kPiece) {
    const int n = std::min(kPiece, count - start);
    const uint32_t* from = f + start;
    if (!t.chosen_in_place) {
      ChooseBytes(from, chosen, n, t);
      from = chosen;
    }
    piece(from, b + start, out + start, n);
    if (t.kept != 0) KeepPassed<Blended>(b + start, out + start, n, t.kept);
  }
}

// A row: every byte is Combine(Op, f, p), or p where the channel passes through, then, for
// blends b below 255, blended over p as (p (255 - b) + r b) >> 8. The blend divides by 256, so
// below 1 it darkens by up to a step even where the result is the background; saved flows
// render so. There are three kernels. Without a blend the bytes are worked one by one, 32 to
// a vector.
template <int Op>
void PlainRow(const uint32_t* f, const uint32_t* b, uint32_t* out, int count, const BooleansRender& t) {
  ForEachPiece<false>(f, b, out, count, t, [](const uint32_t* from, const uint32_t* behind, uint32_t* to, int n) {
    const auto* fb = reinterpret_cast<const uint8_t*>(from);
    const auto* pb = reinterpret_cast<const uint8_t*>(behind);
    auto* ob = reinterpret_cast<uint8_t*>(to);
    for (int i = 0; i < 4 * n; ++i) ob[i] = Op == Add ? SaturatedSum(fb[i], pb[i]) : uint8_t(Combine(Op, fb[i], pb[i]));
  });
}

// 16-bit lanes that may be read from pixel words.
using Lanes16 = uint16_t __attribute__((may_alias));

// For 0 <= b < 255 every product and sum of the blend stays below 65536, so the bytes are worked
// in 16-bit lanes of two bytes each, the low byte in place and the high byte shifted down:
// sixteen lanes to a vector, and no byte unpacked or packed again.
template <int Op>
void BlendedRow(const uint32_t* f, const uint32_t* b, uint32_t* out, int count, const BooleansRender& t) {
  const uint16_t blend = uint16_t(t.blend), inverse = uint16_t(t.inverse);
  ForEachPiece<true>(f, b, out, count, t, [=](const uint32_t* from, const uint32_t* behind, uint32_t* to, int n) {
    const auto* f16 = reinterpret_cast<const Lanes16*>(from);
    const auto* p16 = reinterpret_cast<const Lanes16*>(behind);
    auto* o16 = reinterpret_cast<Lanes16*>(to);
    const auto result = [=](uint16_t fc, uint16_t pc) {
      return uint16_t(uint16_t(pc * inverse) + uint16_t(Combine(Op, fc, pc) * blend));  // the new byte in bits 8 to 15
    };
    for (int i = 0; i < 2 * n; ++i) {
      const uint16_t fw = f16[i], pw = p16[i];
      o16[i] = uint16_t(result(fw & 255, pw & 255) >> 8 | (result(fw >> 8, pw >> 8) & 0xFF00));
    }
  });
}

// Divide, and blends below 0, pixel word by pixel word in 32-bit lanes: Divide's quotient is
// taken in single precision, eight to a vector, and the products of blends below 0 wrap in
// 32 bits as saved flows expect.
template <int Op, bool Blended>
void WordRow(const uint32_t* f, const uint32_t* b, uint32_t* out, int count, const BooleansRender& t) {
  const int s0 = t.shift[0], s1 = t.shift[1], s2 = t.shift[2], s3 = t.shift[3];
  const int32_t blend = t.blend, inverse = t.inverse;
  const auto channel = [&](uint32_t fw, uint32_t pw, int shift, int byte, int32_t passed) {
    const int32_t fc = int32_t(fw >> shift & 255), pc = int32_t(pw >> (8 * byte) & 255);
    int32_t r = (Combine(Op, fc, pc) & ~passed) | (pc & passed);
    if (Blended) r = module::WrapAdd(module::WrapMul(pc, inverse), module::WrapMul(r, blend)) >> 8;
    return uint32_t(r & 255) << (8 * byte);
  };
  const int32_t p0 = t.passed[0], p1 = t.passed[1], p2 = t.passed[2], p3 = t.passed[3];
  for (int x = 0; x < count; ++x)
    out[x] = channel(f[x], b[x], s0, 0, p0) | channel(f[x], b[x], s1, 1, p1) | channel(f[x], b[x], s2, 2, p2) |
             channel(f[x], b[x], s3, 3, p3);
}

template <int Op>
constexpr RowKernel PlainKernel() {
  return Op == Divide ? &WordRow<Op, false> : &PlainRow<Op>;
}
template <int Op>
constexpr RowKernel BlendedKernel() {
  return Op == Divide ? &WordRow<Op, true> : &BlendedRow<Op>;
}
template <size_t... Op>
constexpr std::array<std::array<RowKernel, kOperationCount>, 3> KernelTables(std::index_sequence<Op...>) {
  return {{{PlainKernel<int(Op)>()...}, {BlendedKernel<int(Op)>()...}, {&WordRow<int(Op), true>...}}};
}
// By blend: 255 and above, 0 to 254, below 0.
constexpr auto kKernels = KernelTables(std::make_index_sequence<kOperationCount>());
constexpr auto& kPlainKernels = kKernels[0];
constexpr auto& kBlendedKernels = kKernels[1];
constexpr auto& kWrappingKernels = kKernels[2];

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
    image_out_ = module::DeclareImageTool(this, ar, table, in_, 2, 1);
    module::LoadTilePicture(g_tile, module::TilePictureName::ChannelBooleans);
    SetTilePicture(&g_tile);
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
    BooleansRender& t = render_;
    t.fg = module::ColourImage(req, fg);
    t.bg = module::ColourImage(req, bg);
    t.width = std::min(fg->Width(), bg->Width());
    t.height = std::min(fg->Height(), bg->Height());
    // Where the foreground covers the background every output byte is written; elsewhere the
    // uncovered part stays cleared.
    t.out = t.width == bg->Width() && t.height == bg->Height() ? NewImageUnset(req, t.bg) : NewImage(req, t.bg);
    t.chosen_in_place = true;
    for (int c = 0; c < 4; ++c) {
      // A selector names a channel (read from that channel's byte) or passes the background on.
      const int selector = module::TruncToInt(module::NumberInput(req, in_[kSelectors[c]]));
      const bool passed = selector < 0 || selector >= 4;
      const int byte = kChannelByte[c];
      t.shift[byte] = passed ? 8 * byte : 8 * kChannelByte[selector];
      t.passed[byte] = passed ? -1 : 0;
      t.chosen_in_place = t.chosen_in_place && t.shift[byte] == 8 * byte;
    }
    t.kept = uint32_t(t.passed[0] & 0xFF) | uint32_t(t.passed[1] & 0xFF00) | uint32_t(t.passed[2] & 0xFF0000) |
             uint32_t(t.passed[3] & 0xFF000000);
    t.blend = blend;
    t.inverse = int32_t(255u - uint32_t(blend));
    const size_t known = size_t(operation >= 0 && operation < Keep ? operation : Keep);
    t.kernel = blend >= 255 ? kPlainKernels[known] : blend >= 0 ? kBlendedKernels[known] : kWrappingKernels[known];
    t.bands = module::RowBands(bg->Height());
    DoMultiProcess(req, t.bands);
    return req->SetOutputData(image_out_, t.out);
  }

  void ProcessChunk(Request*, long band) override {
    const BooleansRender& t = render_;
    module::WriteEachRow(*this, *t.out, module::BandRows(t.bg->Height(), t.bands, band), [&](int y) {
      if (y < t.height) t.kernel(t.fg->Row(y), t.bg->Row(y), t.out->Row(y), t.width, t);
    });
  }

 private:
  Input* in_[kInputCount];
  Output* image_out_;
  BooleansRender render_;
};

}  // namespace

Object* NewChannelBooleans(Registry* reg, CArchive* ar, TagList* tags) {
  return module::Factory<ChannelBooleans>(reg, ar, tags);
}

}  // namespace kestrion::tools

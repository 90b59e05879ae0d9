// Custom Filter: convolves an image with a matrix of up to 7 x 7 signed whole weights edited in
// the host's filter-matrix control, normalises the sum, adds a floor level and mixes the result
// over the source on the channels switched on. The kernel reads the source as if padded by
// three pixels all round, in the tool's own way (see PaddedRow); the bands of rows run on the
// worker threads, each keeping the padded rows it reads as a ring.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "host/graph/filter_matrix.h"
#include "host/graph/threads.h"
#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/filter/filter_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("UFLT");
constexpr int kPad = 3;  // pixels of padding on each side

enum CustomInput { Red, Green, Blue, Alpha, Matrix, Normalize, FloorLevel, Blend, Source, kInputCount };

// The inputs in panel order.
const module::InputDecl (&InputTable())[kInputCount] {
  // clang-format off
  static const module::InputDecl table[kInputCount] = {
    filter::ChannelSwitch("Red", filter::kRedId),
    filter::ChannelSwitch("Green", filter::kGreenId),
    filter::ChannelSwitch("Blue", filter::kBlueId),
    filter::ChannelSwitch("Alpha", filter::kAlphaId),
    {"Matrix",      vtype::LookUpTable, FourCC("Matr"),  {Tag(in::Control, control::FilterMatrix)}},
    {"Normalize",   vtype::Number,      FourCC("Norm"),  {Tag(in::Control, control::Slider), Tag(in::Lowest, -1.0), Tag(in::Highest, 1.0),
                                                          Tag(in::Default, 0.0)}},
    {"Floor level", vtype::Number,      FourCC("Flor"),  {Tag(in::Control, control::Slider), Tag(in::Lowest, -1.0), Tag(in::Highest, 1.0),
                                                          Tag(in::Default, 0.0)}},
    {"Blend",       vtype::Number,      filter::kBlendId, {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::Highest, 1.0),
                                                          Tag(in::Default, 1.0)}},
    {"Image",       vtype::Image,       ImageInputId(1), {}},
  };
  // clang-format on
  return table;
}

// The kernel's weights that are not 0, each with where it reads: the padded row offset from the
// output row and the lane offset from the output pixel's first lane in the padded row.
struct Tap {
  float weight;
  int row;
  int lane;
};

// Everything the bands need, worked out once per render in Process.
struct CustomRender {
  const Image* src = nullptr;
  Image* out = nullptr;
  int width = 0, height = 0;
  long bands = 1;
  int radius = 1;
  std::vector<Tap> taps;
  uint32_t kept = 0;  // the source bytes kept: channels switched off
  int32_t blend = 256, floor = 0;  // Bl = trunc(Blend x 256), F = trunc(Floor level x 256)
  // v = (S x 256) / N, truncated toward zero, from a product with 1 / N (see Normalised), in
  // single precision where the sums allow.
  double per_n = 1.0, half_step = 0.5;
  bool single = false;
  bool plain = false;  // blend 1, with no product that wraps: the mix is v + F itself
};

// A band's padded rows: ring[p % size] holds padded row p, 4 (width + 7) values.
struct BandRows {
  std::vector<float> ring;
};

// (S x 256) / N truncated toward zero. S x 256 is below 2^29 in size and N is a whole number,
// so the quotient is a fraction of denominator |N|, at least 1 / |N| from a whole number when
// not whole, and the product with 1 / N in double precision lies within 2^-22 / |N| of it: half
// a step of 1 / |N| added away from zero truncates exactly. Where |S| stays below 8192 (the
// weights' sizes add up to at most 32), the quotient is below 2^21 / |N| and single precision
// is off by less than 0.4 / |N|, so it truncates exactly too, twice the lanes at a time.
template <bool kSingle>
inline int32_t Normalised(float sum, const CustomRender& t) {
  if constexpr (kSingle) {
    const float z = sum * float(256.0 * t.per_n);
    return int32_t(z + std::copysign(float(t.half_step), z));
  } else {
    const double z = double(sum) * 256.0 * t.per_n;
    return int32_t(z + std::copysign(t.half_step, z));
  }
}

// Row p of the source padded by 3: source row p - 3 at columns 3 .. W + 2. Above, rows 0 to 2
// repeat source row 2, and to the left columns 0 to 2 repeat source column 1 (not row and
// column 0: a bright second row or column bleeds into the first, and saved flows render so);
// below and to the right the last row and column repeat; the four corner blocks are clear.
// Images of fewer than 3 rows or 2 columns repeat their last instead. As floats, for the sums.
void PaddedRow(const Image& src, int p, float* out) {
  const int w = src.Width(), h = src.Height();
  const bool inside = p >= kPad && p < h + kPad;
  const int from = inside ? p - kPad : p < kPad ? std::min(2, h - 1) : h - 1;
  const auto* row = reinterpret_cast<const uint8_t*>(src.Row(from));
  const auto* second = row + 4 * std::min(1, w - 1);
  const auto* last = row + 4 * (w - 1);
  for (int i = 0; i < 4 * kPad; ++i) out[i] = inside ? float(second[i % 4]) : 0.0f;
  for (int i = 0; i < 4 * w; ++i) out[4 * kPad + i] = float(row[i]);
  for (int i = 0; i < 4 * (kPad + 1); ++i) out[4 * (kPad + w) + i] = inside ? float(last[i % 4]) : 0.0f;
}

// The lanes (x 4 + channel) a row is worked in at a time, so that the sums stay in the first
// level of cache.
constexpr int kChunk = 256;

// sums += w x p over `count` lanes. The products and sums are whole numbers below 2^24 (49
// weights of at most 128 times 255), so single precision holds them exactly. Kept out of line,
// so that the loop over the taps stays apart from it and it vectorises.
[[gnu::noinline]] void AddTap(float* __restrict sums, const float* p, float w, int count) {
  for (int i = 0; i < count; ++i) sums[i] += w * p[i];
}

// Lanes `begin` .. `end` - 1 of output row y; `rows` gives padded row p.
template <bool kSingle, bool kBlended, class RowAt>
void FilterLanes(const CustomRender& t, RowAt rows, int y, int begin, int end) {
  float sums[kChunk] = {};
  const int count = end - begin;
  for (const Tap& tap : t.taps) AddTap(sums, rows(y + tap.row) + tap.lane + begin, tap.weight, count);
  const auto* s = reinterpret_cast<const uint8_t*>(t.src->Row(y)) + begin;
  auto* o = reinterpret_cast<uint8_t*>(t.out->Row(y)) + begin;
  const int32_t bl = t.blend, rest = 256 - bl, floor = t.floor;
  for (int i = 0; i < count; ++i) {
    // (s (256 - Bl) + Bl (v + F)) >> 8 in 32-bit arithmetic that wraps, held to a byte.
    const int32_t v = module::WrapAdd(Normalised<kSingle>(sums[i], t), floor);
    const int32_t mixed = kBlended ? module::WrapAdd(s[i] * rest, module::WrapMul(bl, v)) >> 8 : v;
    o[i] = uint8_t(std::clamp(mixed, 0, 255));
  }
}

class CustomFilter final : public filter::FilterTool<kClassId, kInputCount> {
 public:
  CustomFilter(Registry* reg, CArchive* ar, TagList* tags) : FilterTool(reg, ar, tags, InputTable()) {
    // A tool read from a record has its matrix from there.
    if (!(op_flags & opflag::Restored)) in_[Matrix]->SetValue(new LookUpTable(filter_matrix::Default()));
  }

  uint32_t Process(Request* req) override {
    const Image* src = filter::FilterSource(req, in_[Source]);
    if (!src) return req->SetOutputData(image_out_, nullptr);
    CustomRender& t = render_;
    t.src = src;
    t.width = src->Width();
    t.height = src->Height();
    t.out = NewImage(req, src);
    int32_t switches[4];
    for (int c = 0; c < 4; ++c) switches[c] = module::TruncToInt(module::NumberInput(req, in_[Red + c]));
    t.kept = ~filter::SwitchedBytes(switches, [](int32_t s) { return s != 0; });
    t.blend = module::TruncToInt(module::NumberInput(req, in_[Blend]) * 256.0);
    t.floor = module::TruncToInt(module::NumberInput(req, in_[FloorLevel]) * 256.0);
    const int32_t nz = module::TruncToInt(module::NumberInput(req, in_[Normalize]) * 255.0);
    PrepareTaps(t, MatrixTable(req), nz);
    if (t.width == 0 || t.height == 0) return req->SetOutputData(image_out_, t.out);
    t.bands = std::clamp(4 * long(WorkerThreads()), 1L, long(t.height));
    rows_.resize(size_t(t.bands));
    DoMultiProcess(req, t.bands);
    return req->SetOutputData(image_out_, t.out);
  }

  void ProcessChunk(Request*, long band) override {
    const CustomRender& t = render_;
    const module::RowSpan span = module::BandRows(t.height, t.bands, band);
    const size_t line = 4 * size_t(t.width + 2 * kPad + 1), size = size_t(2 * t.radius + 1);
    std::vector<float>& ring = rows_[size_t(band)].ring;
    ring.resize(line * size);
    const auto rows = [&](int p) { return &ring[line * (size_t(p) % size)]; };
    // Padded rows y + 3 - r .. y + 3 + r serve output row y; moving down adds one.
    const int r = t.radius;
    for (int p = span.begin + kPad - r; p < span.begin + kPad + r; ++p) PaddedRow(*t.src, p, rows(p));
    const int lanes = 4 * t.width;
    const uint32_t kept = t.kept;
    module::ForEachRow(*this, span, [&](int y) {
      PaddedRow(*t.src, y + kPad + r, rows(y + kPad + r));
      for (int begin = 0; begin < lanes; begin += kChunk) {
        const int end = std::min(begin + kChunk, lanes);
        const auto lanes_of = t.single ? (t.plain ? &FilterLanes<true, false, decltype(rows)>
                                                  : &FilterLanes<true, true, decltype(rows)>)
                                       : (t.plain ? &FilterLanes<false, false, decltype(rows)>
                                                  : &FilterLanes<false, true, decltype(rows)>);
        lanes_of(t, rows, y, begin, end);
      }
      if (kept) {
        const uint32_t* s = t.src->Row(y);
        uint32_t* o = t.out->Row(y);
        for (int x = 0; x < t.width; ++x) o[x] = (o[x] & ~kept) | (s[x] & kept);
      }
    });
  }

 private:
  // The matrix at the request's time; the default where there is none, and its default bytes
  // where a table is short.
  std::vector<uint16_t> MatrixTable(Request* req) {
    std::vector<uint16_t> table = filter_matrix::Default();
    if (auto* given = dynamic_cast<LookUpTable*>(req->GetInputData(in_[Matrix])))
      for (size_t i = 0; i < std::min(given->entries.size(), table.size()); ++i) table[i] = given->entries[i];
    return table;
  }

  // r = size code + 1 (held to 1 .. 3); the centred (2r + 1)^2 block of the grid, applied
  // mirrored left to right (column j of the block reads the pixel r - j columns along) but not
  // top to bottom; N = the block's sum (1 where it is 0) x (256 - Nz), or x 256 where Nz is 0.
  static void PrepareTaps(CustomRender& t, const std::vector<uint16_t>& table, int32_t nz) {
    const int r = std::clamp(int(table[0] & 255) + 1, 1, filter_matrix::kLargestSizeCode + 1);
    t.radius = r;
    const int first = filter_matrix::kSide / 2 - r;
    t.taps.clear();
    int64_t sum = 0, sizes = 0;
    for (int dy = -r; dy <= r; ++dy)
      for (int j = 0; j <= 2 * r; ++j) {
        const int32_t weight = filter_matrix::Weight(table, first + r + dy, first + j);
        sum += weight;
        sizes += std::abs(weight);
        if (weight != 0) t.taps.push_back({float(weight), dy + kPad, 4 * (r - j + kPad)});
      }
    if (sum == 0) sum = 1;
    const int64_t n = sum * (nz != 0 ? 256 - nz : 256);
    t.per_n = 1.0 / double(n);
    t.half_step = 0.5 / double(std::abs(n));
    t.single = 255 * sizes < 8192;
    // Blend 1 makes the mix 256 (v + F) >> 8, which is v + F while that product stays in 32 bits.
    t.plain = t.blend == 256 && 255.0 * 256.0 * double(sizes) / double(std::abs(n)) + 256.0 < 8388608.0;
  }

  CustomRender render_;
  std::vector<BandRows> rows_;
};

}  // namespace

Object* NewCustomFilter(Registry* reg, CArchive* ar, TagList* tags) {
  return module::Factory<CustomFilter>(reg, ar, tags);
}

}  // namespace kestrion::tools

#include "tools/matte/matte.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "host/document/document.h"
#include "host/graph/threads.h"
#include "host/graph/request.h"

namespace kestrion::tools::matte {

bool Positive(float v) { return std::bit_cast<int32_t>(v) > 0; }
bool NonZero(float v) { return (std::bit_cast<uint32_t>(v) & 0x7FFFFFFFu) != 0; }
bool IsOne(float v) { return std::bit_cast<uint32_t>(v) == std::bit_cast<uint32_t>(1.0f); }

AlphaMap IdentityMap() {
  AlphaMap map;
  for (int i = 0; i < 256; ++i) map[size_t(i)] = i;
  return map;
}

AlphaMap ContrastMap(float c) {
  const int32_t k = std::clamp(module::TruncToInt(double(c) * 256.0), -250, 250);
  AlphaMap map;
  if (k >= 0) {
    const int32_t step = 16383 / (255 - k);
    for (int32_t i = 0; i < 256; ++i) map[size_t(i)] = std::min((i * step) >> 6, 255);
  } else {
    const int32_t step = 16400 / (k + 255);
    for (int32_t i = 0; i < 256; ++i) map[size_t(i)] = i < -k ? 0 : std::clamp((k + i) * step / 64, 0, 255);
  }
  return map;
}

AlphaMap GammaMap(float g) {
  const float e = 1.0f / g;
  AlphaMap map{};
  float y = 0.0f;
  for (float i = 0.0f; i < 256.0f; i += 1.0f) {
    map[size_t(i)] = module::TruncToInt(255.0 * std::pow(double(y), double(e))) & 255;
    y += 0.003921568859368563f;
  }
  return map;
}

AlphaMap InvertMap() {
  AlphaMap map;
  for (int i = 0; i < 256; ++i) map[size_t(i)] = 255 - i;
  return map;
}

AlphaMap Then(const AlphaMap& first, const AlphaMap& next) {
  AlphaMap map;
  for (size_t i = 0; i < 256; ++i) map[i] = next[size_t(first[i])];
  return map;
}

void MapRow(const AlphaMap& map, uint8_t* __restrict alpha, int count) {
  for (int x = 0; x < count; ++x) alpha[x] = uint8_t(map[alpha[x]]);
}

void JoinRow(const uint32_t* in, const uint8_t* alpha, uint32_t* __restrict out, int count) {
  for (int x = 0; x < count; ++x) out[x] = (in[x] & 0x00FFFFFFu) | uint32_t(alpha[x]) << 24;
}

void AlphaOfRow(const uint32_t* in, uint8_t* __restrict alpha, int count) {
  for (int x = 0; x < count; ++x) alpha[x] = uint8_t(in[x] >> 24);
}

// --- the range keyers ---

module::InputDecl RangeInput(KeyChannel channel, bool high) {
  static constexpr const char* kLabels[kKeyChannels][2] = {
      {"Red Low", "Red High"}, {"Green Low", "Green High"}, {"Blue Low", "Blue High"},
      {"Luminance Low", "Luminance High"}};
  static constexpr uint32_t kIds[kKeyChannels][2] = {{FourCC("RdLw"), FourCC("RdHi")},
                                                     {FourCC("GnLw"), FourCC("GnHi")},
                                                     {FourCC("BlLw"), FourCC("BlHi")},
                                                     {FourCC("LmLw"), FourCC("LmHi")}};
  // 0 to 1 are the slider's ends, not limits: a pick may widen a range past them.
  return {kLabels[channel][high], vtype::Number, kIds[channel][high],
          {Tag(in::Control, control::Range), Tag(in::SliderLow, 0.0), Tag(in::SliderHigh, 1.0),
           Tag(in::Default, high ? 1.0 : 0.0), Tag(in::GroupNumber, int(channel) + 1), Tag(in::GroupIndex, int(high))}};
}

module::InputDecl ResetInput() {
  return {"Reset", vtype::Number, FourCC("Rst!"),
          {Tag(in::Control, control::Button), Tag(in::Presentation01, 0), Tag(in::Presentation0D, 1)}};
}

RangeKeyer::RangeKeyer(Registry* reg, CArchive* ar, TagList* tags, const char* pick_step, const char* reset_step)
    : ThreadedOperator(reg, ar, tags), pick_step_(pick_step), reset_step_(reset_step) {}

bool RangeKeyer::ControlCommand(OperatorControl*, DrawSurface*, PreviewInfo*, uint32_t command, void* data) {
  if (command != 2 || !data) return false;
  const auto* rect = static_cast<const float*>(data);
  Pick({rect[0], rect[1], rect[2], rect[3]});
  return true;
}

// The button is pressed by setting it to anything but 0; it is put back to 0 at once, so that
// every press is a change and no saved flow holds a press that loading would repeat.
void RangeKeyer::NotifyChanged(Input* in, Parameter* value, double time) {
  const auto* pressed = dynamic_cast<const Number*>(value);
  if (in && in == reset_ && pressed && pressed->value != 0.0) {
    Reset(time);
    reset_->SetValue(new Number(0.0));
  }
  Operator::NotifyChanged(in, value, time);
}

KeyRanges RangeKeyer::RangesOf(Request* req) const {
  KeyRanges r;
  for (int c = 0; c < kKeyChannels; ++c) {
    r.low[c] = module::TruncToInt(module::NumberInput(req, ranges_[2 * c]) * 255.0);
    r.high[c] = module::TruncToInt(module::NumberInput(req, ranges_[2 * c + 1]) * 255.0);
  }
  return r;
}

// The ranges are widened to take in each examined pixel's colour-difference bytes, +-2, in
// row order; the first pixel after a Reset (or ever) replaces them.
void RangeKeyer::Pick(const float (&rect)[4]) {
  CPipelineDoc* doc = Document();
  if (!doc) return;
  const double time = doc->current_time;
  int32_t bound[2 * kKeyChannels];
  for (int i = 0; i < 2 * kKeyChannels; ++i) {
    const Ref<Number> v = ranges_[i]->ValueAs<Number>(time);
    bound[i] = module::TruncToInt((v ? v->value : 0.0) * 255.0);
  }
  Ref<Image> img;
  if (Output* from = image_->Link()) {
    HostError err;
    const Ref<Parameter> value = doc->Render(from, time, 0, &err);
    img = Ref<Image>::Share(dynamic_cast<Image*>(value.get()));
  }
  if (!img) return;
  const int w = img->Width(), h = img->Height();
  const int x0 = std::max(0, module::TruncToInt(float(w) * rect[0]));
  const int y0 = std::max(0, module::TruncToInt(float(h) * rect[1]));
  const int x1 = std::min(w - 1, module::TruncToInt(float(w) * rect[2]));
  const int y1 = std::min(h - 1, module::TruncToInt(float(h) * rect[3]));
  for (int y = y0; y <= y1; ++y)
    for (int x = x0; x <= x1; ++x) {
      const uint32_t p = img->Depth() == 8 ? img->MaskRow(y)[x] * 0x01010101u : img->Row(y)[x];
      const DifferenceBytes d = DifferenceBytesOf(p);
      for (int c = 0; c < kKeyChannels; ++c) {
        int32_t& low = bound[2 * c];
        int32_t& high = bound[2 * c + 1];
        low = pick_extend_ ? std::min(low, d.v[c] - 2) : d.v[c] - 2;
        high = pick_extend_ ? std::max(high, d.v[c] + 2) : d.v[c] + 2;
      }
      pick_extend_ = true;
    }
  img = {};
  StartUndo(pick_step_);
  for (int i = 0; i < 2 * kKeyChannels; ++i) ranges_[i]->SetValue(new Number(bound[i] * 0.00392156862745098), time);
  EndUndo(1);
}

void RangeKeyer::Reset(double time) {
  pick_extend_ = false;
  StartUndo(reset_step_);
  for (int i = 0; i < 2 * kKeyChannels; ++i) ranges_[i]->SetValue(new Number(i % 2 ? 1.0 : 0.0), time);
  EndUndo(1);
}

// --- the matte blur ---

namespace {

constexpr double kLongestRadius = 16777216.0;

inline int32_t AlphaOf(uint8_t v) { return v; }
inline int32_t AlphaOf(uint32_t v) { return int32_t(v >> 24); }

template <class Px>
const Px* RowOf(const Image& img, int64_t y) {
  if constexpr (sizeof(Px) == 1) {
    return img.MaskRow(int(y));
  } else {
    return img.Row(int(y));
  }
}

// col[c] += weight * alpha of row[c].
template <class Sum, class Px>
void AddRow(Sum* col, const Px* row, Sum weight, int count) {
  for (int c = 0; c < count; ++c) col[c] += weight * AlphaOf(row[c]);
}

// col[c] += alpha of enter[c] - alpha of leave[c].
template <class Sum, class Px>
void SlideRow(Sum* __restrict col, const Px* enter, const Px* leave, int count) {
  for (int c = 0; c < count; ++c) col[c] += AlphaOf(enter[c]) - AlphaOf(leave[c]);
}

// The column sums of rows y - m .. y + m, rows outside the image repeating the edge rows.
template <class Sum, class Px>
void BoxColumns(const Image& src, int y, int64_t m, Sum* col) {
  const int w = src.Width(), last = src.Height() - 1;
  std::fill(col, col + w, Sum(0));
  const int64_t above = std::max<int64_t>(0, m - y), below = std::max<int64_t>(0, y + m - last);
  if (above > 0) AddRow<Sum>(col, RowOf<Px>(src, 0), Sum(above), w);
  if (below > 0) AddRow<Sum>(col, RowOf<Px>(src, last), Sum(below), w);
  for (int64_t j = std::max<int64_t>(0, y - m); j <= std::min<int64_t>(last, y + m); ++j)
    AddRow<Sum>(col, RowOf<Px>(src, j), Sum(1), w);
}

// Moves the column sums of a box of half-height m from row y to row y + 1.
template <class Sum, class Px>
void SlideBox(const Image& src, int y, int64_t m, Sum* col) {
  const int64_t last = src.Height() - 1;
  SlideRow(col, RowOf<Px>(src, std::min(last, y + m + 1)), RowOf<Px>(src, std::max<int64_t>(0, y - m)), src.Width());
}

template <class Px>
void ThreeByThree(const Image& src, int y, int32_t w_small, int32_t w_big, int32_t* small, int32_t* big, uint8_t* alpha) {
  const int w = src.Width(), last = src.Height() - 1;
  const Px* above = RowOf<Px>(src, std::max(0, y - 1));
  const Px* middle = RowOf<Px>(src, y);
  const Px* below = RowOf<Px>(src, std::min(last, y + 1));
  for (int c = 0; c < w; ++c) {
    small[c + 1] = AlphaOf(middle[c]);
    big[c + 1] = AlphaOf(above[c]) + AlphaOf(middle[c]) + AlphaOf(below[c]);
  }
  // Column 0 and the column before it take column 1's sums; the column after the last repeats it.
  const int second = std::min(1, w - 1) + 1;
  small[0] = small[1] = small[second];
  big[0] = big[1] = big[second];
  small[w + 1] = small[w];
  big[w + 1] = big[w];
  for (int x = 0; x < w; ++x) {
    const int32_t qb = (big[x] + big[x + 1] + big[x + 2]) * 4 / 9, qs = small[x + 1] * 4;
    alpha[x] = uint8_t(std::min(255, (qb * w_big + qs * w_small) >> 12));
  }
}

// out[j] = base + in[0] + ... + in[j], wrapping at 2^32: four runs summed at once, each then
// carried into by the runs before it.
void RunningSums(const int32_t* in, uint32_t* __restrict out, int count, uint32_t base) {
  const int quarter = count / 4;
  uint32_t total[4] = {};
  for (int j = 0; j < quarter; ++j)
    for (int r = 0; r < 4; ++r) out[r * quarter + j] = total[r] += uint32_t(in[r * quarter + j]);
  for (int j = 4 * quarter; j < count; ++j) out[j] = total[3] += uint32_t(in[j]);
  uint32_t carry = base;
  for (int r = 0; r < 4; ++r) {
    const int end = r == 3 ? count : (r + 1) * quarter;
    for (int j = r * quarter; j < end; ++j) out[j] += carry;
    carry += total[r];
  }
}

// Prefix sums along the padded row of a box's column sums: index i holds column i - m, column 1
// (0 in a one-column image) for every column up to 0, the last column from the last on.
void PaddedPrefix(const int32_t* col, int w, int m, uint32_t* prefix) {
  const uint32_t second = uint32_t(col[std::min(1, w - 1)]), last = uint32_t(col[w - 1]);
  prefix[0] = 0;
  for (int i = 0; i <= m; ++i) prefix[i + 1] = uint32_t(i + 1) * second;
  const int middle = std::max(w - 2, 0);
  RunningSums(col + 1, prefix + m + 2, middle, prefix[m + 1]);
  const uint32_t before = prefix[m + 1 + middle];
  for (int i = m + 1 + middle; i < w + 2 * m; ++i) prefix[i + 1] = before + uint32_t(i - m - middle) * last;
}

// floor(num / den) for 0 <= num < 2^31 and den * 1021 < 2^31: the single-precision estimate is
// within 1 of the quotient (its error is below 2^-12), and the remainder puts it right.
inline int32_t Quotient(int32_t num, int32_t den, float reciprocal) {
  const int32_t q = int32_t(float(num) * reciprocal);
  const int32_t rest = num - q * den;
  return q - int32_t(rest < 0) + int32_t(rest >= den);
}

// floor(4 sum / area) without overflow.
inline int64_t WideQuotient(int64_t sum, int64_t area) { return 4 * (sum / area) + 4 * (sum % area) / area; }

// The box sum over columns x - m .. x + m of the padded row, from prefix sums of the row whose
// column 0 holds column 1's sum.
inline int64_t WideBox(const int64_t* prefix, int64_t first, int64_t last, int x, int64_t m, int w) {
  return std::max<int64_t>(0, m - x) * first + std::max<int64_t>(0, x + m - (w - 1)) * last +
         prefix[std::min<int64_t>(x + m, w - 1) + 1] - prefix[std::max<int64_t>(x - m, 0)];
}

}  // namespace

void AlphaBlur::Prepare(float amount, int width, int height) {
  width_ = width;
  height_ = height;
  bands_ = std::clamp<long>(WorkerThreads(), 1, std::max(height, 1));
  double r = double(float(width) * amount) * 0.003125;
  if (!(r >= 0.0)) r = 0.0;
  r = std::min(r, kLongestRadius);
  n_ = int(r);
  const double t = r - n_;
  w_small_ = int32_t((1.0 - t) * 1024.0);
  w_big_ = int32_t(t * 1024.0);
  small_area_ = (2 * int64_t(n_) + 1) * (2 * int64_t(n_) + 1);
  big_area_ = (2 * int64_t(n_) + 3) * (2 * int64_t(n_) + 3);
  narrow_ = big_area_ * 1021 < (int64_t(1) << 31);
  small_reciprocal_ = 1.0f / float(small_area_);
  big_reciprocal_ = 1.0f / float(big_area_);
  scratch_.resize(size_t(bands_));
  const size_t w = size_t(std::max(width, 0));
  for (Scratch& s : scratch_) {
    if (narrow_) {
      s.small.resize(w + 2);
      s.big.resize(w + 2);
      s.small_prefix.resize(w + 2 * size_t(n_) + 4);
      s.big_prefix.resize(w + 2 * size_t(n_) + 4);
    } else {
      s.small_wide.resize(w);
      s.big_wide.resize(w);
      s.small_wide_prefix.resize(w + 1);
      s.big_wide_prefix.resize(w + 1);
    }
    s.alpha.resize(w);
  }
}

void AlphaBlur::StartColumns(const Image& src, int y, Scratch& s) const {
  const bool mask = src.Depth() == 8;
  if (narrow_ && mask) {
    BoxColumns<int32_t, uint8_t>(src, y, n_, s.small.data());
    BoxColumns<int32_t, uint8_t>(src, y, n_ + 1, s.big.data());
  } else if (narrow_) {
    BoxColumns<int32_t, uint32_t>(src, y, n_, s.small.data());
    BoxColumns<int32_t, uint32_t>(src, y, n_ + 1, s.big.data());
  } else if (mask) {
    BoxColumns<int64_t, uint8_t>(src, y, n_, s.small_wide.data());
    BoxColumns<int64_t, uint8_t>(src, y, n_ + 1, s.big_wide.data());
  } else {
    BoxColumns<int64_t, uint32_t>(src, y, n_, s.small_wide.data());
    BoxColumns<int64_t, uint32_t>(src, y, n_ + 1, s.big_wide.data());
  }
}

void AlphaBlur::SlideColumns(const Image& src, int y, Scratch& s) const {
  const bool mask = src.Depth() == 8;
  if (narrow_ && mask) {
    SlideBox<int32_t, uint8_t>(src, y, n_, s.small.data());
    SlideBox<int32_t, uint8_t>(src, y, n_ + 1, s.big.data());
  } else if (narrow_) {
    SlideBox<int32_t, uint32_t>(src, y, n_, s.small.data());
    SlideBox<int32_t, uint32_t>(src, y, n_ + 1, s.big.data());
  } else if (mask) {
    SlideBox<int64_t, uint8_t>(src, y, n_, s.small_wide.data());
    SlideBox<int64_t, uint8_t>(src, y, n_ + 1, s.big_wide.data());
  } else {
    SlideBox<int64_t, uint32_t>(src, y, n_, s.small_wide.data());
    SlideBox<int64_t, uint32_t>(src, y, n_ + 1, s.big_wide.data());
  }
}

void AlphaBlur::ThreeByThreeRow(const Image& src, int y, Scratch& s) const {
  if (src.Depth() == 8) {
    ThreeByThree<uint8_t>(src, y, w_small_, w_big_, s.small.data(), s.big.data(), s.alpha.data());
  } else {
    ThreeByThree<uint32_t>(src, y, w_small_, w_big_, s.small.data(), s.big.data(), s.alpha.data());
  }
}

void AlphaBlur::BlurRow(Scratch& s) const {
  const int w = width_, n = n_, m = n + 1;
  uint8_t* alpha = s.alpha.data();
  if (!narrow_) {
    const int64_t* cols[2] = {s.small_wide.data(), s.big_wide.data()};
    int64_t* prefixes[2] = {s.small_wide_prefix.data(), s.big_wide_prefix.data()};
    for (int b = 0; b < 2; ++b) {
      prefixes[b][0] = 0;
      for (int c = 0; c < w; ++c) prefixes[b][c + 1] = prefixes[b][c] + cols[b][c == 0 ? std::min(1, w - 1) : c];
    }
    const int64_t small_first = cols[0][std::min(1, w - 1)], big_first = cols[1][std::min(1, w - 1)];
    for (int x = 0; x < w; ++x) {
      const int64_t qs = WideQuotient(WideBox(prefixes[0], small_first, cols[0][w - 1], x, n, w), small_area_);
      const int64_t qb = WideQuotient(WideBox(prefixes[1], big_first, cols[1][w - 1], x, m, w), big_area_);
      alpha[x] = uint8_t(std::min<int64_t>(255, (qb * w_big_ + qs * w_small_) >> 12));
    }
    return;
  }
  // The prefix sums wrap at 2^32; their differences, the box sums, stay below 2^31.
  uint32_t* ps = s.small_prefix.data();
  uint32_t* pb = s.big_prefix.data();
  PaddedPrefix(s.small.data(), w, m, ps);
  PaddedPrefix(s.big.data(), w, m, pb);
  const int32_t small_area = int32_t(small_area_), big_area = int32_t(big_area_);
  const float small_reciprocal = small_reciprocal_, big_reciprocal = big_reciprocal_;
  const int32_t w_small = w_small_, w_big = w_big_;
  for (int x = 0; x < w; ++x) {
    const int32_t qs = Quotient(int32_t(ps[x + 2 * n + 2] - ps[x + 1]) * 4, small_area, small_reciprocal);
    const int32_t qb = Quotient(int32_t(pb[x + 2 * m + 1] - pb[x]) * 4, big_area, big_reciprocal);
    alpha[x] = uint8_t(std::min(255, (qb * w_big + qs * w_small) >> 12));
  }
}

Image* MattePasses::Run(ThreadedOperator& op, Request* req, const Image& src, std::span<const float> blurs) {
  width_ = src.Width();
  height_ = src.Height();
  bands_ = module::RowBands(height_);
  blur_count_ = std::min(blurs.size(), std::size(blurs_));
  out_ = NewImage(req, &src);
  pass_ = 0;
  for (size_t k = 0; k < blur_count_; ++k) masks_[k] = nullptr;
  if (blur_count_ > 0) masks_[0] = NewImage(req, width_, height_, 8, &src);
  op.DoMultiProcess(req, bands_);
  for (size_t k = 0; k < blur_count_; ++k) {
    blurs_[k].Prepare(blurs[k], width_, height_);
    if (k + 1 < blur_count_) masks_[k + 1] = NewImage(req, width_, height_, 8, &src);
    pass_ = int(k) + 1;
    op.DoMultiProcess(req, blurs_[k].Bands());
    req->Release(masks_[k]);
    masks_[k] = nullptr;
  }
  return out_;
}

}  // namespace kestrion::tools::matte

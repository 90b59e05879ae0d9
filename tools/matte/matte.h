// What the keyers and Matte Control share: the tests their stages make on single-precision
// amounts, byte maps on the matte (contrast, gamma, inversion), the range test on the
// colour-difference form of a pixel, the fractional-radius box blur of a matte in row bands, and
// the range keyers' Pick and Reset. A matte travels between the stages as rows of alpha bytes
// (a mask image, or a piece of a row on the stack); the last stage joins it to the input's colour.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "host/image/image.h"
#include "host/graph/operator.h"
#include "module/image_model.h"
#include "module/operator_contract.h"

namespace kestrion::tools {

Object* NewKeyer(Registry* reg, CArchive* ar, TagList* tags);
Object* NewChromaKeyer(Registry* reg, CArchive* ar, TagList* tags);
Object* NewLumaKeyer(Registry* reg, CArchive* ar, TagList* tags);
Object* NewMatteControl(Registry* reg, CArchive* ar, TagList* tags);

namespace matte {

// Row loops that build a matte on the stack do it in pieces of this many pixels.
constexpr int kPiece = 512;

// The stages' switches, tested on the bits of a single-precision amount.
// Above zero as a signed integer: -0 and negatives are not, a NaN with its sign clear is.
bool Positive(float v);
// Neither +0 nor -0.
bool NonZero(float v);
// Exactly 1.0.
bool IsOne(float v);

// A byte map applied to every alpha byte: map[a] is the new alpha, 0 .. 255 (held in 32 bits,
// which row loops can gather from).
using AlphaMap = std::array<int32_t, 256>;
AlphaMap IdentityMap();
// Alpha contrast c: k = trunc(c * 256) held to -250..250. k >= 0: step = 16383 / (255 - k),
// map[i] = (i * step) >> 6 held to 255. k < 0: step = 16400 / (k + 255), map[i] = 0 below -k,
// else ((k + i) * step) / 64 held to 0..255. (The two constants differ; saved flows rely on it.)
AlphaMap ContrastMap(float c);
// Gamma g: e = 1 / g in single precision; a float y steps from 0 by 1/255 (as a float), and
// map[i] = trunc(255 * y^e) in double precision, kept to its low byte.
AlphaMap GammaMap(float g);
// 255 - a.
AlphaMap InvertMap();
// `first`, then `next`, as one map.
AlphaMap Then(const AlphaMap& first, const AlphaMap& next);
void MapRow(const AlphaMap& map, uint8_t* alpha, int count);
// The output row: each input pixel's colour with the matte's alpha.
void JoinRow(const uint32_t* in, const uint8_t* alpha, uint32_t* out, int count);
// The alpha bytes of a row of 32-bit pixels.
void AlphaOfRow(const uint32_t* in, uint8_t* alpha, int count);

// --- the range keyers ---

// The channels of the colour-difference form, in the order of the range inputs.
enum KeyChannel { KeyRed, KeyGreen, KeyBlue, KeyLuminance, kKeyChannels };

// The eight range ends as integers, trunc(value * 255) (truncation toward zero).
struct KeyRanges {
  int32_t low[kKeyChannels] = {};
  int32_t high[kKeyChannels] = {};
};

// A pixel's colour-difference bytes, as Image::ColourDifference leaves them: 128 plus the red,
// green and blue differences, and the luminance.
struct DifferenceBytes {
  int32_t v[kKeyChannels];
};
inline DifferenceBytes DifferenceBytesOf(uint32_t p) {
  const ColourDifferences cd = ColourDifferencesOf(int(p >> 16 & 255), int(p >> 8 & 255), int(p & 255));
  return {{128 + cd.red, 128 + cd.green, 128 + cd.blue, cd.luminance}};
}
// Every byte within its range, both ends included.
inline bool InRanges(const KeyRanges& r, const DifferenceBytes& d) {
  bool inside = true;
  for (int c = 0; c < kKeyChannels; ++c) inside &= (d.v[c] >= r.low[c]) & (d.v[c] <= r.high[c]);
  return inside;
}

// One of the eight range inputs, in panel order: channel and which end.
module::InputDecl RangeInput(KeyChannel channel, bool high);
// The "Reset" button.
module::InputDecl ResetInput();

// A keyer whose first eight inputs are the ranges (Red Low, Red High, ... Luminance High). It
// answers the picking control's command 2 (Pick) and a press of its "Reset" button (Reset),
// each in an undo step of the given name.
class RangeKeyer : public ThreadedOperator {
 public:
  RangeKeyer(Registry* reg, CArchive* ar, TagList* tags, const char* pick_step, const char* reset_step);

  // Command 2 takes four floats: left, top, right and bottom of a rectangle of the image, each a
  // fraction of its width or height. Other commands are not this tool's.
  bool ControlCommand(OperatorControl* ctl, DrawSurface* dc, PreviewInfo* info, uint32_t command, void* data) override;
  void NotifyChanged(Input* in, Parameter* value, double time) override;

 protected:
  // Declares the tool's inputs from its table (the ranges first; `reset` and `image` index the
  // button and the image input) and its image output, sets the threaded base's settings and,
  // loading, reads the end of the record.
  template <size_t N>
  void Declare(CArchive* ar, const module::InputDecl (&table)[N], Input* (&inputs)[N], size_t reset, size_t image) {
    image_out_ = module::DeclareImageTool(this, ar, table, inputs, 3, 0);
    ranges_ = inputs;
    reset_ = inputs[reset];
    image_ = inputs[image];
  }
  KeyRanges RangesOf(Request* req) const;

  Output* image_out_ = nullptr;

 private:
  void Pick(const float (&rect)[4]);
  void Reset(double time);

  Input* const* ranges_ = nullptr;
  Input* reset_ = nullptr;
  Input* image_ = nullptr;
  const char* pick_step_;
  const char* reset_step_;
  // Set by the first pixel a pick examines, cleared by Reset; never saved.
  bool pick_extend_ = false;
};

// --- the matte blur ---

// The blur of a matte by `amount` 1/320ths of its width: r = w * amount * 0.003125 pixels
// (the product w * amount in single precision), n = trunc(r), t = r - n; two square boxes of
// sides 2n + 1 and 2n + 3 blended by trunc((1 - t) * 1024) and trunc(t * 1024):
// alpha = min(255, ((4 Sb / (2n+3)^2) * wBig + (4 Ss / (2n+1)^2) * wSmall) >> 12).
// Rows outside the image repeat the first or last row; columns beyond the right edge repeat the
// last column, and on the left, column 0 included, the box takes column 1 (the column sums are
// padded from the second column; saved flows render so). The sums run down each band of rows,
// started afresh at the band's first row; they are exact, so the bytes do not depend on the
// bands. r is held to 0 .. 2^24 pixels.
class AlphaBlur {
 public:
  // Prepares a render; the rows are split into one band per worker thread.
  void Prepare(float amount, int width, int height);
  long Bands() const { return bands_; }

  // Band `band` of the blur of `src`'s alpha (a mask's bytes, or byte 3 of 32-bit pixels):
  // row(y, alpha) for every row of the band, alpha holding the row's blurred matte (the
  // function may change it). Stops when the operator aborts.
  template <class RowFn>
  void Band(const Operator& op, const Image& src, long band, RowFn&& row) const {
    const module::RowSpan rows = module::BandRows(height_, bands_, band);
    if (rows.begin >= rows.end) return;
    Scratch& s = scratch_[size_t(band)];
    if (n_ == 0) {
      module::ForEachRow(op, rows, [&](int y) {
        ThreeByThreeRow(src, y, s);
        row(y, s.alpha.data());
      });
      return;
    }
    StartColumns(src, rows.begin, s);
    module::ForEachRow(op, rows, [&](int y) {
      BlurRow(s);
      row(y, s.alpha.data());
      if (y + 1 < rows.end) SlideColumns(src, y, s);
    });
  }

  // The per-render constants, for the tests' scalar reference.
  int Radius() const { return n_; }
  int32_t SmallWeight() const { return w_small_; }
  int32_t BigWeight() const { return w_big_; }

 private:
  // One band's running sums and the output row: the column sums of the small and the big box
  // (for n = 0, the pixel's and the 3-row sums, padded by a column on each side), and their
  // prefix sums along the padded row (narrow) or along the row (wide).
  struct Scratch {
    std::vector<int32_t> small, big;
    std::vector<uint32_t> small_prefix, big_prefix;
    std::vector<int64_t> small_wide, big_wide, small_wide_prefix, big_wide_prefix;
    std::vector<uint8_t> alpha;
  };
  void StartColumns(const Image& src, int y, Scratch& s) const;
  void SlideColumns(const Image& src, int y, Scratch& s) const;
  void BlurRow(Scratch& s) const;
  // n = 0: the boxes are the pixel and its 3 x 3 neighbourhood, summed directly.
  void ThreeByThreeRow(const Image& src, int y, Scratch& s) const;

  int width_ = 0, height_ = 0;
  long bands_ = 1;
  int n_ = 0;
  int32_t w_small_ = 1024, w_big_ = 0;
  int64_t small_area_ = 1, big_area_ = 9;
  // The sums of a row fit 32 bits: 1021 * (2n + 3)^2 < 2^31.
  bool narrow_ = true;
  float small_reciprocal_ = 1.0f, big_reciprocal_ = 1.0f;
  // One per band, each used by one worker thread at a time.
  mutable std::vector<Scratch> scratch_;
};

// The passes of a matte tool's render: the matte made row by row from the input; then each
// blur on a pass of its own, from a mask the pass before filled (released once read); then the
// tool's finishing stages into the output. Without a blur, one pass makes and finishes each
// row in pieces on the stack. At most the output and two masks are alive at once.
class MattePasses {
 public:
  // Runs the render's passes on `op`'s worker threads and returns the output: one blur for each
  // amount of `blurs` (at most two, all positive), in order.
  Image* Run(ThreadedOperator& op, Request* req, const Image& src, std::span<const float> blurs);

  // The chunk slot of the pass under way. make(y, x, alpha, count) makes `count` bytes of row
  // y's matte from column x; after(pass, y, x, alpha, count) may change them once made (pass 0)
  // or blurred (pass k after blur k); finish(y, x, alpha, out, count) writes them into the
  // output's row y from column x, `out`.
  template <class Make, class After, class Finish>
  void Chunk(const Operator& op, long band, Make&& make, After&& after, Finish&& finish) const {
    const int last = int(blur_count_);
    const auto onward = [&](int pass, int y, int x, uint8_t* alpha, int count) {
      after(pass, y, x, alpha, count);
      if (pass == last) {
        finish(y, x, alpha, out_->Row(y) + x, count);
      } else if (pass > 0) {
        std::copy(alpha, alpha + count, masks_[pass]->MaskRow(y) + x);
      }
    };
    if (pass_ > 0) {
      blurs_[pass_ - 1].Band(op, *masks_[pass_ - 1], band, [&](int y, uint8_t* alpha) { onward(pass_, y, 0, alpha, width_); });
      return;
    }
    module::ForEachRow(op, module::BandRows(height_, bands_, band), [&](int y) {
      uint8_t piece[kPiece];
      for (int x = 0; x < width_; x += kPiece) {
        const int count = std::min(kPiece, width_ - x);
        uint8_t* alpha = last > 0 ? masks_[0]->MaskRow(y) + x : piece;
        make(y, x, alpha, count);
        onward(0, y, x, alpha, count);
      }
    });
  }

  // The same, for a tool that changes nothing between the passes.
  template <class Make, class Finish>
  void Chunk(const Operator& op, long band, Make&& make, Finish&& finish) const {
    Chunk(op, band, make, [](int, int, int, uint8_t*, int) {}, finish);
  }

 private:
  int width_ = 0, height_ = 0;
  long bands_ = 1;
  int pass_ = 0;
  size_t blur_count_ = 0;
  AlphaBlur blurs_[2];
  Image* masks_[2] = {};  // the matte the first and the second blur read
  Image* out_ = nullptr;
};

}  // namespace matte
}  // namespace kestrion::tools

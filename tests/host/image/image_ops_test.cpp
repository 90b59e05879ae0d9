// Host image operations that move, copy, fill, merge or map pixels, on hand-made images held
// in the host's memory or over memory whose rows lie top-down or bottom-up.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "host/image/image.h"
#include "host/graph/request.h"
#include "tests/host/image/image_fixtures.h"

namespace kestrion {
namespace {

using namespace test;

class ImageOpsTest : public ::testing::TestWithParam<Rows> {
 protected:
  test::NullTool tool;
  Request req{&tool, 0.0, 0};
};

TEST_P(ImageOpsTest, FillSetsEveryPixelAndClearRowsOnlyThoseWithinTheImage) {
  constexpr uint32_t f = 0x04030201u;
  auto img = MakeFrame(2, 4, GetParam(), Vec(8, 0));
  img->Fill(Pixel{1, 2, 3, 4});
  EXPECT_EQ(Words(*img.get()), Vec(8, f));
  img->ClearRows(1, 3);
  img->ClearRows(-5, 0);
  img->ClearRows(4, 9);
  EXPECT_EQ(Words(*img.get()), (Vec{f, f, 0, 0, 0, 0, f, f}));
  EXPECT_TRUE(img.PaddingIntact());
  auto mask = MakeMask(3, 2, GetParam(), Bytes(6, 0));
  mask->Fill(Pixel{1, 2, 3, 4});
  EXPECT_EQ(test::MaskValues(*mask.get()), Bytes(6, 4));
}

TEST_P(ImageOpsTest, FlipsMirrorInPlace) {
  auto img = MakeFrame(3, 3, GetParam(), {1, 2, 3, 4, 5, 6, 7, 8, 9});
  img->FlipX();
  EXPECT_EQ(Words(*img.get()), (Vec{3, 2, 1, 6, 5, 4, 9, 8, 7}));
  img->FlipY();
  EXPECT_EQ(Words(*img.get()), (Vec{9, 8, 7, 6, 5, 4, 3, 2, 1}));
  EXPECT_TRUE(img.PaddingIntact());
  auto mask = MakeMask(2, 2, GetParam(), {1, 2, 3, 4});
  mask->FlipX();
  EXPECT_EQ(test::MaskValues(*mask.get()), (Bytes{2, 1, 4, 3}));
  mask->FlipY();
  EXPECT_EQ(test::MaskValues(*mask.get()), (Bytes{4, 3, 2, 1}));
}

TEST_P(ImageOpsTest, CopiesKeepPixelsAndAttributes) {
  auto img = MakeFrame(2, 2, GetParam(), {1, 2, 3, 4});
  img->x_aspect = 2.0f;
  img->origin_y = 0.25f;
  Image* copy = img->CopyOfImage(&req);
  img->Fill(Pixel{});
  EXPECT_EQ(Words(*copy), (Vec{1, 2, 3, 4}));
  EXPECT_EQ(copy->x_aspect, 2.0f);
  EXPECT_EQ(copy->origin_y, 0.25f);
  // A mask made 32-bit: grey, the value in all four bytes.
  auto mask = MakeMask(2, 1, GetParam(), {0x12, 0xFF});
  Image* grey = mask->CopyOfImage2(&req);
  EXPECT_EQ(grey->Depth(), 32);
  EXPECT_EQ(Words(*grey), (Vec{0x12121212u, 0xFFFFFFFFu}));
}

// One factor for all four channels of a grey pixel.
struct TableCase {
  void (Image::*op)(float, float, float, float);
  float factor;
  int in, out;
};

constexpr auto kGain = &Image::Gain;
constexpr auto kGamma = &Image::Gamma;

// clang-format off
const TableCase kTableCases[] = {
  // Gain: floor(v * gain + 0.5) held to 0..255, in double from the float factor: 0.7f is
  // 0.69999998..., so 5 * 0.7f = 3.4999999 gives 3 where 5 * 0.7 would give 4.
  {kGain, 0.5f, 1, 1}, {kGain, 0.5f, 3, 2}, {kGain, 0.5f, 255, 128}, {kGain, 2.0f, 100, 200},
  {kGain, 2.0f, 200, 255}, {kGain, 0.7f, 5, 3}, {kGain, 0.0f, 255, 0}, {kGain, 1.0f, 77, 77},
  // Gamma: floor(255 (v / 255)^(1 / gamma) + 0.5): sqrt(64 * 255) = 127.75 gives 128,
  // 128^2 / 255 = 64.25 gives 64, 16^2 / 255 = 1.004 gives 1; gamma 0 gives 0 below 255.
  {kGamma, 2.0f, 64, 128}, {kGamma, 2.0f, 0, 0}, {kGamma, 2.0f, 255, 255}, {kGamma, 0.5f, 128, 64},
  {kGamma, 0.5f, 16, 1}, {kGamma, 0.0f, 254, 0}, {kGamma, 0.0f, 255, 255}, {kGamma, 0.0f, 0, 0},
  {kGamma, 1.0f, 77, 77}, {kGamma, -1.0f, 10, 255},
};
// clang-format on

TEST_P(ImageOpsTest, GainAndGammaTable) {
  for (const TableCase& c : kTableCases) {
    const uint32_t v = uint32_t(c.in), o = uint32_t(c.out);
    auto img = MakeFrame(1, 1, GetParam(), {Bgra(v, v, v, v)});
    (img.get()->*c.op)(c.factor, c.factor, c.factor, c.factor);
    EXPECT_EQ(Words(*img.get())[0], Bgra(o, o, o, o))
        << (c.op == kGain ? "gain " : "gamma ") << c.factor << " " << c.in;
  }
}

TEST_P(ImageOpsTest, GainAndGammaTakeRedGreenBlueAlpha) {
  auto img = MakeFrame(1, 1, GetParam(), {Bgra(100, 100, 100, 100)});
  img->Gain(2.0f, 1.0f, 0.5f, 0.0f);
  EXPECT_EQ(Words(*img.get())[0], Bgra(50, 100, 200, 0));
  img->Gamma(1.0f, 0.0f, 1.0f, 1.0f);
  EXPECT_EQ(Words(*img.get())[0], Bgra(50, 0, 200, 0));
  // A mask is its alpha.
  auto mask = MakeMask(1, 1, GetParam(), {100});
  mask->Gain(0.0f, 0.0f, 0.0f, 0.5f);
  EXPECT_EQ(test::MaskValues(*mask.get())[0], 50);
}

TEST_P(ImageOpsTest, MergesCompositeTheOverlapOnly) {
  const uint32_t bg = Bgra(200, 100, 0, 255);
  const uint32_t fg = Bgra(0, 0, 128, 128);
  // fg at (2, 0) overlaps only pixel 2 of the background. Over: blue 0 + round(200 * 127 / 255)
  // = 100, green round(100 * 127 / 255) = 50, red 128, alpha 128 + 127.
  auto over = MakeFrame(3, 1, GetParam(), {bg, bg, bg});
  auto src = MakeFrame(2, 1, GetParam(), {fg, fg});
  over->OMerge(src.get(), 2, 0);
  EXPECT_EQ(Words(*over.get()), (Vec{bg, bg, Bgra(100, 50, 128, 255)}));
  // Exclusive-or: the foreground counts for nothing over opaque pixels; the background keeps
  // (255 - 128) / 255 of itself.
  auto xmerge = MakeFrame(3, 1, GetParam(), {bg, bg, bg});
  xmerge->OXMerge(src.get(), -1, 0);
  EXPECT_EQ(Words(*xmerge.get()), (Vec{Bgra(100, 50, 0, 127), bg, bg}));
  // Nothing overlaps: nothing changes.
  over->OMerge(src.get(), 0, 1);
  EXPECT_EQ(Words(*over.get()), (Vec{bg, bg, Bgra(100, 50, 128, 255)}));
  // A colour above its alpha (not validly premultiplied) sums past 255 and is held there.
  auto bright = MakeFrame(1, 1, GetParam(), {Bgra(255, 0, 0, 255)});
  auto invalid = MakeFrame(1, 1, GetParam(), {Bgra(200, 0, 0, 0)});
  bright->OMerge(invalid.get(), 0, 0);
  EXPECT_EQ(Words(*bright.get())[0], Bgra(255, 0, 0, 255));
  auto mask = MakeMask(1, 1, GetParam(), {100});
  EXPECT_THROW(over->OMerge(mask.get(), 0, 0), std::invalid_argument);
}

TEST_P(ImageOpsTest, BgrBuffersArePackedTopRowFirst) {
  auto img = MakeFrame(2, 2, GetParam(), {Bgra(1, 2, 3, 9), Bgra(4, 5, 6, 9), Bgra(7, 8, 9, 9), Bgra(10, 11, 12, 9)});
  Bytes bgr(12);
  img->BGRAtoBGR(bgr.data());
  EXPECT_EQ(bgr, (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
  auto back = MakeFrame(2, 2, GetParam(), Vec(4, 0));
  back->BGRtoBGRA(bgr.data(), 77);
  EXPECT_EQ(Words(*back.get()),
            (Vec{Bgra(1, 2, 3, 77), Bgra(4, 5, 6, 77), Bgra(7, 8, 9, 77), Bgra(10, 11, 12, 77)}));
  EXPECT_TRUE(back.PaddingIntact());
  // A mask writes grey and reads the luminance: (19595 * 200 + 38470 * 100 + 7471 * 50) >> 16.
  auto mask = MakeMask(1, 1, GetParam(), {42});
  Bytes grey(3);
  mask->BGRAtoBGR(grey.data());
  EXPECT_EQ(grey, (Bytes{42, 42, 42}));
  const Bytes colour{50, 100, 200};
  mask->BGRtoBGRA(colour.data(), 0);
  EXPECT_EQ(test::MaskValues(*mask.get())[0], 124);
}

TEST_P(ImageOpsTest, CropAndOffsetFillOutsideWithTransparentBlack) {
  const auto src = MakeFrame(3, 3, GetParam(), {1, 2, 3, 4, 5, 6, 7, 8, 9});
  Ref<Image> crop = Ref<Image>::Adopt(src->CropOfImage(1, 1, 3, 3));
  EXPECT_EQ(Words(*crop), (Vec{5, 6, 0, 8, 9, 0, 0, 0, 0}));
  Ref<Image> left = Ref<Image>::Adopt(src->CropOfImage(-1, 0, 2, 2));
  EXPECT_EQ(Words(*left), (Vec{0, 1, 0, 4}));
  Ref<Image> away = Ref<Image>::Adopt(src->CropOfImage(LONG_MIN, LONG_MAX, 2, 1));
  EXPECT_EQ(Words(*away), (Vec{0, 0}));

  auto dst = MakeFrame(3, 3, GetParam(), Vec(9, 0xFFFFFFFFu));
  dst->ImageOffset(src.get(), 1, 1);
  EXPECT_EQ(Words(*dst.get()), (Vec{0, 0, 0, 0, 1, 2, 0, 4, 5}));
  dst->ImageCrop(src.get(), 2, 0);
  EXPECT_EQ(Words(*dst.get()), (Vec{3, 0, 0, 6, 0, 0, 9, 0, 0}));
  EXPECT_TRUE(dst.PaddingIntact());
  // Onto itself: reads the pixels from before the move.
  dst->ImageOffset(dst.get(), 0, 1);
  EXPECT_EQ(Words(*dst.get()), (Vec{0, 0, 0, 3, 0, 0, 6, 0, 0}));
  // The crop of a mask is a mask.
  const auto mask = MakeMask(2, 2, GetParam(), {1, 2, 3, 4});
  Ref<Image> mask_crop = Ref<Image>::Adopt(mask->CropOfImage(1, 0, 2, 2));
  EXPECT_EQ(mask_crop->Depth(), 8);
  EXPECT_EQ(test::MaskValues(*mask_crop), (Bytes{2, 0, 4, 0}));
}

struct OverlapCase {
  long x, y;
  bool overlaps;
  long dst_x, dst_y, src_x, src_y, width, height;
};

// A 2 x 2 image placed on a 4 x 3 one.
// clang-format off
const OverlapCase kOverlaps[] = {
  {1, 1,            true,  1, 1, 0, 0, 2, 2},
  {3, 2,            true,  3, 2, 0, 0, 1, 1},
  {-1, -1,          true,  0, 0, 1, 1, 1, 1},
  {-1, 2,           true,  0, 2, 1, 0, 1, 1},
  {4, 0,            false, 0, 0, 0, 0, 0, 0},
  {0, -2,           false, 0, 0, 0, 0, 0, 0},
  {LONG_MAX, 0,     false, 0, 0, 0, 0, 0, 0},
  {LONG_MIN, 0,     false, 0, 0, 0, 0, 0, 0},
};
// clang-format on

TEST(ImageOffCalc, OverlapRectangle) {
  Ref<Image> big = Ref<Image>::Adopt(new Image(4, 3));
  Ref<Image> small = Ref<Image>::Adopt(new Image(2, 2));
  for (const OverlapCase& c : kOverlaps) {
    long r[6] = {-7, -7, -7, -7, -7, -7};
    EXPECT_EQ(big->OffCalc(small.get(), c.x, c.y, &r[0], &r[1], &r[2], &r[3], &r[4], &r[5]), c.overlaps);
    EXPECT_EQ((std::vector<long>(r, r + 6)),
              (std::vector<long>{c.dst_x, c.dst_y, c.src_x, c.src_y, c.width, c.height}))
        << c.x << ", " << c.y;
  }
}

TEST(ImageSizes, ImpossibleSizesThrow) {
  test::NullTool tool;
  Request req(&tool, 0.0, 0);
  Ref<Image> img = Ref<Image>::Adopt(new Image(4, 4));
  EXPECT_THROW(img->ResizeOfImage(&req, -1, 4, 1), ImageSizeError);
  EXPECT_THROW(img->ResizeOfImage(&req, 100000, 100000, 0), ImageSizeError);
  EXPECT_THROW(img->ScaleOfImage(&req, 0), ImageSizeError);
  EXPECT_THROW(img->CropOfImage(0, 0, -1, 2), ImageSizeError);
  EXPECT_THROW(img->CropOfImage(0, 0, long(INT_MAX) + 1, 1), ImageSizeError);
  EXPECT_THROW(img->CropOfImage(0, 0, 70000, 70000), ImageSizeError);
}

// Frames of 256 KiB and more reuse the memory of frames that have ended (ten at a time, more
// than the pool keeps); a new image is cleared all the same.
TEST(ImagePool, NewImagesAreClearedWhateverTheirMemoryHeld) {
  const auto cleared = [](const Image& img) {
    return img.Depth() == 8 ? MaskValues(img) == Bytes(size_t(img.Width() * img.Height()), 0)
                            : Words(img) == Vec(size_t(img.Width() * img.Height()), 0);
  };
  for (int depth : {32, 8}) {
    const int width = 65536 * 4 / depth;
    for (int round = 0; round < 3; ++round) {
      std::vector<Ref<Image>> held;
      for (int i = 0; i < 10; ++i) {
        held.push_back(
            Ref<Image>::Adopt(i % 2 ? NewImage(nullptr, width, 64, depth, nullptr) : new Image(width, 64, depth)));
        EXPECT_TRUE(cleared(*held.back())) << depth << " bits, round " << round << ", image " << i;
        held.back()->Fill(Pixel{1, 2, 3, 4});
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, ImageOpsTest, ::testing::ValuesIn(test::kAllRows), test::RowsTestName);

}  // namespace
}  // namespace kestrion

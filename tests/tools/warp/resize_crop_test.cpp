// Resize and Crop: the sizes they make from full-resolution settings at proxy factors and for
// fields, the frame attributes they leave, which source pixels they take, and the impossible
// cases: a size over the image limit and attributes that give no proxy ratio.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "host/base/failure.h"
#include "host/base/prefs.h"
#include "tests/tools/warp/warp_fixture.h"

namespace kestrion::test {
namespace {

constexpr int kNone = -1;

// A frame attribute's value, or kNone.
int Attr(const Image& img, uint32_t tag) { return img.frame_attrs.Has(tag) ? int(img.frame_attrs.GetInt(tag)) : kNone; }

// The attributes a test source carries.
struct Attrs {
  int full_width = kNone, full_height = kNone;
  bool field = false;
};

class ResizeCropTest : public WarpTest {
 protected:
  Picture* Tagged(int w, int h, const Attrs& a) {
    Picture* pic = Source(w, h, Coordinates(w, h));
    if (a.full_width != kNone) pic->image->frame_attrs.Set(Tag(frameattr::FullWidth, a.full_width));
    if (a.full_height != kNone) pic->image->frame_attrs.Set(Tag(frameattr::FullHeight, a.full_height));
    if (a.field) pic->image->frame_attrs.Set(Tag(frameattr::Field, 1));
    return pic;
  }
  test_tools::SavedPrefs prefs_;
};

TEST_F(ResizeCropTest, ResizeSizesAndAttributes) {
  const struct {
    const char* what;
    Attrs in;
    double width, height;
    uint32_t flags;
    int proxy;
    int out_w, out_h, full_width, full_height;
  } cases[] = {
      {"plain", {}, 2, 3, 0, 1, 2, 3, kNone, kNone},
      {"a fraction truncates", {}, 5.9, 2.99, 0, 1, 5, 2, kNone, kNone},
      {"typed 0 is held at 1", {}, 0, -4, 0, 1, 1, 1, kNone, kNone},
      {"quick proxy 2 of a tagged frame", {320, 240}, 320, 240, rflag::Quick | rflag::Proxy, 2, 160, 120, 320, 240},
      {"proxy factor 3 truncates", {}, 8, 7, rflag::Proxy, 3, 2, 2, kNone, kNone},
      {"a proxy factor outside proxy renders", {}, 8, 7, 0, 3, 8, 7, kNone, kNone},
      {"a field halves the height", {kNone, 12, true}, 5, 6, 0, 1, 5, 3, kNone, 3},
      {"1 x 1 of a field", {kNone, kNone, true}, 1, 1, 0, 1, 1, 1, kNone, kNone},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    PGeneral.proxy = c.proxy;
    Operator* resize = Tool("Resize");
    Link(Tagged(4, 4, c.in), resize, "Image");
    Set(resize, "Width", c.width);
    Set(resize, "Height", c.height);
    Ref<Image> out = Render(resize, 0, c.flags);
    ASSERT_TRUE(out);
    EXPECT_EQ(std::pair(out->Width(), out->Height()), std::pair(c.out_w, c.out_h));
    EXPECT_EQ(Attr(*out, frameattr::FullWidth), c.full_width);
    EXPECT_EQ(Attr(*out, frameattr::FullHeight), c.full_height);
    EXPECT_EQ(Attr(*out, frameattr::Field), c.in.field ? 1 : kNone);
  }
}

// Quick: the nearest pixel from the first row and column on, steps (4 x 256) / 3 = 341 and
// (3 x 256) / 2 = 384, or 512 / 5 = 102 enlarging. Full: the host's triangle filter (4 -> 2:
// weights 1/8, 3/8, 3/8, 1/8 with the edge repeated: 62.5 and 112.5 round up).
TEST_F(ResizeCropTest, ResizeTakesThesePixels) {
  const auto blue = [](uint8_t b) { return Pixel{b, 0, 0, 0}; };
  const struct {
    const char* what;
    int in_w, in_h;
    std::vector<Pixel> in;
    int out_w, out_h;
    uint32_t flags;
    std::vector<Pixel> expected;
  } cases[] = {
      {"quick, reducing", 4, 3, Coordinates(4, 3), 3, 2, rflag::Quick,
       {At(0, 0), At(1, 0), At(2, 0), At(0, 1), At(1, 1), At(2, 1)}},
      {"quick, enlarging", 2, 1, Coordinates(2, 1), 5, 1, rflag::Quick, {At(0, 0), At(0, 0), At(0, 0), At(1, 0), At(1, 0)}},
      {"full, reducing", 4, 1, {blue(0), blue(100), blue(200), blue(50)}, 2, 1, 0, {blue(63), blue(113)}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Operator* resize = Tool("Resize");
    Link(Source(c.in_w, c.in_h, c.in), resize, "Image");
    Set(resize, "Width", c.out_w);
    Set(resize, "Height", c.out_h);
    EXPECT_EQ(RenderPixels(resize, 0, c.flags), c.expected);
  }
}

// Crops of an 8 x 6 source: where the output starts in the source, its size and attributes.
TEST_F(ResizeCropTest, CropRectanglesAndAttributes) {
  const struct {
    const char* what;
    Attrs in;
    double xo, yo, xs, ys;
    int x, y, out_w, out_h, full_width, full_height;
  } cases[] = {
      {"full resolution", {}, 2, 1, 4, 4, 2, 1, 4, 4, kNone, kNone},
      {"sizes below 4 are held at 4", {}, 0, 0, 2, 1, 0, 0, 4, 4, kNone, kNone},
      {"past the edges", {}, 6, 4, 5, 4, 6, 4, 5, 4, kNone, kNone},
      {"proxy ratio 2", {16, 12}, 4, 2, 10, 8, 2, 1, 5, 4, 10, 8},
      {"below 4 times the ratio, still 4", {16, 12}, 0, 0, 6, 6, 0, 0, 4, 4, 6, 6},
      {"a negative offset truncates toward zero", {16, 12}, -3, -3, 8, 8, -1, -1, 4, 4, 8, 8},
      {"the ratio rounds: 20 / 8 + 0.5 gives 3", {20, kNone}, 6, 0, 12, 5, 2, 0, 4, 5, 12, kNone},
      {"a field doubles the vertical ratio", {kNone, kNone, true}, 1, 4, 5, 9, 1, 2, 5, 4, kNone, 4},
      {"a full-resolution crop drops the size attributes", {8, 6}, 1, 1, 4, 4, 1, 1, 4, 4, kNone, kNone},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Operator* crop = Tool("Crop");
    Link(Tagged(8, 6, c.in), crop, "Image");
    Set(crop, "X Offset", c.xo);
    Set(crop, "Y Offset", c.yo);
    Set(crop, "X Size", c.xs);
    Set(crop, "Y Size", c.ys);
    Ref<Image> out = Render(crop);
    ASSERT_TRUE(out);
    ASSERT_EQ(std::pair(out->Width(), out->Height()), std::pair(c.out_w, c.out_h));
    std::vector<Pixel> expected;
    for (int y = 0; y < c.out_h; ++y)
      for (int x = 0; x < c.out_w; ++x) {
        const int sx = x + c.x, sy = y + c.y;
        expected.push_back(sx >= 0 && sy >= 0 && sx < 8 && sy < 6 ? At(sx, sy) : Pixel{});
      }
    EXPECT_EQ(Pixels(*out), expected);
    EXPECT_EQ(Attr(*out, frameattr::FullWidth), c.full_width);
    EXPECT_EQ(Attr(*out, frameattr::FullHeight), c.full_height);
  }
}

// A size over the image limit, and attributes claiming a full size under half the image's,
// fail the frame with a reason and leave the flow usable.
TEST_F(ResizeCropTest, ImpossibleSizesFailTheFrame) {
  Operator* resize = Tool("Resize");
  Link(Tagged(4, 4, {}), resize, "Image");
  Set(resize, "Width", 100000);
  Set(resize, "Height", 100000);
  HostError err;
  EXPECT_FALSE(doc_.Render(resize->Outputs()[0].get(), 0, 0, &err));
  EXPECT_NE(err.message.find("image size 100000 x 100000"), std::string::npos) << err.message;

  Operator* crop = Tool("Crop");
  Link(Tagged(8, 6, {1, 6}), crop, "Image");
  TakeFailures();
  EXPECT_FALSE(doc_.Render(crop->Outputs()[0].get(), 0, 0, &err));
  const std::vector<Failure> failures = TakeFailures();
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_NE(failures[0].message.find("Crop1"), std::string::npos) << failures[0].message;
  EXPECT_NE(failures[0].message.find("1 x 6 does not fit its size of 8 x 6"), std::string::npos) << failures[0].message;

  Set(resize, "Width", 3);
  EXPECT_TRUE(Render(resize));
}

}  // namespace
}  // namespace kestrion::test

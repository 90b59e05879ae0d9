// What the colour and compositing tool tests share: the picture source of the host tests, a
// fixture that builds and renders a flow, the run of a tool over random images of every width
// against a scalar reference, and the rendering of a text flow's tools.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/base/random.h"
#include "host/document/document.h"
#include "host/document/flow_file.h"
#include "host/graph/threads.h"
#include "tests/host/image/image_fixtures.h"
#include "tests/host/test_tools.h"

namespace kestrion {

// (blue, green, red, alpha), the byte order of the pixel word.
inline void PrintTo(const Pixel& p, std::ostream* os) {
  *os << "(" << int(p.b) << "," << int(p.g) << "," << int(p.r) << "," << int(p.a) << ")";
}

namespace test {

using test_tools::Picture;
using test_tools::PictureClass;

inline std::vector<Pixel> Pixels(const Image& img) {
  std::vector<Pixel> out;
  for (uint32_t w : Words(img)) out.push_back(Pixel::FromWord(w));
  return out;
}

class ColorToolTest : public ::testing::Test {
 protected:
  // A picture tool holding a w x h image of the given pixels, top row first.
  Picture* Source(int w, int h, const std::vector<Pixel>& pixels) {
    auto* pic = test_tools::Make<Picture>(doc_, "TestPicture");
    std::vector<uint32_t> words;
    for (const Pixel& p : pixels) words.push_back(p.Word());
    pic->image = MakeFrame(w, h, Rows::Owned, words).image;
    return pic;
  }
  Picture* Flat(int w, int h, Pixel p) { return Source(w, h, std::vector<Pixel>(size_t(w * h), p)); }

  Operator* Tool(const char* class_name) {
    Operator* op = doc_.CreateTool(class_name);
    if (!op) throw std::runtime_error(std::string("cannot create a ") + class_name);
    return op;
  }
  static Input* In(Operator* op, const std::string& label) { return op->FindInput(0, label.c_str()); }
  static void Set(Operator* op, const std::string& label, double v) { In(op, label)->SetValue(new Number(v)); }
  void Link(Picture* from, Operator* op, const char* label) { ASSERT_TRUE(doc_.Connect(from->out, In(op, label))); }

  Ref<Image> Render(Operator* op, double time = 0.0, uint32_t flags = 0) {
    HostError err;
    Ref<Parameter> v = doc_.Render(op->Outputs()[0].get(), time, flags, &err);
    EXPECT_EQ(err.message, "");
    return Ref<Image>::Share(dynamic_cast<Image*>(v.get()));
  }
  std::vector<Pixel> RenderPixels(Operator* op, double time = 0.0, uint32_t flags = 0) {
    Ref<Image> img = Render(op, time, flags);
    return img ? Pixels(*img) : std::vector<Pixel>{};
  }

  PictureClass pictures_;  // outlives the document
  CPipelineDoc doc_;
};

class RandomRowsTest : public ColorToolTest {
 protected:
  Picture* RandomSource(int w, int h) {
    std::vector<Pixel> pixels(size_t(w * h));
    for (Pixel& p : pixels) p = Pixel::FromWord(uint32_t(random_()));
    return Source(w, h, pixels);
  }

  // For every width 1 .. 67: random w x rows_ images into the tool (the second on "Foreground"
  // where the tool has one), then for each of `settings` settings, set(tool, setting) and the
  // render at time_ compared with expected(setting, image words, foreground words, w, rows_).
  void CheckEveryWidth(const char* tool, int settings, const std::function<void(Operator*, int)>& set,
                       const std::function<Vec(int, const Vec&, const Vec&, int, int)>& expected) {
    for (int w = 1; w <= 67; ++w) {
      Picture* src = RandomSource(w, rows_);
      Picture* fg = RandomSource(w, rows_);
      Operator* op = Tool(tool);
      Link(src, op, "Image");
      if (In(op, "Foreground")) Link(fg, op, "Foreground");
      for (int setting = 0; setting < settings; ++setting) {
        set(op, setting);
        const Ref<Image> out = Render(op, time_);
        ASSERT_TRUE(out) << "width " << w;
        ASSERT_EQ(Words(*out), expected(setting, Words(*src->image), Words(*fg->image), w, rows_))
            << "width " << w << ", setting " << setting;
      }
    }
  }

  std::mt19937 random_{20261124};
  int rows_ = 17;  // two bands, so every render also starts a band part way down
  double time_ = 0.0;
};

// A text flow loaded with the test pictures' class about (the caller keeps `pictures` alive).
inline std::unique_ptr<CPipelineDoc> LoadFlow(const std::string& text) {
  HostError err;
  std::unique_ptr<CPipelineDoc> doc = LoadTextFlow(text, ".", &err);
  EXPECT_TRUE(doc) << err.message;
  return doc;
}

// Gives a flow's picture tool a w x h image of the given pixels, top row first.
inline void SetPicture(CPipelineDoc& doc, const char* name, int w, int h, const std::vector<Pixel>& pixels) {
  Vec words;
  for (const Pixel& p : pixels) words.push_back(p.Word());
  dynamic_cast<Picture*>(doc.FindTool(name))->image = MakeFrame(w, h, Rows::Owned, words).image;
}

// The image a tool of a flow renders at time 1 (null, and the reason reported, where none).
inline Ref<Image> RenderFlowTool(CPipelineDoc& doc, const char* tool, uint32_t flags = 0) {
  HostError err;
  Ref<Parameter> v = doc.Render(doc.FindTool(tool)->Outputs()[0].get(), 1.0, flags, &err);
  EXPECT_EQ(err.message, "") << tool;
  return Ref<Image>::Share(dynamic_cast<Image*>(v.get()));
}

}  // namespace test
}  // namespace kestrion

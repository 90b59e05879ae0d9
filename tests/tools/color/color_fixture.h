// What the colour and compositing tool tests share: the picture source of the host tests, the
// facts `kestrion describe` shows of inputs, and a fixture that builds and renders a flow.
#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/base/random.h"
#include "host/document/document.h"
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

}  // namespace test
}  // namespace kestrion

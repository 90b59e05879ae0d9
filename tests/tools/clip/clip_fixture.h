// What the clip tests share: frames whose colour tells their number, and a fixture that builds
// clip tools in a document in a fresh folder of its own.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "host/clip/clip.h"
#include "host/document/document.h"
#include "host/base/failure.h"
#include "tests/host/image/image_fixtures.h"
#include "tests/host/test_tools.h"

namespace kestrion::clip_test {

namespace fs = std::filesystem;
using test::Bgra;
using test_tools::ReadBytes;
using test_tools::WriteBytes;

// The colour of frame number n in the sequences the tests write.
constexpr uint32_t Marker(int n) { return Bgra(uint32_t(n) & 0xFF, (uint32_t(n) >> 8) & 0xFF, 0x5A, 0xFF); }

inline Ref<Image> Frame(int w, int h, const std::vector<uint32_t>& words) {
  return test::MakeFrame(w, h, test::Rows::Owned, words).image;
}
inline Ref<Image> Flat(int w, int h, uint32_t word) { return Frame(w, h, std::vector<uint32_t>(size_t(w * h), word)); }

// Writes frames first..last of a sequence, w x h each, in their marker colours.
inline void WriteSequence(const std::string& pattern, int first, int last, int w = 1, int h = 1) {
  ClipParameter clip(pattern);
  for (int n = first; n <= last; ++n)
    EXPECT_EQ(clip.WriteFrame(n, Flat(w, h, Marker(n)).get(), nullptr), 1u) << clip.LastError();
}

// The file of frame number n of a sequence (the one file of a plain name).
inline Ref<Image> ReadNumber(const std::string& pattern, int number) {
  ClipParameter clip(pattern);
  return Ref<Image>::Adopt(clip.ReadFrame(number - clip.FirstNumber(), nullptr, nullptr));
}
inline std::vector<uint32_t> Words(const Ref<Image>& img) { return img ? test::Words(*img) : std::vector<uint32_t>{}; }

using test_tools::Picture;

class ClipToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TakeFailures();  // what earlier tests left
    doc_.SetRenderRange({0.0, 200.0});
  }

  Operator* Tool(const char* class_name) {
    HostError err;
    Operator* op = doc_.CreateTool(class_name, {}, &err);
    EXPECT_TRUE(op) << err.message;
    return op;
  }
  static Input* In(Operator* op, const char* label) { return op->FindInput(0, label); }
  static void Set(Operator* op, const char* label, double v) { In(op, label)->SetValue(new Number(v)); }
  static double Get(Operator* op, const char* label) { return test_tools::CurrentNumber(In(op, label)); }
  static void SetClip(Operator* op, const std::string& name) { In(op, "Filename")->SetValue(new ClipParameter(name)); }
  Picture* NewPicture() { return test_tools::Make<Picture>(doc_, "TestPicture"); }

  // The image an operator's first output gives at a time (null for none).
  Ref<Image> Render(Operator* op, double time, uint32_t flags = 0) {
    HostError err;
    Ref<Parameter> v = doc_.Render(op->Outputs()[0].get(), time, flags, &err);
    return Ref<Image>::Share(dynamic_cast<Image*>(v.get()));
  }

  test_tools::TempFolder dir_;
  test_tools::PictureClass pictures_;  // outlives the document
  CPipelineDoc doc_;
};

}  // namespace kestrion::clip_test

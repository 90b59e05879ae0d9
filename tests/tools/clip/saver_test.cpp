// Saver and Preview Saver: whole frames written under the request's frame number, fields
// rendered at n and n + 0.5 assembled into one frame, requests that must not write, refused
// writes, and the Preview Saver's resize to the preview size.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/base/prefs.h"
#include "host/graph/ui.h"
#include "tests/tools/clip/clip_fixture.h"

namespace kestrion::clip_test {
namespace {

enum FieldMode { FullFrames = 0, NtscFields = 1, PalFields = 2, PalReversed = 3, NtscReversed = 4, Auto = 5 };

class SaverTest : public ClipToolTest {
 protected:
  // A Saver (or Preview Saver) writing `clip`, fed by picture_, after the start of a render.
  Operator* Saver(const std::string& clip, int mode, double step = 1.0, const char* class_name = "Saver") {
    if (!picture_) picture_ = NewPicture();
    Operator* op = Tool(class_name);
    if (!op || !picture_) return nullptr;
    SetClip(op, clip);
    Set(op, "Field Mode", mode);
    EXPECT_TRUE(doc_.Connect(picture_->out, In(op, "Image")));
    StartRender(op, step);
    return op;
  }
  void StartRender(Operator* op, double step) {
    op->time_step = step;
    RenderMessage message{0.0, 100.0, step, writer_};
    op->OnStartRender(&message);
  }
  // Renders a Saver at a time with the picture showing `img` (and waits for a queued write).
  Ref<Image> Feed(Operator* saver, const Ref<Image>& img, double t, uint32_t flags = 0) {
    picture_->image = img;
    doc_.InvalidateFrom(picture_);
    Ref<Image> out = Render(saver, t, flags);
    if (writer_) {
      EXPECT_FALSE(writer_->Wait(writer_->Queued()));
    }
    return out;
  }
  // A w x h image whose pixels all differ: (tag, x, y, 255).
  static Ref<Image> Numbered(int w, int h, uint8_t tag) {
    std::vector<uint32_t> words;
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) words.push_back(Bgra(tag, uint32_t(x), uint32_t(y), 255));
    return Frame(w, h, words);
  }
  std::string Sub(const std::string& name) {
    fs::create_directories(dir_.path() / name);
    return name;
  }

  Picture* picture_ = nullptr;
  FrameWriter* writer_ = nullptr;  // where renders queue their writes; none: written at once
  test_tools::SavedPrefs prefs_;
};

// The file is numbered by the whole part of the request time; how each form of clip name pads
// its number is the clip's own (clip_test).
TEST_F(SaverTest, WholeFramesAreNumberedAndPadded) {
  const struct {
    std::string clip;
    double t;
    std::string file;
  } cases[] = {
      {"a.####.png", 7.9, "a.0007.png"},
      {"c.0001.png", 42, "c.0042.png"},
      {"still.png", 3, "still.png"},
  };
  const Ref<Image> img = Numbered(3, 2, 7);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.clip);
    const std::string sub = Sub(std::to_string(&c - cases));
    Operator* saver = Saver(dir_ / (sub + "/" + c.clip), FullFrames, 0.5);  // whole frames whatever the step
    ASSERT_TRUE(saver);
    EXPECT_EQ(Feed(saver, img, c.t).get(), img.get());
    EXPECT_EQ(dir_.Files(sub), std::vector<std::string>{c.file});
    EXPECT_EQ(Words(ReadNumber(dir_ / (sub + "/" + c.clip), int(c.t))), Words(img));
  }
}

// Renders with the time step 0.5 of 2 x 1 images a, b, c (wider w). Field 0 goes to the even
// rows, field 1 to the odd rows; the second field's call writes the frame, numbered int(t).
// Interactive and preview requests pass the image on and write nothing, not even a field.
// Written at once or queued on a frame writer, the frames are the same.
TEST_F(SaverTest, FieldsMakeFramesOnTheSecondCallAndInteractiveCallsWriteNothing) {
  FrameWriter writer;
  const Ref<Image> a = Numbered(2, 1, 1), b = Numbered(2, 1, 2), c = Numbered(2, 1, 3), w = Numbered(3, 1, 4);
  const Ref<Image> a1 = Numbered(2, 1, 1), b0 = Numbered(2, 1, 2);
  a1->frame_attrs.Set(Tag(frameattr::Field, 1u));
  b0->frame_attrs.Set(Tag(frameattr::Field, 0u));
  const uint32_t a0 = a->Row(0)[0], a_1 = a->Row(0)[1], b_0 = b->Row(0)[0], b_1 = b->Row(0)[1];
  constexpr double kRestart = -1;  // a new render starts
  struct Step {
    Ref<Image> img;
    double t;
    std::vector<std::string> files;  // after the call
    uint32_t flags = 0;
  };
  const struct {
    const char* what;
    int mode;
    std::vector<Step> steps;
    int w, h;
    std::vector<uint32_t> frame;  // the last frame written
  } cases[] = {
      {"NTSC", NtscFields, {{a, 4, {}}, {b, 4.5, {"4"}}}, 2, 2, {b_0, b_1, a0, a_1}},
      {"PAL", PalFields, {{a, 4, {}}, {b, 4.5, {"4"}}}, 2, 2, {a0, a_1, b_0, b_1}},
      {"PAL reversed", PalReversed, {{a, 4, {}}, {b, 4.5, {"4"}}}, 2, 2, {b_0, b_1, a0, a_1}},
      {"NTSC reversed", NtscReversed, {{a, 4, {}}, {b, 4.5, {"4"}}}, 2, 2, {a0, a_1, b_0, b_1}},
      {"Auto by the field tags", Auto, {{a1, 4, {}}, {b0, 4.5, {"4"}}}, 2, 2, {b_0, b_1, a0, a_1}},
      {"Auto without tags: whole frames", Auto, {{a, 4, {"4"}}, {b, 4.5, {"4"}}}, 2, 1, {b_0, b_1}},
      // A new, zero-filled buffer for the wider second field: the first is lost.
      {"size change", PalFields, {{a, 4, {}}, {w, 4.5, {"4"}}}, 3, 2,
       {0, 0, 0, w->Row(0)[0], w->Row(0)[1], w->Row(0)[2]}},
      // A render that ends after one field leaves it unwritten.
      {"new render", PalFields, {{a, 4, {}}, {{}, kRestart, {}}, {b, 6, {}}, {c, 6.5, {"6"}}}, 2, 2,
       {b_0, b_1, c->Row(0)[0], c->Row(0)[1]}},
      {"two frames", PalFields, {{a, 4, {}}, {b, 4.5, {"4"}}, {b, 5, {"4"}}, {a, 5.5, {"4", "5"}}}, 2, 2,
       {b_0, b_1, a0, a_1}},
      {"interactive and preview fields", PalFields,
       {{a, 4, {}, rflag::Interactive}, {b, 4.5, {}, rflag::Interactive}, {a, 4, {}, rflag::Preview},
        {b, 4.5, {}, rflag::Preview}, {b, 4, {}}, {a, 4.5, {"4"}}},
       2, 2, {b_0, b_1, a0, a_1}},
      {"interactive and preview frames", FullFrames,
       {{a, 4, {}, rflag::Interactive}, {b, 4.5, {}, rflag::Preview}, {c, 5, {"5"}}}, 2, 1,
       {c->Row(0)[0], c->Row(0)[1]}},
  };
  for (const auto& k : cases)
    for (FrameWriter* queue_on : {static_cast<FrameWriter*>(nullptr), &writer}) {
      SCOPED_TRACE(std::string(k.what) + (queue_on ? ", queued" : ""));
      writer_ = queue_on;
      const std::string sub = Sub(std::to_string(&k - cases) + (queue_on ? "q" : ""));
      const std::string clip = dir_ / (sub + "/out.#.png");
      Operator* saver = Saver(clip, k.mode, 0.5);
      ASSERT_TRUE(saver);
      for (const Step& s : k.steps) {
        if (s.t == kRestart) {
          StartRender(saver, 0.5);
          continue;
        }
        EXPECT_EQ(Feed(saver, s.img, s.t, s.flags).get(), s.img.get()) << s.t;
        std::vector<std::string> files;
        for (const std::string& n : s.files) files.push_back("out." + n + ".png");
        EXPECT_EQ(dir_.Files(sub), files) << s.t;
      }
      const Ref<Image> last = ReadNumber(clip, int(k.steps.back().t));
      ASSERT_TRUE(last);
      EXPECT_EQ((std::pair{last->Width(), last->Height()}), (std::pair{k.w, k.h}));
      EXPECT_EQ(Words(last), k.frame);
    }
}

// A refused write gives no output, one noted failure naming the frame's file, and no new file,
// neither the frame nor a temporary one. The folder is a plain file, or the frame's name is
// taken by a folder (the temporary file is written but cannot be renamed).
TEST_F(SaverTest, ARefusedWriteFailsTheFrame) {
  for (const char* class_name : {"Saver", "PreviewSaver"}) {
    for (const bool folder_is_a_file : {true, false}) {
      SCOPED_TRACE(std::string(class_name) + (folder_is_a_file ? ", folder is a file" : ", name taken by a folder"));
      const std::string sub = Sub(std::string(class_name) + (folder_is_a_file ? "-file" : "-folder"));
      const std::string in = folder_is_a_file ? "/blocker" : "";
      if (folder_is_a_file) {
        WriteBytes(dir_ / (sub + "/blocker"), "kept");
      } else {
        fs::create_directory(dir_.path() / sub / "out.0001.png");
        WriteBytes(dir_ / (sub + "/out.0001.png/blocker"), "kept");
      }
      Operator* saver = Saver(dir_ / (sub + in + "/out.####.png"), FullFrames, 1.0, class_name);
      ASSERT_TRUE(saver);
      TakeFailures();
      EXPECT_FALSE(Feed(saver, Numbered(2, 2, 1), 1));
      const std::vector<Failure> failures = TakeFailures();
      ASSERT_EQ(failures.size(), 1u);
      EXPECT_NE(failures[0].message.find(dir_ / (sub + in + "/out.0001.png")), std::string::npos) << failures[0].message;
      EXPECT_FALSE(failures[0].temporary);
      EXPECT_EQ(dir_.Files(sub), std::vector<std::string>{folder_is_a_file ? "blocker" : "out.0001.png"});
      EXPECT_EQ(ReadBytes(dir_ / (sub + (folder_is_a_file ? "" : "/out.0001.png") + "/blocker")), "kept");
    }
  }
}

// The Preview Saver resizes to the preview size, or into it keeping the aspect, and writes and
// passes on the resized image.
TEST_F(SaverTest, PreviewSaverWritesAtThePreviewSize) {
  const struct {
    bool fit;
    int box_w, box_h, w, h, out_w, out_h;
  } cases[] = {
      {true, 4, 4, 8, 4, 4, 2}, {true, 4, 4, 4, 8, 2, 4},  {true, 6, 4, 9, 4, 6, 2},  // 4 / 1.5 = 2.67
      {true, 8, 8, 4, 2, 8, 4}, {false, 4, 4, 8, 4, 4, 4}, {false, 3, 5, 8, 4, 3, 5},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(&c - cases));
    PPreview = {c.box_w, c.box_h, c.fit};
    const std::string sub = Sub(std::to_string(&c - cases));
    Operator* saver = Saver(dir_ / (sub + "/p.####.png"), Auto, 1.0, "PreviewSaver");
    ASSERT_TRUE(saver);
    const Ref<Image> out = Feed(saver, Flat(c.w, c.h, Bgra(10, 200, 30, 255)), 3);
    ASSERT_TRUE(out);
    EXPECT_EQ((std::pair{out->Width(), out->Height()}), (std::pair{c.out_w, c.out_h}));
    EXPECT_EQ(dir_.Files(sub), std::vector<std::string>{"p.0003.png"});
    EXPECT_EQ(Words(ReadNumber(dir_ / (sub + "/p.####.png"), 3)), Words(out));
  }
}

}  // namespace
}  // namespace kestrion::clip_test

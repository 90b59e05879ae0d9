// Text flows (.json): every kind of value they hold, the errors that refuse a flow as a whole
// (one message naming the tool and input and what is valid), and flows saved and loaded again
// as text and as documents.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "module/operator_contract.h"
#include "module/registry.h"
#include "host/clip/clip.h"
#include "host/document/document.h"
#include "host/document/flow_file.h"
#include "host/base/prefs.h"
#include "host/graph/registry.h"
#include "tests/host/test_tools.h"

namespace kestrion {
namespace {

namespace fs = std::filesystem;
using namespace test_tools;

constexpr uint32_t kTwinsId = FourCC("tTwn");

// Two inputs under one label, so that a flow must key them by id.
class Twins final : public TestTool<kTwinsId> {
 public:
  Twins(Registry* reg, CArchive* ar, TagList* tags) : TestTool(reg, ar, tags) {
    low = AddInput("Level", vtype::Number, FourCC("LvLo"));
    high = AddInput("Level", vtype::Number, FourCC("LvHi"));
    out = AddOutput("Value", vtype::Number, FourCC("Valu"));
    if (ar) module::SkipRecordEnd(ar);
  }
  uint32_t Process(Request* req) override {
    return req->SetOutputData(out, new Number(NumberIn(req, high) - NumberIn(req, low)));
  }
  Input* low;
  Input* high;
  Output* out;
};

class FlowFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::copy(fs::path(KESTRION_TEST_SOURCE_DIR) / "examples" / "media", dir_.path() / "media");
  }
  std::unique_ptr<CPipelineDoc> Load(const std::string& text, HostError* err) {
    return LoadTextFlow(text, dir_.path().string(), err);
  }

  TempFolder dir_;

 private:
  SavedPrefs prefs_;
  TestClasses classes_;
  Registry twins_{&ClassRegistry, "TestTwins",
                  TagList{Tag(reg::ClassInit, &Operator::RegInit), Tag(reg::ClassCleanup, &Operator::RegCleanup),
                          Tag(reg::Factory, &module::Factory<Twins>), Tag(reg::ClassId, kTwinsId),
                          Tag(reg::ClassType, classtype::ImageTool)}};
};

// A flow that holds a value of every kind a text flow can write, in every way it can be keyed.
// Shape1's data: two nodes, 1.5 and 2.0 (a count word, then little-endian doubles).
const char* const kEveryKind = R"({
  "kestrion": 1,
  "range": [2, 30],
  "time": 5,
  "preferences": {"proxy": 2, "video": {"width": 320, "height": 180, "aspect": [2.0, 1.0]},
                  "preview": {"width": 100, "height": 50, "fit": false}, "compression": {"png": 6}},
  "tools": {
    "Clock1":    {"class": "TestClock", "position": [10, -20], "inputs": {"Scale": 3}},
    "Defaults1": {"class": "TestDefaults", "inputs": {"Strength": 4.5, "Count": true, "Center": [0.25, 0.75],
                                                      "Method": "Cubic", "Label": "Title"}},
    "Adder1":    {"class": "TestAdder", "inputs": {"A": "Clock1", "B": "Clock1.Time"}},
    "Adder2":    {"class": "TestAdder", "inputs": {"AddA": {"keys": [[0, 1], [10, 21]], "curve": "linear"},
                                                   "0x42646441": {"value": 0.5}}},
    "Ramped":    {"class": "TestAdder", "inputs": {"B": 7, "A": {"modifier": {"class": "TestRamp", "name": "Ramp1",
                                                   "position": [5, 6], "inputs": {"Start": 1, "Rate": 2}}}}},
    "Chooser1":  {"class": "TestChooser", "inputs": {"Which": {"keys": [[0, "First"], [10, "Second"]]}}},
    "Twins1":    {"class": "TestTwins", "inputs": {"LvLo": 1.5, "0x6948764C": 4}},
    "Shape1":    {"class": "TestShape", "data": "02000000000000000000f83f0000000000000040", "inputs": {"Gain": 2}},
    "Saver1":    {"class": "Saver", "inputs": {"Field Mode": "PAL fields", "Image": "Merge1",
                                               "Filename": "out/every.####.png"}},
    "Merge1":    {"class": "Merge", "inputs": {"Center": {"keys": [[0, [0.1, 0.2]], [10, [0.5, 0.75]]], "curve": "bezier"},
                                               "Image": "Loader1", "Foreground": "Loader1.Image",
                                               "0x6C676EC1": 45, "AlGn": 0.5}},
    "Loader1":   {"class": "Loader", "inputs": {"Clip Time Start": 2, "Clip Time End": 5, "Loop": 1,
                                                "Missing Frames": "Hold Previous", "Filename": "media/plate.####.png"}}
  }
})";

// A tool's input by its label, or by its id where no input has that label.
Input* InputOf(CPipelineDoc& doc, const std::string& tool, const std::string& label) {
  Operator* op = doc.FindTool(tool);
  if (!op) return nullptr;
  for (const auto& in : op->Inputs())
    if (in->Name() == label) return in.get();
  uint32_t id = 0;
  return ParseFourCC(label, id) ? op->FindInput(id) : nullptr;
}

TEST_F(FlowFileTest, ValuesOfEveryKindLoad) {
  HostError err;
  auto doc = Load(kEveryKind, &err);
  ASSERT_NE(doc, nullptr) << err.message;

  EXPECT_EQ(doc->render_range, (TimeExtent{2.0, 30.0}));
  EXPECT_EQ(doc->current_time, 5.0);
  EXPECT_EQ(PGeneral.proxy, 2);
  EXPECT_EQ(std::vector<double>({double(PVidMode.width), double(PVidMode.height), PVidMode.aspect_x, PVidMode.aspect_y}),
            std::vector<double>({320, 180, 2, 1}));
  EXPECT_EQ(PPreview.width, 100);
  EXPECT_FALSE(PPreview.fit_to_box);
  EXPECT_EQ(ClipParameter::Compression()["png"], 6);
  EXPECT_EQ(std::make_pair(doc->FindTool("Clock1")->FlowX(), doc->FindTool("Clock1")->FlowY()), std::make_pair(10, -20));

  // Constants: numbers (true is 1), drop-down entries by text, and inputs keyed by id.
  const struct {
    const char* tool;
    const char* input;
    double value;
  } numbers[] = {
      {"Defaults1", "Strength", 4.5}, {"Defaults1", "Count", 1},      {"Defaults1", "Method", 2},
      {"Adder2", "B", 0.5},           {"Ramped", "B", 7},             {"Merge1", "Angle", 45},
      {"Merge1", "Alpha Gain", 0.5},  {"Saver1", "Field Mode", 2},    {"Loader1", "Missing Frames", 1},
      {"Loader1", "Loop", 1},         {"Loader1", "Clip Time Start", 2}, {"Loader1", "Clip Time End", 5},
      {"Twins1", "LvLo", 1.5},        {"Twins1", "LvHi", 4},
  };
  for (const auto& c : numbers) {
    SCOPED_TRACE(std::string(c.tool) + "." + c.input);
    Input* in = InputOf(*doc, c.tool, c.input);
    ASSERT_NE(in, nullptr);
    EXPECT_EQ(CurrentNumber(in), c.value);
  }

  Ref<Parameter> center = Ref<Parameter>::Adopt(InputOf(*doc, "Defaults1", "Center")->CurrentValue());
  EXPECT_TRUE(center && center->Equals(Point(0.25f, 0.75f)));
  Ref<Parameter> label = Ref<Parameter>::Adopt(InputOf(*doc, "Defaults1", "Label")->CurrentValue());
  EXPECT_TRUE(label && label->Equals(Text("Title")));

  // Clips: relative to the flow's folder, read before the range inputs that follow them here.
  Ref<Parameter> clip = Ref<Parameter>::Adopt(InputOf(*doc, "Loader1", "Filename")->CurrentValue());
  auto* loader_clip = dynamic_cast<ClipParameter*>(clip.get());
  ASSERT_NE(loader_clip, nullptr);
  EXPECT_EQ(loader_clip->Name(), "media/plate.####.png");
  EXPECT_EQ(loader_clip->Length(), 8);
  EXPECT_EQ(fs::path(loader_clip->Path()).parent_path(), dir_.path() / "media");

  // Links: "Tool" and "Tool.Output", on number and image inputs.
  const char* const links[][3] = {{"Adder1", "A", "Clock1"},       {"Adder1", "B", "Clock1"},
                                  {"Merge1", "Image", "Loader1"},   {"Merge1", "Foreground", "Loader1"},
                                  {"Saver1", "Image", "Merge1"}};
  for (const auto& [tool, input, from] : links)
    EXPECT_EQ(InputOf(*doc, tool, input)->Link(), doc->FindTool(from)->Outputs()[0].get()) << tool << "." << input;
  EXPECT_EQ(RenderNumber(*doc, doc->FindTool("Adder1")->Outputs()[0].get(), 2.0), 12.0);

  // Animation: the curve given, or the input's own; keys by entry text.
  const Spline* gain = InputOf(*doc, "Adder2", "A")->Animation();
  ASSERT_NE(gain, nullptr);
  EXPECT_EQ(gain->Curve(), Spline::Linear);
  EXPECT_EQ(RenderNumber(*doc, doc->FindTool("Adder2")->Outputs()[0].get(), 5.0), 11.5);
  const Spline* which = InputOf(*doc, "Chooser1", "Which")->Animation();
  ASSERT_NE(which, nullptr);
  ASSERT_EQ(which->Keys().size(), 2u);
  EXPECT_EQ(which->Keys()[0].value[0], 0.0);
  EXPECT_EQ(which->Keys()[1].value[0], 1.0);
  const Spline* path = InputOf(*doc, "Merge1", "Center")->Animation();
  ASSERT_NE(path, nullptr);
  EXPECT_EQ(path->Curve(), Spline::Bezier);
  ASSERT_EQ(path->Keys().size(), 2u);
  EXPECT_EQ(path->Keys()[1].time, 10.0);
  EXPECT_EQ(path->Keys()[1].value[0], double(0.5f));
  EXPECT_EQ(path->Keys()[1].value[1], double(0.75f));

  // A modifier with its own name, place and inputs drives the input it is written under.
  Operator* ramp = InputOf(*doc, "Ramped", "A")->Modifier();
  ASSERT_NE(ramp, nullptr);
  EXPECT_EQ(ramp->Name(), "Ramp1");
  EXPECT_EQ(std::make_pair(ramp->FlowX(), ramp->FlowY()), std::make_pair(5, 6));
  EXPECT_EQ(RenderNumber(*doc, doc->FindTool("Ramped")->Outputs()[0].get(), 3.0), 1 + 2 * 3 + 7.0);

  // The tool's own data.
  auto* shape = dynamic_cast<Shape*>(doc->FindTool("Shape1"));
  ASSERT_NE(shape, nullptr);
  EXPECT_EQ(shape->nodes, (std::vector<double>{1.5, 2.0}));
  EXPECT_EQ(RenderNumber(*doc, shape->out, 0.0), 7.0);
}

// A flow that cannot be loaded gives nothing and one message naming the tool and the input
// and what would have been valid; the process-wide settings it asked for are not taken.
TEST_F(FlowFileTest, AWrongFlowIsRefusedWithOneMessage) {
  const auto flow = [](const std::string& tools) {
    return R"({"kestrion": 1, "range": [1, 8], "preferences": {"proxy": 4, "video": {"width": 99},
               "compression": {"png": 9}}, "tools": {)" +
           tools + "}}";
  };
  const std::string loader = R"("Loader1": {"class": "Loader", "inputs": {"Filename": "media/plate.####.png"}})";
  const struct {
    const char* what;
    std::string text;
    std::vector<std::string> expected;
  } cases[] = {
      {"unknown class", flow(R"("Blur1": {"class": "Blurr"})"),
       {"tool \"Blur1\": unknown class \"Blurr\" (valid: ", "Loader", "ColorGain", "PreviewSaver"}},
      {"unknown label", flow(R"("Saver1": {"class": "Saver", "inputs": {"File Name": "a.png"}})"),
       {R"(tool "Saver1": no input "File Name" (valid: "Filename", "Field Mode", "Image"))"}},
      {"ambiguous label", flow(R"("Twins1": {"class": "TestTwins", "inputs": {"Level": 1}})"),
       {"tool \"Twins1\"", "\"Level\"", "by id", "LvLo", "LvHi"}},
      {"number as array", flow(R"("Loader1": {"class": "Loader", "inputs": {"Loop": [1, 0]}})"),
       {R"(tool "Loader1", input "Loop" takes a number)"}},
      {"point as number", flow(R"("Merge1": {"class": "Merge", "inputs": {"Center": 0.5}})"),
       {R"(tool "Merge1", input "Center" takes a point [x, y])"}},
      {"text as number", flow(R"("Defaults1": {"class": "TestDefaults", "inputs": {"Label": 3}})"),
       {R"(tool "Defaults1", input "Label" takes a string)"}},
      {"clip as number", flow(R"("Loader1": {"class": "Loader", "inputs": {"Filename": 7}})"),
       {R"(tool "Loader1", input "Filename" takes a clip name)"}},
      {"image as number", flow(R"("Saver1": {"class": "Saver", "inputs": {"Image": 1}})"),
       {R"(tool "Saver1", input "Image" takes an image)"}},
      {"misspelt entry", flow(loader + R"(, "Saver1": {"class": "Saver", "inputs": {"Field Mode": "Full Frames"}})"),
       {R"(tool "Saver1", input "Field Mode")", "\"Full Frames\"", "\"Full frames\"", "\"Auto\""}},
      {"link to a missing tool", flow(loader + R"(, "Saver1": {"class": "Saver", "inputs": {"Image": "Loader2"}})"),
       {R"(tool "Saver1", input "Image": no tool "Loader2")", "\"Loader1\""}},
      {"link to a missing output", flow(loader + R"(, "Saver1": {"class": "Saver", "inputs": {"Image": "Loader1.Matte"}})"),
       {R"(tool "Saver1", input "Image": tool "Loader1" has no output "Matte" (valid: "Image"))"}},
      {"link that does not fit",
       flow(loader + R"(, "Defaults1": {"class": "TestDefaults", "inputs": {"Strength": "Loader1"}})"),
       {R"(tool "Defaults1", input "Strength": tool "Loader1" has no output that fits)"}},
      {"link cycle", flow(R"("Adder1": {"class": "TestAdder", "inputs": {"A": "Adder2"}},
                             "Adder2": {"class": "TestAdder", "inputs": {"A": "Adder1"}})"),
       {"input \"A\""}},
      {"unknown curve",
       flow(R"("Clock1": {"class": "TestClock", "inputs": {"Scale": {"keys": [[0, 1]], "curve": "cubic"}}})"),
       {R"(tool "Clock1", input "Scale": "curve" must be "linear" or "bezier")"}},
      {"key of the wrong type", flow(R"("Merge1": {"class": "Merge", "inputs": {"Center": {"keys": [[0, 1]]}}})"),
       {R"(tool "Merge1", input "Center", key at 0 takes a point)"}},
      {"unknown key of a value", flow(R"("Clock1": {"class": "TestClock", "inputs": {"Scale": {"valu": 1}}})"),
       {R"(tool "Clock1", input "Scale": unknown key "valu" (valid: value, keys, curve, link, modifier))"}},
      {"modifier's own input", flow(R"("Adder1": {"class": "TestAdder", "inputs": {"A": {"modifier":
                                       {"class": "TestRamp", "name": "Ramp1", "inputs": {"Speed": 1}}}}})"),
       {R"(tool "Ramp1": no input "Speed" (valid: "Start", "Rate"))"}},
      {"unknown tool key", flow(R"("Saver1": {"class": "Saver", "input": {}})"),
       {R"(tool "Saver1": unknown key "input" (valid: class, inputs, position, data, attributes))"}},
      {"attribute id", flow(R"("Luma1": {"class": "Threshold", "attributes": {"100000C8": 0}})"),
       {R"(tool "Luma1": attribute "100000C8" is not an id such as "0x100000C8")"}},
      {"attribute value", flow(R"("Luma1": {"class": "Threshold", "attributes": {"0x100000C8": -1}})"),
       {R"(tool "Luma1": attribute "0x100000C8" must be a whole number from 0 to 4294967295)"}},
      {"bad data", flow(R"("Shape1": {"class": "TestShape", "data": "0g"})"), {R"(tool "Shape1": "data")", "hexadecimal"}},
      {"bad JSON", R"({"kestrion": 1, "tools": {"Saver1": {"class": "Saver",}}})", {"not valid JSON", "line 1"}},
      {"not a flow", R"({"tools": {}})", {R"("kestrion": 1 is missing)"}},
      {"reversed range", R"({"kestrion": 1, "range": [8, 1]})", {R"("range" must be [first, last])"}},
      {"proxy out of range", R"({"kestrion": 1, "preferences": {"proxy": 0}})",
       {R"("proxy" must be a whole number from 1 to 1024)"}},
      // Found by fuzzing: each loaded before, and then failed on its way through a document.
      {"empty tool name", flow(R"("": {"class": "Saver"})"), {"a tool has an empty name"}},
      {"point past a float", flow(R"("Merge1": {"class": "Merge", "inputs": {"Center": [1e39, 0.5]}})"),
       {R"(tool "Merge1", input "Center" takes a point [x, y])"}},
      {"codec key that is no extension", R"({"kestrion": 1, "preferences": {"compression": {"p'g": 6}}})",
       {R"("p'g" is not a file extension)"}},
  };
  const int proxy = PGeneral.proxy, width = PVidMode.width, png = ClipParameter::Compression()["png"];
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    HostError err;
    EXPECT_EQ(Load(c.text, &err), nullptr);
    EXPECT_EQ(err.message.find('\n'), std::string::npos) << err.message;
    for (const std::string& piece : c.expected) EXPECT_NE(err.message.find(piece), std::string::npos) << err.message;
    EXPECT_EQ(PGeneral.proxy, proxy);
    EXPECT_EQ(PVidMode.width, width);
    EXPECT_EQ(ClipParameter::Compression()["png"], png);
  }
}

// Saving a loaded flow gives text that loads back to the same flow: as text, through a .kfl
// document (which carries the settings itself) and through a .json file.
TEST_F(FlowFileTest, FlowsSurviveSavingAsTextAndAsDocuments) {
  HostError err;
  auto doc = Load(kEveryKind, &err);
  ASSERT_NE(doc, nullptr) << err.message;
  const std::string text = SaveTextFlow(*doc);
  // Inputs that share a label are written by id.
  EXPECT_NE(text.find("\"0x6F4C764C\": 1.5"), std::string::npos) << text;
  EXPECT_NE(text.find("\"0x6948764C\": 4.0"), std::string::npos) << text;
  EXPECT_NE(text.find("\"data\": \"02000000000000000000f83f0000000000000040\""), std::string::npos) << text;

  auto again = Load(text, &err);
  ASSERT_NE(again, nullptr) << err.message;
  EXPECT_EQ(SaveTextFlow(*again), text);

  const fs::path kfl = dir_.path() / "flow.kfl", json = dir_.path() / "again.json";
  ASSERT_TRUE(SaveFlowFile(*doc, kfl.string(), &err)) << err.message;
  doc.reset();
  again.reset();
  PGeneral = {};
  PVidMode = {};
  PPreview = {};
  ClipParameter::SetCompression("png", 1);
  auto from_kfl = LoadFlowFile(kfl.string(), &err);
  ASSERT_NE(from_kfl, nullptr) << err.message;
  EXPECT_EQ(SaveTextFlow(*from_kfl), text);

  ASSERT_TRUE(SaveFlowFile(*from_kfl, json.string(), &err)) << err.message;
  EXPECT_EQ(ReadBytes(json), text);
  auto from_json = LoadFlowFile(json.string(), &err);
  ASSERT_NE(from_json, nullptr) << err.message;
  EXPECT_EQ(SaveTextFlow(*from_json), text);
}

// A Luma Keyer of an old flow, its check box "Vert", keeps that through text; a new one writes
// no attributes.
TEST_F(FlowFileTest, AttributesAToolKeepsSurviveText) {
  HostError err;
  auto doc = Load(R"({"kestrion": 1, "tools": {"Old": {"class": "Threshold", "attributes": {"0x100000C8": 0},
                                                       "inputs": {"Vert": 1}},
                                               "New": {"class": "Threshold"}}})",
                  &err);
  ASSERT_NE(doc, nullptr) << err.message;
  const std::string text = SaveTextFlow(*doc);
  EXPECT_EQ(text.find("\"attributes\""), text.rfind("\"attributes\"")) << text;
  auto again = Load(text, &err);
  ASSERT_NE(again, nullptr) << err.message;
  EXPECT_EQ(SaveTextFlow(*again), text);
  const uint32_t check_box = 0x74766EC9;
  EXPECT_EQ(again->FindTool("Old")->FindInput(check_box)->Name(), "Vert");
  EXPECT_EQ(CurrentNumber(again->FindTool("Old")->FindInput(check_box)), 1.0);
  EXPECT_EQ(again->FindTool("New")->FindInput(check_box)->Name(), "Invert");
}

// A flow saved into another folder still reads and writes the same files: its relative clip
// names are written from the new folder; saved beside the old file they stay as they are.
TEST_F(FlowFileTest, FlowsSavedElsewhereKeepTheirClips) {
  const fs::path root = dir_.path();
  fs::create_directories(root / "shot" / "media");
  fs::create_directories(root / "elsewhere" / "deeper");
  WriteBytes((root / "shot" / "flow.json").string(), R"({"kestrion": 1, "tools": {
      "Loader1": {"class": "Loader", "inputs": {"Filename": "media/plate.####.png"}},
      "Saver1": {"class": "Saver", "inputs": {"Filename": "/abs/out.####.png", "Image": "Loader1"}}}})");
  HostError err;
  auto doc = LoadFlowFile((root / "shot" / "flow.json").string(), &err);
  ASSERT_NE(doc, nullptr) << err.message;
  const auto clip = [](const CPipelineDoc& d, const char* tool) {
    return dynamic_cast<const ClipParameter*>(d.FindTool(tool)->FindInput(FourCC("File"))->Constant());
  };
  const std::string plate = fs::absolute(clip(*doc, "Loader1")->Path()).lexically_normal().string();
  const struct {
    fs::path path;
    const char* name;
  } cases[] = {
      {root / "shot" / "again.json", "media/plate.####.png"},
      {root / "elsewhere" / "deeper" / "flow.json", "../../shot/media/plate.####.png"},
      {root / "elsewhere" / "flow.kfl", "../shot/media/plate.####.png"},
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(SaveFlowFile(*doc, c.path.string(), &err)) << err.message;
    auto again = LoadFlowFile(c.path.string(), &err);
    ASSERT_NE(again, nullptr) << err.message;
    EXPECT_EQ(clip(*again, "Loader1")->Name(), c.name) << c.path;
    EXPECT_EQ(fs::absolute(clip(*again, "Loader1")->Path()).lexically_normal().string(), plate) << c.path;
    EXPECT_EQ(clip(*again, "Saver1")->Name(), "/abs/out.####.png") << c.path;
  }
}

TEST_F(FlowFileTest, FlowFilesThatCannotBeReadNameTheFile) {
  WriteBytes(dir_ / "flow.txt", "{\"kestrion\": 1}");
  WriteBytes(dir_ / "broken.json", "{\"kestrion\": 1, \"tools\": {\"X\": {\"class\": \"Nope\"}}}");
  WriteBytes(dir_ / "broken.kfl", "not a document");
  const std::pair<const char*, const char*> cases[] = {{"flow.txt", ".json or .kfl"},
                                                       {"missing.json", "cannot read"},
                                                       {"missing.kfl", "cannot open"},
                                                       {"broken.json", "tool \"X\": unknown class \"Nope\""},
                                                       {"broken.kfl", "not a flow document"}};
  for (const auto& [name, expected] : cases) {
    HostError err;
    EXPECT_EQ(LoadFlowFile(dir_ / name, &err), nullptr) << name;
    EXPECT_NE(err.message.find(expected), std::string::npos) << err.message;
    EXPECT_NE(err.message.find(dir_ / name), std::string::npos) << err.message;
  }
  const std::pair<const char*, const char*> saves[] = {{"flow.txt", ".json or .kfl"},
                                                       {"no-folder/flow.kfl", "cannot write"}};
  for (const auto& [name, expected] : saves) {
    HostError err;
    EXPECT_FALSE(SaveFlowFile(CPipelineDoc(), dir_ / name, &err)) << name;
    EXPECT_NE(err.message.find(expected), std::string::npos) << err.message;
    EXPECT_NE(err.message.find(dir_ / name), std::string::npos) << err.message;
  }
}

}  // namespace
}  // namespace kestrion

// Small operators that host tests build flows from: a clock, an adder, a tool that samples its
// input around the request time, a chooser that leaves one input unrendered, a tool that fails
// in chosen ways, a tool with defaults of every kind, a tool with data of its own (saved and
// undone), a modifier, and a picture source whose image a test sets. Their classes are entered
// in the ClassRegistry only while a TestClasses object (for the picture, a PictureClass object)
// lives, so the catalogue seen by other suites is untouched. Beside them: a temporary folder,
// whole-file reads and writes, and the process-wide settings saved and put back.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "module/operator_contract.h"
#include "module/registry.h"
#include "host/base/archive.h"
#include "host/clip/clip.h"
#include "host/document/document.h"
#include "host/image/image.h"
#include "host/graph/operator.h"
#include "host/base/prefs.h"
#include "host/graph/registry.h"
#include "host/graph/request.h"

namespace kestrion::test_tools {

constexpr uint32_t kClockId = FourCC("tClk");
constexpr uint32_t kAdderId = FourCC("tAdd");
constexpr uint32_t kSpreadId = FourCC("tSpr");
constexpr uint32_t kChooserId = FourCC("tChs");
constexpr uint32_t kTroubleId = FourCC("tTrb");
constexpr uint32_t kDefaultsId = FourCC("tDef");
constexpr uint32_t kShapeId = FourCC("tShp");
constexpr uint32_t kRampId = FourCC("tRmp");
constexpr uint32_t kPictureId = FourCC("tPic");

// A folder of its own under the system's temporary folder, removed with all it holds.
class TempFolder {
 public:
  TempFolder() {
    static std::atomic<unsigned> counter{0};
    path_ = std::filesystem::temp_directory_path() /
            ("kestrion-test-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~TempFolder() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }
  // The names in this folder or a folder in it, sorted, hidden ones included.
  std::vector<std::string> Files(const std::string& sub = {}) const {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(path_ / sub, ec))
      names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

 private:
  std::filesystem::path path_;
};

// A whole file (empty when it cannot be read).
inline std::string ReadBytes(const std::filesystem::path& path) {
  std::ifstream f(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}
inline void WriteBytes(const std::filesystem::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// The process-wide settings a test may change (general, video mode, preview, and the clip
// compression levels), put back as they were when this goes.
class SavedPrefs {
 public:
  SavedPrefs() = default;
  ~SavedPrefs() {
    PGeneral = general_;
    PVidMode = video_;
    PPreview = preview_;
    ClipParameter::SetCompression(compression_);
  }
  SavedPrefs(const SavedPrefs&) = delete;
  SavedPrefs& operator=(const SavedPrefs&) = delete;

 private:
  GeneralPrefs general_ = PGeneral;
  VideoModePrefs video_ = PVidMode;
  PreviewPrefs preview_ = PPreview;
  std::map<std::string, int> compression_ = ClipParameter::Compression();
};

// The number on an input of a request, or NaN when there is none.
inline double NumberIn(Request* req, Input* in, int slot = 0) {
  auto* n = dynamic_cast<Number*>(req->GetInputData(in, slot));
  return n ? n->value : std::nan("");
}

// An input's value outside a render as a number (NaN when it is not one).
inline double CurrentNumber(const Input* in) {
  Ref<Parameter> v = Ref<Parameter>::Adopt(in->CurrentValue());
  auto* n = dynamic_cast<Number*>(v.get());
  return n ? n->value : std::nan("");
}

// Renders an output and reads it as a number; nullopt when the render fails or gives no number.
inline std::optional<double> RenderNumber(CPipelineDoc& doc, Output* out, double time, HostError* err = nullptr,
                                          uint32_t flags = 0) {
  HostError local;
  Ref<Parameter> v = doc.Render(out, time, flags, err ? err : &local);
  auto* n = dynamic_cast<Number*>(v.get());
  if (!n) return std::nullopt;
  return n->value;
}

// Writes the record every tool writes: class id, base record, own fields, 0, "EndC".
template <uint32_t ClassId>
class TestTool : public Operator {
 public:
  using Operator::Operator;
  uint32_t Save(CArchive* ar, TagList* tags) override {
    ar->WriteWord(ClassId);
    const uint32_t ok = Operator::Save(ar, tags) & 1;
    SaveFields(ar);
    module::WriteRecordEnd(ar);
    return ok;
  }

 protected:
  virtual void SaveFields(CArchive*) {}
};

// Outputs the request time times "Scale".
class Clock final : public TestTool<kClockId> {
 public:
  Clock(Registry* reg, CArchive* ar, TagList* tags) : TestTool(reg, ar, tags) {
    scale = AddInput("Scale", vtype::Number, FourCC("Scal"), {Tag(in::Default, 1.0)});
    out = AddOutput("Time", vtype::Number, FourCC("Time"));
    if (ar) module::SkipRecordEnd(ar);
  }
  uint32_t Process(Request* req) override { return req->SetOutputData(out, new Number(req->time * NumberIn(req, scale))); }
  Input* scale;
  Output* out;
};

class Adder final : public TestTool<kAdderId> {
 public:
  Adder(Registry* reg, CArchive* ar, TagList* tags) : TestTool(reg, ar, tags) {
    a = AddInput("A", vtype::Number, FourCC("AddA"));
    b = AddInput("B", vtype::Number, FourCC("AddB"));
    out = AddOutput("Sum", vtype::Number, FourCC("Sum "));
    if (ar) module::SkipRecordEnd(ar);
  }
  uint32_t Process(Request* req) override {
    return req->SetOutputData(out, new Number(NumberIn(req, a) + NumberIn(req, b)));
  }
  Input* a;
  Input* b;
  Output* out;
};

// Asks for its input one frame before and one frame after the request and adds the two.
class Spread final : public TestTool<kSpreadId> {
 public:
  Spread(Registry* reg, CArchive* ar, TagList* tags) : TestTool(reg, ar, tags) {
    value = AddInput("Value", vtype::Number, FourCC("Valu"));
    out = AddOutput("Sum", vtype::Number, FourCC("Sum "));
    if (ar) module::SkipRecordEnd(ar);
  }
  void CheckRequest(Request* req) override {
    if (req->status != -1) return;
    value_seen_first = NumberIn(req, value);
    req->SetInputTime(value, req->time - 1, 0);
    req->SetInputTime(value, req->time + 1, 1);
  }
  uint32_t Process(Request* req) override {
    slots_seen = req->InputSlots(value);
    times_seen = {req->GetInputTime(value, 0), req->GetInputTime(value, 1)};
    return req->SetOutputData(out, new Number(NumberIn(req, value, 0) + NumberIn(req, value, 1)));
  }
  Input* value;
  Output* out;
  int slots_seen = 0;
  std::vector<double> times_seen;
  double value_seen_first = 0;  // by CheckRequest, at the request's time
};

// Outputs "First" or "Second" as "Which" says, and tells the renderer the other is not needed.
class Chooser final : public TestTool<kChooserId> {
 public:
  Chooser(Registry* reg, CArchive* ar, TagList* tags) : TestTool(reg, ar, tags) {
    first = AddInput("First", vtype::Number, FourCC("Frst"));
    second = AddInput("Second", vtype::Number, FourCC("Scnd"));
    which = AddInput("Which", vtype::Number, FourCC("Whch"),
                     {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "First"), Tag(in::ListEntry, "Second")});
    out = AddOutput("Value", vtype::Number, FourCC("Valu"));
    if (ar) module::SkipRecordEnd(ar);
  }
  Input* Chosen(double time) const {
    Ref<Parameter> w = Ref<Parameter>::Adopt(which->ValueAt(time));
    auto* n = dynamic_cast<Number*>(w.get());
    return n && n->value >= 0.5 ? second : first;
  }
  void CheckRequest(Request* req) override {
    if (req->status != -1) return;
    req->SetInputData(Chosen(req->time) == first ? second : first, nullptr, 0);
  }
  uint32_t Process(Request* req) override {
    Input* chosen = Chosen(req->time);
    dropped_had_value = req->GetInputData(chosen == first ? second : first) != nullptr;
    return req->SetOutputData(out, new Number(NumberIn(req, chosen)));
  }
  Input* first;
  Input* second;
  Input* which;
  Output* out;
  bool dropped_had_value = false;
};

// Passes "Value" on, or fails in the way "Mode" chooses.
class Trouble final : public TestTool<kTroubleId> {
 public:
  enum Mode { Pass, ReturnZero, ImpossibleImage, StopFlow, StopSelf, Throw };
  Trouble(Registry* reg, CArchive* ar, TagList* tags) : TestTool(reg, ar, tags) {
    value = AddInput("Value", vtype::Number, FourCC("Valu"));
    mode = AddInput("Mode", vtype::Number, FourCC("Mode"),
                    {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Pass"), Tag(in::ListEntry, "Return Zero"),
                     Tag(in::ListEntry, "Impossible Image"), Tag(in::ListEntry, "Stop Flow"),
                     Tag(in::ListEntry, "Stop Self"), Tag(in::ListEntry, "Throw")});
    out = AddOutput("Value", vtype::Number, FourCC("Valu"));
    if (ar) module::SkipRecordEnd(ar);
  }
  uint32_t Process(Request* req) override {
    switch (int(NumberIn(req, mode))) {
      case ReturnZero:
        return 0;
      case ImpossibleImage:
        NewImage(req, -4, 4, 32, nullptr);
        break;
      case StopFlow:
        Document()->Abort();
        break;
      case StopSelf:
        abort_flag = 1;
        break;
      case Throw:
        throw std::runtime_error("out of coffee");
      default:
        break;
    }
    return req->SetOutputData(out, new Number(NumberIn(req, value)));
  }
  Input* value;
  Input* mode;
  Output* out;
};

// Inputs of every kind with their defaults and limits.
class Defaults final : public TestTool<kDefaultsId> {
 public:
  Defaults(Registry* reg, CArchive* ar, TagList* tags) : TestTool(reg, ar, tags) {
    strength = AddInput("Strength", vtype::Number, FourCC("Strn"),
                        {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::Highest, 10.0),
                         Tag(in::SliderLow, 0.0), Tag(in::SliderHigh, 5.0), Tag(in::Default, 2.5)});
    count = AddInput("Count", vtype::Number, FourCC("Cont"), {Tag(in::WholeNumber, 1), Tag(in::Lowest, -3)});
    center = AddInput("Center", vtype::Point, HighFourCC("Cent"),
                      {Tag(in::PreviewControl, control::CrossHair), Tag(in::DefaultX, 0.5), Tag(in::DefaultY, 0.25)});
    method = AddInput("Method", vtype::Number, FourCC("Mthd"),
                      {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Nearest"), Tag(in::ListEntry, "Linear"),
                       Tag(in::ListEntry, "Cubic"), Tag(in::Default, 1)});
    label = AddInput("Label", vtype::Text, FourCC("Labl"), {Tag(in::Control, control::TextEdit)});
    image = AddInput("Image", vtype::Image, ImageInputId(1), {Tag(in::Required, 0)});
    out = AddOutput("Value", vtype::Number, FourCC("Valu"));
    if (ar) module::SkipRecordEnd(ar);
  }
  uint32_t Process(Request* req) override { return req->SetOutputData(out, new Number(NumberIn(req, strength))); }
  Input* strength;
  Input* count;
  Input* center;
  Input* method;
  Input* label;
  Input* image;
  Output* out;
};

// A tool with data of its own, outside its inputs: a list of nodes it saves in its record and
// that undo restores. Outputs "Gain" times the sum of the nodes.
class Shape final : public TestTool<kShapeId> {
 public:
  struct State final : UndoState {
    explicit State(std::vector<double> n) : nodes(std::move(n)) {}
    std::vector<double> nodes;
  };

  Shape(Registry* reg, CArchive* ar, TagList* tags) : TestTool(reg, ar, tags) {
    gain = AddInput("Gain", vtype::Number, FourCC("Gain"), {Tag(in::Default, 1.0)});
    out = AddOutput("Total", vtype::Number, FourCC("Totl"));
    if (!ar) return;
    const uint32_t n = ar->ReadWord();
    if (n > ar->Remaining() / 8) throw ArchiveError("the shape claims " + std::to_string(n) + " nodes");
    for (uint32_t i = 0; i < n; ++i) nodes.push_back(ar->ReadDouble());
    module::SkipRecordEnd(ar);
  }

  // An edit as a preview handler makes it: one named undo step around the change.
  void SetNodes(std::vector<double> next) {
    StartUndo("Edit Shape");
    ObtainLock();
    nodes = std::move(next);
    ReleaseLock();
    InvalidateCache(nullptr);
    EndUndo(1);
  }

  UndoState* SaveState() override { return new State(nodes); }
  void RestoreState(UndoState* state) override {
    if (auto* s = dynamic_cast<State*>(state)) nodes = s->nodes;
  }
  uint32_t Process(Request* req) override {
    double sum = 0;
    for (double v : nodes) sum += v;
    return req->SetOutputData(out, new Number(NumberIn(req, gain) * sum));
  }

  Input* gain;
  Output* out;
  std::vector<double> nodes;

 protected:
  void SaveFields(CArchive* ar) override {
    ar->WriteWord(uint32_t(nodes.size()));
    for (double v : nodes) ar->WriteDouble(v);
  }
};

// A modifier: outputs "Start" + "Rate" x time. When it is attached, it starts from the value
// the input had.
class Ramp final : public TestTool<kRampId> {
 public:
  Ramp(Registry* reg, CArchive* ar, TagList* tags) : TestTool(reg, ar, tags) {
    start = AddInput("Start", vtype::Number, FourCC("Strt"));
    rate = AddInput("Rate", vtype::Number, FourCC("Rate"));
    out = AddOutput("Value", vtype::Number, FourCC("Valu"));
    if (ar) module::SkipRecordEnd(ar);
  }
  void SetSource(Output* o, Parameter* current, double time) override {
    ++sources_set;
    source_output = o;
    source_time = time;
    if (auto* n = dynamic_cast<Number*>(current)) {
      source_value = n->value;
      start->SetValue(new Number(n->value));
    }
  }
  uint32_t Process(Request* req) override {
    return req->SetOutputData(out, new Number(NumberIn(req, start) + NumberIn(req, rate) * req->time));
  }
  Input* start;
  Input* rate;
  Output* out;
  int sources_set = 0;
  Output* source_output = nullptr;
  double source_value = std::nan("");
  double source_time = std::nan("");
  static inline int alive = 0;

 private:
  // Counts live ramps, also when a constructor gives up part way.
  struct Life {
    Life() { ++alive; }
    ~Life() { --alive; }
  } life_;
};

// Enters the test classes in the ClassRegistry for as long as it lives.
class TestClasses {
 public:
  TestClasses() {
    Add<Clock>("TestClock", kClockId, classtype::Creator);
    Add<Adder>("TestAdder", kAdderId, classtype::ImageTool);
    Add<Spread>("TestSpread", kSpreadId, classtype::ImageTool);
    Add<Chooser>("TestChooser", kChooserId, classtype::ImageTool);
    Add<Trouble>("TestTrouble", kTroubleId, classtype::ImageTool);
    Add<Defaults>("TestDefaults", kDefaultsId, classtype::ImageTool);
    Add<Shape>("TestShape", kShapeId, classtype::ImageTool);
    Add<Ramp>("TestRamp", kRampId, classtype::Modifier, {Tag(reg::ModifierType, vtype::Number)});
  }
  ~TestClasses() {
    while (!records_.empty()) records_.pop_back();
  }
  TestClasses(const TestClasses&) = delete;
  TestClasses& operator=(const TestClasses&) = delete;

 private:
  template <class Tool>
  void Add(const char* name, uint32_t id, uint32_t type, std::initializer_list<Tag> extra = {}) {
    TagList tags{Tag(reg::ClassInit, &Operator::RegInit), Tag(reg::ClassCleanup, &Operator::RegCleanup),
                 Tag(reg::Factory, &module::Factory<Tool>), Tag(reg::ClassId, id), Tag(reg::ClassType, type)};
    for (const Tag& t : extra) tags.Add(t);
    records_.push_back(std::make_unique<Registry>(&ClassRegistry, name, std::move(tags)));
  }
  std::vector<std::unique_ptr<Registry>> records_;
};

// Creates a tool of a test class in a document and returns it as its own type.
template <class Tool>
Tool* Make(CPipelineDoc& doc, const char* class_name, const std::string& name = {}) {
  HostError err;
  Operator* op = doc.CreateTool(class_name, name, &err);
  return dynamic_cast<Tool*>(op);
}

// Outputs `image` itself (or nothing while it is unset), the same object on every render; or,
// where `frames` holds images, the one for the request's time (nothing at other times).
class Picture final : public TestTool<kPictureId> {
 public:
  Picture(Registry* reg, CArchive* ar, TagList* tags) : TestTool(reg, ar, tags) {
    out = AddOutput("Image", vtype::Image, ImageOutputId(1));
    if (ar) module::SkipRecordEnd(ar);
  }
  uint32_t Process(Request* req) override {
    times_asked.push_back(req->time);
    Image* shown = image.get();
    if (!frames.empty()) shown = frames.count(req->time) ? frames[req->time].get() : nullptr;
    if (shown) shown->Use();
    return req->SetOutputData(out, shown);
  }
  Output* out;
  Ref<Image> image;
  std::map<double, Ref<Image>> frames;
  std::vector<double> times_asked;
};

// Enters the picture class as "TestPicture" while it lives; declare it before the document.
struct PictureClass {
  Registry record{&ClassRegistry, "TestPicture",
                  TagList{Tag(reg::ClassInit, &Operator::RegInit), Tag(reg::ClassCleanup, &Operator::RegCleanup),
                          Tag(reg::Factory, &module::Factory<Picture>), Tag(reg::ClassId, kPictureId),
                          Tag(reg::ClassType, classtype::Creator)}};
};

}  // namespace kestrion::test_tools

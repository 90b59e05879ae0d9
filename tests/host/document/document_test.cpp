// Tool records and whole flow documents: what a new tool holds, the framing of a saved record,
// a flow saved and loaded back (in memory and through a file), and documents that are cut off,
// damaged or refer to what is not there, which must load fully or fail with one message.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "module/operator_contract.h"
#include "host/base/archive.h"
#include "host/clip/clip.h"
#include "host/document/document.h"
#include "host/base/prefs.h"
#include "host/graph/registry.h"
#include "tests/host/test_tools.h"

namespace kestrion {
namespace {

using namespace test_tools;

class DocumentTest : public ::testing::Test {
 protected:
  SavedPrefs prefs_;
  std::unique_ptr<TestClasses> classes_ = std::make_unique<TestClasses>();
};

std::vector<uint8_t> Word(uint32_t w) { return {uint8_t(w), uint8_t(w >> 8), uint8_t(w >> 16), uint8_t(w >> 24)}; }

std::vector<uint8_t> SaveBytes(const CPipelineDoc& doc) {
  CArchive ar;
  doc.Save(ar);
  return ar.Bytes();
}

// --- a tool's record ---

// A tool without fields of its own (the placeholders, Dissolve, the Time Stretcher, the Offset
// and Calculation modifiers) writes its class id, the base record, a 0 word and "EndC".
TEST_F(DocumentTest, ARecordWithoutOwnFieldsIsClassIdBaseZeroAndEnd) {
  CPipelineDoc doc;
  std::vector<Operator*> tools;
  bool dissolve_found = false;
  for (Registry* r : ClassRegistry->Records()) {
    Ref<Object> probe = Ref<Object>::Adopt(r->Create(nullptr, nullptr));
    const bool saves_no_fields = r->Name() == "Dissolve" || r->Name() == "Offset" || r->Name() == "Calculation" ||
                                 r->Name() == "TimeInterpolator";
    if (!probe || !(probe->Attrs().Has(module::kNotYetBuiltAttr) || saves_no_fields)) continue;
    dissolve_found = dissolve_found || r->Name() == "Dissolve";
    Operator* op = doc.CreateTool(r->Name());
    ASSERT_NE(op, nullptr) << r->Name();
    op->SetFlowPos(int(tools.size()) * 30, -7);
    tools.push_back(op);
  }
  ASSERT_TRUE(dissolve_found) << "Dissolve is not in the catalogue";
  // Give the base records something to hold: every other tool's image comes from the first
  // (with one tool alone there is nothing to link).
  for (size_t i = 1; i < tools.size(); ++i)
    for (const auto& in : tools[i]->Inputs())
      if (in->Type() == vtype::Image) {
        ASSERT_TRUE(doc.Connect(tools[0]->Outputs()[0].get(), in.get()));
        break;
      }

  for (Operator* op : tools) {
    SCOPED_TRACE(op->Name());
    CArchive whole, base;
    EXPECT_EQ(op->Save(&whole, nullptr), 1u);
    EXPECT_EQ(op->Operator::Save(&base, nullptr), 1u);
    std::vector<uint8_t> expected = Word(op->Class()->ClassId());
    expected.insert(expected.end(), base.Bytes().begin(), base.Bytes().end());
    for (uint32_t w : {0u, FourCC("EndC")}) {
      const auto b = Word(w);
      expected.insert(expected.end(), b.begin(), b.end());
    }
    EXPECT_EQ(whole.Bytes(), expected);
    EXPECT_GT(base.Bytes().size(), 16u) << "the base record should hold the name, position and inputs";
  }
}

// --- a new tool's inputs ---

Defaults* NewDefaults(Ref<Object>& holder) {
  Registry* r = ClassRegistry->FindByName("TestDefaults");
  holder = Ref<Object>::Adopt(r ? r->Create(nullptr, nullptr) : nullptr);
  return dynamic_cast<Defaults*>(holder.get());
}

TEST_F(DocumentTest, ANewToolHasEveryInputAtItsDefault) {
  Ref<Object> holder;
  Defaults* t = NewDefaults(holder);
  ASSERT_NE(t, nullptr);
  const struct {
    Input* in;
    Ref<Parameter> expected;
  } cases[] = {
      {t->strength, Ref<Parameter>::Adopt(new Number(2.5))},
      {t->count, Ref<Parameter>::Adopt(new Number(0.0))},
      {t->center, Ref<Parameter>::Adopt(new Point(0.5f, 0.25f))},
      {t->method, Ref<Parameter>::Adopt(new Number(1.0))},
      {t->label, Ref<Parameter>::Adopt(new Text(""))},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.in->Name());
    EXPECT_EQ(c.in->Source(), ValueSource::Constant);
    Ref<Parameter> v = Ref<Parameter>::Adopt(c.in->CurrentValue());
    ASSERT_NE(v.get(), nullptr);
    EXPECT_EQ(FourCCText(v->Type()), FourCCText(c.in->Type()));
    EXPECT_TRUE(v->Equals(*c.expected));
  }
  EXPECT_EQ(t->image->CurrentValue(), nullptr) << "an image input holds no value of its own";
  EXPECT_TRUE(t->image->IsOptional());
  EXPECT_FALSE(t->strength->IsOptional());
}

// A drop-down's value is the index of the chosen entry, counted from 0 in entry order.
TEST_F(DocumentTest, ADropDownValueIsTheIndexOfItsEntry) {
  Ref<Object> holder;
  Defaults* t = NewDefaults(holder);
  ASSERT_NE(t, nullptr);
  const std::vector<const char*> entries = t->method->Tags().GetStrings(in::ListEntry);
  ASSERT_EQ(entries.size(), 3u);
  // The entry an input's value names, after checking that it is an index into `entries`.
  const auto chosen = [&entries](const Input* in, const char** entry) {
    const double v = CurrentNumber(in);
    ASSERT_TRUE(v >= 0 && v < double(entries.size()) && v == std::floor(v)) << "value " << v;
    *entry = entries[size_t(v)];
  };
  const char* entry = nullptr;
  ASSERT_NO_FATAL_FAILURE(chosen(t->method, &entry));
  EXPECT_STREQ(entry, "Linear") << "the default entry";
  t->method->SetValue(new Number(2));
  ASSERT_NO_FATAL_FAILURE(chosen(t->method, &entry));
  EXPECT_STREQ(entry, "Cubic");
}

TEST_F(DocumentTest, NumbersAreHeldToTheLimitsOfTheirInput) {
  Ref<Object> holder;
  Defaults* t = NewDefaults(holder);
  ASSERT_NE(t, nullptr);
  const struct {
    Input* in;
    double set, expected;
  } cases[] = {
      {t->strength, 12.0, 10.0}, {t->strength, -1.0, 0.0},    {t->strength, 3.5, 3.5},
      {t->strength, 10.0, 10.0}, {t->count, -7.0, -3.0},       {t->count, 1e9, 1e9},
      // A list keeps an unknown entry (which its tool ignores) within a 32-bit whole number.
      {t->method, 9.0, 9.0},     {t->method, 1e300, 2147483647.0}, {t->method, -1e300, -2147483648.0},
  };
  for (const auto& c : cases) {
    c.in->SetValue(new Number(c.set));
    EXPECT_EQ(CurrentNumber(c.in), c.expected) << c.in->Name() << " set to " << c.set;
  }
  // Keys set on an animation are held the same way.
  Spline s;
  s.SetKey({0.0, {1.0, 0.0}});
  s.SetKey({10.0, {2.0, 0.0}});
  t->strength->SetAnimation(s);
  t->strength->SetValue(new Number(50.0), 10.0);
  Ref<Parameter> at10 = Ref<Parameter>::Adopt(t->strength->ValueAt(10.0));
  EXPECT_EQ(static_cast<Number*>(at10.get())->value, 10.0);
}

// Outside a render an input's value is its value at kOutsideTime; setting a value there
// replaces an animation, while setting it at a time keys the animation.
TEST_F(DocumentTest, TheValueOutsideARenderIsTheOneAtTheOutsideTime) {
  Ref<Object> holder;
  Defaults* t = NewDefaults(holder);
  ASSERT_NE(t, nullptr);
  Input* in = t->strength;
  auto at = [in](double time) {
    Ref<Parameter> v = Ref<Parameter>::Adopt(in->ValueAt(time));
    return static_cast<Number*>(v.get())->value;
  };
  Spline s;
  s.SetKey({2.0, {1.0, 0.0}});
  s.SetKey({10.0, {9.0, 0.0}});
  in->SetAnimation(s);
  EXPECT_EQ(in->Source(), ValueSource::Animation);
  EXPECT_EQ(CurrentNumber(in), at(kOutsideTime));
  EXPECT_EQ(CurrentNumber(in), 1.0) << "before the first key the first key's value holds";
  EXPECT_EQ(at(6.0), 5.0);

  in->SetValue(new Number(4.0), 10.0);
  EXPECT_EQ(in->Source(), ValueSource::Animation);
  EXPECT_EQ(at(10.0), 4.0);
  EXPECT_EQ(at(6.0), 2.5);
  in->SetValue(new Number(3.0), 6.0);
  ASSERT_NE(in->Animation(), nullptr);
  EXPECT_EQ(in->Animation()->Keys().size(), 3u) << "a key at a new time is added";

  in->SetValue(new Number(6.0));
  EXPECT_EQ(in->Source(), ValueSource::Constant);
  EXPECT_EQ(in->Animation(), nullptr);
  EXPECT_EQ(at(6.0), 6.0);
  EXPECT_EQ(CurrentNumber(in), 6.0);
}

// --- whole flows ---

struct Flow {
  Clock* clock;
  Adder* adder;
  Spread* spread;
  Defaults* defaults;
  Shape* shape;
  Chooser* chooser;
  Trouble* trouble;
  Ramp* ramp;
  Operator* blur;
  Operator* dissolve;
};

// A flow that uses every part of a saved record: constants of each type, linear and Bezier
// animation, links, a modifier, tool data, placeholders of the catalogue, and settings.
Flow BuildFlow(CPipelineDoc& doc) {
  Flow f{};
  doc.current_time = 12.0;
  doc.render_range = {1.0, 48.0};
  PGeneral.proxy = 2;
  PVidMode = {1920, 1080, 1.0, 0.9};
  PPreview = {480, 270, false};

  f.clock = Make<Clock>(doc, "TestClock");
  f.clock->scale->SetValue(new Number(2.0));
  f.clock->SetFlowPos(10, 20);
  f.adder = Make<Adder>(doc, "TestAdder", "Sum");
  doc.Connect(f.clock->out, f.adder->a);
  Spline linear;
  linear.SetKey({0.0, {1.0, 0.0}});
  linear.SetKey({10.0, {5.0, 0.0}});
  f.adder->b->SetAnimation(linear);
  f.adder->SetFlowPos(-40, 3);
  f.spread = Make<Spread>(doc, "TestSpread");
  doc.Connect(f.adder->out, f.spread->value);

  f.defaults = Make<Defaults>(doc, "TestDefaults", "All Kinds");
  f.defaults->strength->SetValue(new Number(7.25));
  f.defaults->center->SetValue(new Point(0.125f, 0.875f));
  f.defaults->label->SetValue(new Text("Title \xC3\xBC, two words"));
  f.defaults->method->SetValue(new Number(2));
  Spline bezier(Spline::Bezier);
  bezier.SetKey({0.0, {0.0, 0.0}});
  bezier.SetKey({5.0, {10.0, 0.0}});
  bezier.SetKey({20.0, {-3.0, 0.0}});
  f.defaults->count->SetAnimation(bezier);
  Spline path(Spline::Bezier);
  path.SetKey({1.0, {0.1, 0.2}});
  path.SetKey({9.0, {0.7, 0.4}});
  f.defaults->center->SetAnimation(path);

  f.shape = Make<Shape>(doc, "TestShape");
  f.shape->SetNodes({1.5, -2.0, 4.0});
  doc.Connect(f.clock->out, f.shape->gain);
  f.chooser = Make<Chooser>(doc, "TestChooser");
  f.chooser->which->SetValue(new Number(1));
  doc.Connect(f.spread->out, f.chooser->second);
  f.trouble = Make<Trouble>(doc, "TestTrouble");
  f.trouble->mode->SetValue(new Number(Trouble::Throw));

  f.ramp = dynamic_cast<Ramp*>(doc.AddModifier(f.defaults->strength, "TestRamp"));
  if (f.ramp) f.ramp->rate->SetValue(new Number(0.5));

  f.blur = doc.CreateTool("Blur");
  f.dissolve = doc.CreateTool("Dissolve");
  if (f.blur && f.dissolve) {
    doc.Connect(f.blur->Outputs()[0].get(), f.dissolve->Inputs()[0].get());
    doc.Connect(f.dissolve->Outputs()[0].get(), f.defaults->image);
  }
  return f;
}

void ExpectSameInput(const Input& a, const Input& b) {
  SCOPED_TRACE("input " + a.Name());
  EXPECT_EQ(a.Name(), b.Name());
  EXPECT_EQ(a.Id(), b.Id());
  EXPECT_EQ(int(a.Source()), int(b.Source()));
  ASSERT_EQ(a.Constant() == nullptr, b.Constant() == nullptr);
  if (a.Constant()) {
    EXPECT_TRUE(a.Constant()->Equals(*b.Constant()));
  }
  ASSERT_EQ(a.Animation() == nullptr, b.Animation() == nullptr);
  if (a.Animation()) {
    EXPECT_TRUE(*a.Animation() == *b.Animation());
  }
  ASSERT_EQ(a.Link() == nullptr, b.Link() == nullptr);
  if (a.Link()) {
    EXPECT_EQ(a.Link()->Owner()->Name(), b.Link()->Owner()->Name());
    EXPECT_EQ(a.Link()->Id(), b.Link()->Id());
  }
  ASSERT_EQ(a.Modifier() == nullptr, b.Modifier() == nullptr);
  if (a.Modifier()) {
    EXPECT_EQ(a.Modifier()->Name(), b.Modifier()->Name());
    ASSERT_NE(b.ModifierOutput(), nullptr);
    EXPECT_EQ(a.ModifierOutput()->Id(), b.ModifierOutput()->Id());
    EXPECT_EQ(b.ModifierOutput()->Owner(), b.Modifier());
  }
}

void ExpectSameFlow(const CPipelineDoc& a, const CPipelineDoc& b) {
  EXPECT_EQ(a.current_time, b.current_time);
  EXPECT_EQ(a.render_range, b.render_range);
  const auto ta = a.Tools(), tb = b.Tools();
  ASSERT_EQ(ta.size(), tb.size());
  for (size_t i = 0; i < ta.size(); ++i) {
    SCOPED_TRACE("tool " + ta[i]->Name());
    EXPECT_EQ(ta[i]->Name(), tb[i]->Name());
    EXPECT_EQ(ta[i]->Class(), tb[i]->Class());
    EXPECT_EQ(ta[i]->FlowX(), tb[i]->FlowX());
    EXPECT_EQ(ta[i]->FlowY(), tb[i]->FlowY());
    EXPECT_EQ(tb[i]->Document(), &b);
    ASSERT_EQ(ta[i]->Inputs().size(), tb[i]->Inputs().size());
    for (size_t k = 0; k < ta[i]->Inputs().size(); ++k) ExpectSameInput(*ta[i]->Inputs()[k], *tb[i]->Inputs()[k]);
    if (auto* sa = dynamic_cast<Shape*>(ta[i])) {
      EXPECT_EQ(sa->nodes, dynamic_cast<Shape*>(tb[i])->nodes);
    }
  }
}

TEST_F(DocumentTest, AFlowSavesAndLoadsBackEqual) {
  CPipelineDoc doc;
  const Flow f = BuildFlow(doc);
  ASSERT_NE(f.ramp, nullptr);
  ASSERT_NE(f.blur, nullptr);
  ASSERT_NE(f.dissolve, nullptr);
  const std::vector<uint8_t> bytes = SaveBytes(doc);

  PGeneral = GeneralPrefs();
  PVidMode = VideoModePrefs();
  PPreview = PreviewPrefs();
  CArchive ar(bytes);
  HostError err;
  std::unique_ptr<CPipelineDoc> loaded = CPipelineDoc::Load(ar, &err);
  ASSERT_NE(loaded, nullptr) << err.message;
  EXPECT_TRUE(ar.AtEnd());
  ExpectSameFlow(doc, *loaded);
  EXPECT_EQ(SaveBytes(*loaded), bytes);

  EXPECT_EQ(PGeneral.proxy, 2);
  EXPECT_EQ(PVidMode.width, 1920);
  EXPECT_EQ(PVidMode.height, 1080);
  EXPECT_EQ(PVidMode.aspect_y, 0.9);
  EXPECT_EQ(PPreview.width, 480);
  EXPECT_FALSE(PPreview.fit_to_box);

  // The loaded flow works as the saved one did.
  auto* ramp = dynamic_cast<Ramp*>(loaded->FindTool(f.ramp->Name()));
  ASSERT_NE(ramp, nullptr);
  EXPECT_EQ(ramp->sources_set, 0) << "a loaded modifier keeps its saved values";
  const std::pair<Output*, double> probes[] = {{f.spread->out, 3.0}, {f.shape->out, 2.0},
                                                {f.defaults->out, 4.0}, {f.chooser->out, 6.0},
                                                {f.adder->out, 7.5}};
  for (const auto& [out, time] : probes) {
    SCOPED_TRACE(out->Owner()->Name());
    Output* twin = loaded->FindTool(out->Owner()->Name())->FindOutput(out->Id());
    const auto want = RenderNumber(doc, out, time);
    ASSERT_TRUE(want.has_value());
    EXPECT_EQ(RenderNumber(*loaded, twin, time), want);
  }
  EXPECT_EQ(RenderNumber(*loaded, loaded->FindTool("All Kinds")->FindOutput(FourCC("Valu")), 4.0), 7.25 + 0.5 * 4.0);
}

TEST_F(DocumentTest, AFlowGoesThroughAFile) {
  const TempFolder folder;
  const std::filesystem::path& dir = folder.path();
  CPipelineDoc doc;
  BuildFlow(doc);
  HostError err;
  const std::string path = (dir / "flow.kfl").string();
  ASSERT_TRUE(doc.SaveFile(path, &err)) << err.message;
  std::unique_ptr<CPipelineDoc> loaded = CPipelineDoc::LoadFile(path, &err);
  ASSERT_NE(loaded, nullptr) << err.message;
  ExpectSameFlow(doc, *loaded);
  EXPECT_EQ(SaveBytes(*loaded), SaveBytes(doc));

  // Failures name the file.
  const std::string missing = (dir / "missing.kfl").string();
  err = {};
  EXPECT_EQ(CPipelineDoc::LoadFile(missing, &err), nullptr);
  EXPECT_NE(err.message.find(missing), std::string::npos) << err.message;
  err = {};
  EXPECT_FALSE(doc.SaveFile((dir / "no-folder" / "flow.kfl").string(), &err));
  EXPECT_FALSE(err.message.empty());
}

// --- documents that must not load ---

std::unique_ptr<CPipelineDoc> LoadBytes(const std::vector<uint8_t>& bytes, HostError& err) {
  CArchive ar(bytes);
  return CPipelineDoc::Load(ar, &err);
}

// A document of version 1, saved before tools kept attributes in their base record, still loads
// and saves again as the current version.
TEST_F(DocumentTest, AVersionOneDocumentLoads) {
  HostError err;
  auto old = CPipelineDoc::LoadFile(KESTRION_TEST_SOURCE_DIR "/fuzz/corpus/document/grade.kfl", &err);
  ASSERT_NE(old, nullptr) << err.message;
  EXPECT_EQ(old->Tools().size(), 3u);
  const std::vector<uint8_t> bytes = SaveBytes(*old);
  EXPECT_EQ(bytes[4], 2);
  auto again = LoadBytes(bytes, err);
  ASSERT_NE(again, nullptr) << err.message;
  EXPECT_EQ(SaveBytes(*again), bytes);
}

// Renders every output of a flow at a time; failures are fine, crashes are not.
void RenderEverything(CPipelineDoc& doc, double time) {
  for (Operator* op : doc.Tools())
    for (const auto& out : op->Outputs()) {
      HostError err;
      doc.Render(out.get(), time, 0, &err);
    }
}

TEST_F(DocumentTest, CutOffDocumentsFailWithAMessageAndChangeNothing) {
  std::vector<uint8_t> bytes;
  {
    CPipelineDoc doc;
    BuildFlow(doc);
    bytes = SaveBytes(doc);
  }
  PVidMode = VideoModePrefs();
  std::mt19937 rng(1234);
  std::vector<size_t> lengths = {0, 3, 4, bytes.size() - 4, bytes.size() - 1};
  for (int i = 0; i < 300; ++i) lengths.push_back(rng() % bytes.size());
  for (size_t length : lengths) {
    SCOPED_TRACE("cut at " + std::to_string(length) + " of " + std::to_string(bytes.size()));
    HostError err;
    auto doc = LoadBytes(std::vector<uint8_t>(bytes.begin(), bytes.begin() + ptrdiff_t(length)), err);
    EXPECT_EQ(doc, nullptr);
    EXPECT_FALSE(err.message.empty());
  }
  EXPECT_EQ(PVidMode.width, VideoModePrefs().width) << "a failed load changed the settings";
}

TEST_F(DocumentTest, DamagedDocumentsLoadFullyOrFailWithAMessage) {
  std::vector<uint8_t> bytes;
  {
    CPipelineDoc doc;
    BuildFlow(doc);
    bytes = SaveBytes(doc);
  }
  std::mt19937 rng(98765);
  int loaded = 0, failed = 0;
  for (int i = 0; i < 400; ++i) {
    std::vector<uint8_t> damaged = bytes;
    const size_t at = rng() % damaged.size();
    std::string what;
    switch (i % 3) {
      case 0:  // one flipped bit
        damaged[at] ^= uint8_t(1u << (rng() % 8));
        what = "bit flip";
        break;
      case 1:  // one byte set to anything
        damaged[at] = uint8_t(rng());
        what = "byte";
        break;
      default:  // one aligned word set to anything (counts, lengths, ids)
        for (size_t k = at & ~size_t(3); k < std::min(damaged.size(), (at & ~size_t(3)) + 4); ++k)
          damaged[k] = uint8_t(rng());
        what = "word";
        break;
    }
    SCOPED_TRACE(what + " at " + std::to_string(at));
    HostError err;
    auto doc = LoadBytes(damaged, err);
    if (doc) {
      ++loaded;
      EXPECT_TRUE(err.message.empty()) << err.message;
      // A flow that loads is a whole flow: it saves, loads back, saves the same, and renders.
      const std::vector<uint8_t> saved = SaveBytes(*doc);
      HostError again_err;
      auto again = LoadBytes(saved, again_err);
      ASSERT_NE(again, nullptr) << again_err.message;
      EXPECT_EQ(SaveBytes(*again), saved);
      RenderEverything(*doc, 3.0);
    } else {
      ++failed;
      EXPECT_FALSE(err.message.empty());
    }
  }
  // Both kinds of outcome are exercised (names and values change harmlessly, counts do not).
  EXPECT_GT(loaded, 0);
  EXPECT_GT(failed, 0);
}

TEST_F(DocumentTest, AnUnknownClassIdIsNamedInTheMessage) {
  std::vector<uint8_t> bytes;
  {
    CPipelineDoc doc;
    Make<Clock>(doc, "TestClock");
    Make<Shape>(doc, "TestShape");
    bytes = SaveBytes(doc);
  }
  // The same flow read by a host without the shape's class.
  classes_.reset();
  auto clock_only = std::make_unique<Registry>(
      &ClassRegistry, "TestClock",
      TagList{Tag(reg::Factory, &module::Factory<Clock>), Tag(reg::ClassId, kClockId),
              Tag(reg::ClassType, classtype::Creator)});
  HostError err;
  EXPECT_EQ(LoadBytes(bytes, err), nullptr);
  EXPECT_NE(err.message.find("tShp"), std::string::npos) << err.message;
  EXPECT_NE(err.message.find("0x70685374"), std::string::npos) << err.message;
  EXPECT_NE(err.message.find("record 2"), std::string::npos) << err.message;
}

TEST_F(DocumentTest, DocumentsThatAreNotFlowsOrReferToMissingToolsFail) {
  std::vector<uint8_t> bytes;
  {
    CPipelineDoc doc;
    Clock* clock = Make<Clock>(doc, "TestClock", "Ghost");
    Adder* adder = Make<Adder>(doc, "TestAdder");
    doc.Connect(clock->out, adder->b);
    bytes = SaveBytes(doc);
  }
  auto replace_first = [&bytes](const std::string& from, const std::string& to) {
    auto copy = bytes;
    auto it = std::search(copy.begin(), copy.end(), from.begin(), from.end());
    EXPECT_NE(it, copy.end()) << from;
    if (it != copy.end()) std::copy(to.begin(), to.end(), it);
    return copy;
  };
  const struct {
    const char* what;
    std::vector<uint8_t> bytes;
    const char* mentions;
  } cases[] = {
      {"wrong magic word", replace_first("KFlw", "KFlx"), "magic"},
      {"other version", [&] {
         auto c = bytes;
         c[4] = 9;
         return c;
       }(), "version"},
      {"a link to a tool that is not there", replace_first("Ghost", "Gxost"), "Ghost"},
      {"a link to an output the tool lacks", [&] {
         // The adder's link names the clock's output "Time"; the record's last such word is it.
         auto c = bytes;
         const auto word = Word(FourCC("Time"));
         auto it = std::find_end(c.begin(), c.end(), word.begin(), word.end());
         if (it != c.end()) *it = 'X';
         return c;
       }(), "output Xime of 'Ghost', which it does not have"},
      {"no end mark", [&] {
         auto c = bytes;
         c[c.size() - 1] ^= 0x20;
         return c;
       }(), "end"},
      {"empty", {}, ""},
  };
  for (const auto& c : cases) {
    HostError err;
    EXPECT_EQ(LoadBytes(c.bytes, err), nullptr) << c.what;
    EXPECT_FALSE(err.message.empty()) << c.what;
    EXPECT_NE(err.message.find(c.mentions), std::string::npos) << c.what << ": " << err.message;
  }
}

// Documents that loaded before although no flow could hold what they say, found by fuzzing:
// each now fails with one message.
TEST_F(DocumentTest, DocumentsHoldingWhatNoFlowCanHoldAreRefused) {
  std::vector<uint8_t> bytes;
  {
    CPipelineDoc doc;
    auto* kinds = Make<Defaults>(doc, "TestDefaults", "Kinds");
    kinds->count->SetValue(new Number(17.5));
    Spline path;
    path.SetKey({0.0, {0.375, 0.5}});
    kinds->center->SetAnimation(path);
    Make<Chooser>(doc, "TestChooser", "Pick");
    Adder* adder = Make<Adder>(doc, "TestAdder");
    doc.RenameTool(doc.AddModifier(adder->a, "TestRamp"), "Ramp");
    ClipParameter::SetCompression("png", 6);
    bytes = SaveBytes(doc);
  }
  const auto replace_first = [&bytes](const std::vector<uint8_t>& from, const std::vector<uint8_t>& to) {
    auto copy = bytes;
    auto it = std::search(copy.begin(), copy.end(), from.begin(), from.end());
    EXPECT_NE(it, copy.end());
    if (it != copy.end()) std::copy(to.begin(), to.end(), it);
    return copy;
  };
  const auto text = [](const char* s) { return std::vector<uint8_t>(s, s + std::strlen(s)); };
  const auto real = [](double d) {
    std::vector<uint8_t> b(8);
    std::memcpy(b.data(), &d, 8);
    return b;
  };
  auto reversed_range = bytes;
  std::copy_n(real(5.0).begin(), 8, reversed_range.begin() + 16);  // after magic, version and time
  const struct {
    const char* what;
    std::vector<uint8_t> bytes;
    const char* mentions;
  } cases[] = {
      {"a range that ends before it starts", reversed_range, "settings are out of range"},
      {"a number that is not finite", replace_first(real(17.5), real(std::nan(""))), "not finite"},
      {"a point key past a float", replace_first(real(0.375), real(1e300)), "past the range of a point"},
      {"a name that is not UTF-8", replace_first(text("Kinds"), text("Ki\xFF" "ds")), "not UTF-8"},
      {"a modifier of a class that is none", replace_first(text("Ramp"), text("Pick")), "is not possible"},
      {"a codec key that is no extension", replace_first(text("png"), text("p'g")), "codec setting"},
  };
  for (const auto& c : cases) {
    HostError err;
    EXPECT_EQ(LoadBytes(c.bytes, err), nullptr) << c.what;
    EXPECT_NE(err.message.find(c.mentions), std::string::npos) << c.what << ": " << err.message;
  }
}

// A saved number past its input's limits (found by fuzzing) is held to them as a number set by
// hand is; a check box holds 0 or 1.
TEST_F(DocumentTest, SavedNumbersAreHeldToTheirInput) {
  CPipelineDoc doc;
  auto* kinds = Make<Defaults>(doc, "TestDefaults", "Kinds");
  kinds->strength->SetValue(new Number(7.25));
  Operator* loader = doc.CreateTool("Loader");
  ASSERT_NE(loader, nullptr);
  Input* loop = loader->FindInput(FourCC("Loop"));
  loop->SetValue(new Number(-2e185));
  EXPECT_EQ(CurrentNumber(loop), double(INT32_MIN));
  loop->SetValue(new Number(2e185));
  EXPECT_EQ(CurrentNumber(loop), double(INT32_MAX));
  std::vector<uint8_t> bytes = SaveBytes(doc);
  const double seven = 7.25, huge = 1e300;
  std::vector<uint8_t> from(8), to(8);
  std::memcpy(from.data(), &seven, 8);
  std::memcpy(to.data(), &huge, 8);
  auto at = std::search(bytes.begin(), bytes.end(), from.begin(), from.end());
  ASSERT_NE(at, bytes.end());
  std::copy(to.begin(), to.end(), at);
  HostError err;
  auto loaded = LoadBytes(bytes, err);
  ASSERT_NE(loaded, nullptr) << err.message;
  EXPECT_EQ(CurrentNumber(loaded->FindTool("Kinds")->FindInput(FourCC("Strn"))), 10.0);
}

}  // namespace
}  // namespace kestrion

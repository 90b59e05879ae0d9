// Tool records and whole flow documents: what a new tool holds, the framing of a saved record,
// a flow saved and loaded back, and documents that are cut off, damaged or refer to what is not
// there, which must load fully or fail with one message.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "module/operator_contract.h"
#include "host/base/archive.h"
#include "host/clip/clip.h"
#include "host/document/document.h"
#include "host/document/flow_file.h"
#include "host/base/prefs.h"
#include "host/graph/registry.h"
#include "tests/host/test_tools.h"

namespace kestrion {
namespace {

using namespace test_tools;

class DocumentTest : public ::testing::Test {
 protected:
  SavedPrefs prefs_;
  TestClasses classes_;
  CPipelineDoc doc_;
};

std::vector<uint8_t> SaveBytes(const CPipelineDoc& doc) {
  CArchive ar;
  doc.Save(ar);
  return ar.Bytes();
}

// --- a tool's record ---

// A tool without fields of its own (the placeholders, Dissolve, the Time Stretcher, the Offset
// and Calculation modifiers) writes its class id, the base record, a 0 word and "EndC".
TEST_F(DocumentTest, ARecordWithoutOwnFieldsIsClassIdBaseZeroAndEnd) {
  std::vector<Operator*> tools;
  bool dissolve_found = false;
  for (Registry* r : ClassRegistry->Records()) {
    Ref<Object> probe = Ref<Object>::Adopt(r->Create(nullptr, nullptr));
    const bool saves_no_fields = r->Name() == "Dissolve" || r->Name() == "Offset" || r->Name() == "Calculation" ||
                                 r->Name() == "TimeInterpolator";
    if (!probe || !(probe->Attrs().Has(module::kNotYetBuiltAttr) || saves_no_fields)) continue;
    dissolve_found = dissolve_found || r->Name() == "Dissolve";
    Operator* op = doc_.CreateTool(r->Name());
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
        ASSERT_TRUE(doc_.Connect(tools[0]->Outputs()[0].get(), in.get()));
        break;
      }

  for (Operator* op : tools) {
    SCOPED_TRACE(op->Name());
    CArchive whole, base, expected;
    EXPECT_EQ(op->Save(&whole, nullptr), 1u);
    EXPECT_EQ(op->Operator::Save(&base, nullptr), 1u);
    expected.WriteWord(op->Class()->ClassId());
    expected.WriteBytes(base.Bytes().data(), base.Bytes().size());
    expected.WriteWord(0);
    expected.WriteWord(FourCC("EndC"));
    EXPECT_EQ(whole.Bytes(), expected.Bytes());
    EXPECT_GT(base.Bytes().size(), 16u) << "the base record should hold the name, position and inputs";
  }
}

// --- a new tool's inputs ---

TEST_F(DocumentTest, ANewToolHasEveryInputAtItsDefault) {
  Defaults* t = Make<Defaults>(doc_, "TestDefaults");
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

TEST_F(DocumentTest, NumbersAreHeldToTheLimitsOfTheirInput) {
  Defaults* t = Make<Defaults>(doc_, "TestDefaults");
  Operator* loader = doc_.CreateTool("Loader");
  ASSERT_TRUE(t && loader);
  Input* loop = loader->FindInput(FourCC("Loop"));
  const struct {
    Input* in;
    double set, expected;
  } cases[] = {
      {t->strength, 12.0, 10.0}, {t->strength, -1.0, 0.0},    {t->strength, 3.5, 3.5},
      {t->strength, 10.0, 10.0}, {t->count, -7.0, -3.0},       {t->count, 1e9, 1e9},
      // A list keeps an unknown entry (which its tool ignores) within a 32-bit whole number.
      {t->method, 9.0, 9.0},     {t->method, 1e300, 2147483647.0}, {t->method, -1e300, -2147483648.0},
      // So does a check box.
      {loop, 2e185, 2147483647.0}, {loop, -2e185, -2147483648.0},
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
  Defaults* t = Make<Defaults>(doc_, "TestDefaults");
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

// A flow that uses every part of a saved record: constants of each type, linear and Bezier
// animation, links, a modifier, tool data, placeholders of the catalogue, and settings.
void BuildFlow(CPipelineDoc& doc) {
  doc.current_time = 12.0;
  doc.render_range = {1.0, 48.0};
  PGeneral.proxy = 2;
  PVidMode = {1920, 1080, 1.0, 0.9};
  PPreview = {480, 270, false};

  Clock* clock = Make<Clock>(doc, "TestClock");
  clock->scale->SetValue(new Number(2.0));
  clock->SetFlowPos(10, 20);
  Adder* adder = Make<Adder>(doc, "TestAdder", "Sum");
  doc.Connect(clock->out, adder->a);
  Spline linear;
  linear.SetKey({0.0, {1.0, 0.0}});
  linear.SetKey({10.0, {5.0, 0.0}});
  adder->b->SetAnimation(linear);
  adder->SetFlowPos(-40, 3);
  Spread* spread = Make<Spread>(doc, "TestSpread");
  doc.Connect(adder->out, spread->value);

  Defaults* defaults = Make<Defaults>(doc, "TestDefaults", "All Kinds");
  defaults->strength->SetValue(new Number(7.25));
  defaults->center->SetValue(new Point(0.125f, 0.875f));
  defaults->label->SetValue(new Text("Title \xC3\xBC, two words"));
  defaults->method->SetValue(new Number(2));
  Spline bezier(Spline::Bezier);
  bezier.SetKey({0.0, {0.0, 0.0}});
  bezier.SetKey({5.0, {10.0, 0.0}});
  bezier.SetKey({20.0, {-3.0, 0.0}});
  defaults->count->SetAnimation(bezier);
  Spline path(Spline::Bezier);
  path.SetKey({1.0, {0.1, 0.2}});
  path.SetKey({9.0, {0.7, 0.4}});
  defaults->center->SetAnimation(path);

  Shape* shape = Make<Shape>(doc, "TestShape");
  shape->SetNodes({1.5, -2.0, 4.0});
  doc.Connect(clock->out, shape->gain);
  Chooser* chooser = Make<Chooser>(doc, "TestChooser");
  chooser->which->SetValue(new Number(1));
  doc.Connect(spread->out, chooser->second);
  Make<Trouble>(doc, "TestTrouble")->mode->SetValue(new Number(Trouble::Throw));

  if (auto* ramp = dynamic_cast<Ramp*>(doc.AddModifier(defaults->strength, "TestRamp")))
    ramp->rate->SetValue(new Number(0.5));

  Operator* blur = doc.CreateTool("Blur");
  Operator* dissolve = doc.CreateTool("Dissolve");
  if (blur && dissolve) {
    doc.Connect(blur->Outputs()[0].get(), dissolve->Inputs()[0].get());
    doc.Connect(dissolve->Outputs()[0].get(), defaults->image);
  }
}

std::vector<uint8_t> FlowBytes() {
  CPipelineDoc doc;
  BuildFlow(doc);
  return SaveBytes(doc);
}

std::unique_ptr<CPipelineDoc> LoadBytes(const std::vector<uint8_t>& bytes, HostError& err) {
  CArchive ar(bytes);
  return CPipelineDoc::Load(ar, &err);
}

// The loaded flow holds all the saved one did (its text flow is the same, settings included),
// saves to the same bytes, and renders the same.
TEST_F(DocumentTest, AFlowSavesAndLoadsBackEqual) {
  BuildFlow(doc_);
  ASSERT_EQ(doc_.Tools().size(), 10u) << "a tool of the flow was not made";
  const std::vector<uint8_t> bytes = SaveBytes(doc_);
  const std::string text = SaveTextFlow(doc_);

  PGeneral = GeneralPrefs();
  PVidMode = VideoModePrefs();
  PPreview = PreviewPrefs();
  CArchive ar(bytes);
  HostError err;
  std::unique_ptr<CPipelineDoc> loaded = CPipelineDoc::Load(ar, &err);
  ASSERT_NE(loaded, nullptr) << err.message;
  EXPECT_TRUE(ar.AtEnd());
  EXPECT_EQ(SaveTextFlow(*loaded), text);
  EXPECT_EQ(SaveBytes(*loaded), bytes);

  Operator* kinds = loaded->FindTool("All Kinds");
  auto* ramp = dynamic_cast<Ramp*>(kinds->FindInput(FourCC("Strn"))->Modifier());
  ASSERT_NE(ramp, nullptr);
  EXPECT_EQ(ramp->sources_set, 0) << "a loaded modifier keeps its saved values";
  const std::pair<const char*, double> probes[] = {
      {"TestSpread1", 3.0}, {"TestShape1", 2.0}, {"All Kinds", 4.0}, {"TestChooser1", 6.0}, {"Sum", 7.5}};
  for (const auto& [name, time] : probes) {
    SCOPED_TRACE(name);
    const auto want = RenderNumber(doc_, doc_.FindTool(name)->Outputs()[0].get(), time);
    ASSERT_TRUE(want.has_value());
    EXPECT_EQ(RenderNumber(*loaded, loaded->FindTool(name)->Outputs()[0].get(), time), want);
  }
  EXPECT_EQ(RenderNumber(*loaded, kinds->FindOutput(FourCC("Valu")), 4.0), 7.25 + 0.5 * 4.0);
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

// --- documents that must not load ---

// A cut-off document fails; one with a damaged bit, byte or aligned word (counts, lengths, ids)
// loads fully or fails. A failure has a message and changes no setting; a flow that loads is a
// whole flow: it saves, loads back, saves the same, and renders (where its tools fail, with a
// message, not a crash).
TEST_F(DocumentTest, CutOffOrDamagedDocumentsLoadFullyOrFailWithAMessage) {
  const std::vector<uint8_t> bytes = FlowBytes();
  const char* const kinds[] = {"cut", "bit flip", "byte", "word"};
  const size_t edges[] = {0, 3, 4, bytes.size() - 4, bytes.size() - 1};  // the first cuts
  std::mt19937 rng(98765);
  int loaded = 0, failed = 0;
  for (int i = 0; i < 800; ++i) {
    const int kind = i < 5 ? 0 : i % 4;
    const size_t at = i < 5 ? edges[i] : rng() % bytes.size();
    std::vector<uint8_t> damaged = bytes;
    if (kind == 0) {
      damaged.resize(at);
    } else if (kind == 1) {
      damaged[at] ^= uint8_t(1u << (rng() % 8));
    } else if (kind == 2) {
      damaged[at] = uint8_t(rng());
    } else {
      for (size_t k = at & ~size_t(3); k < std::min(damaged.size(), (at & ~size_t(3)) + 4); ++k)
        damaged[k] = uint8_t(rng());
    }
    SCOPED_TRACE(std::string(kinds[kind]) + " at " + std::to_string(at) + " of " + std::to_string(bytes.size()));
    PVidMode = VideoModePrefs();
    HostError err;
    auto doc = LoadBytes(damaged, err);
    if (!doc) {
      ++failed;
      EXPECT_FALSE(err.message.empty());
      EXPECT_EQ(PVidMode.width, VideoModePrefs().width) << "a failed load changed the settings";
      continue;
    }
    ++loaded;
    EXPECT_NE(kind, 0) << "a cut-off document loaded";
    EXPECT_TRUE(err.message.empty()) << err.message;
    const std::vector<uint8_t> saved = SaveBytes(*doc);
    HostError again_err;
    auto again = LoadBytes(saved, again_err);
    ASSERT_NE(again, nullptr) << again_err.message;
    EXPECT_EQ(SaveBytes(*again), saved);
    HostError render_err;
    for (Operator* op : doc->Tools())
      for (const auto& out : op->Outputs()) doc->Render(out.get(), 3.0, 0, &render_err);
  }
  // Both kinds of outcome are exercised (names and values change harmlessly, counts do not).
  EXPECT_GT(loaded, 0);
  EXPECT_GT(failed, 0);
}

// `bytes` with the first (or the last) occurrence of `from` overwritten by `to`.
std::vector<uint8_t> Replaced(std::vector<uint8_t> bytes, const std::vector<uint8_t>& from,
                              const std::vector<uint8_t>& to, bool last = false) {
  const auto at = last ? std::find_end(bytes.begin(), bytes.end(), from.begin(), from.end())
                       : std::search(bytes.begin(), bytes.end(), from.begin(), from.end());
  EXPECT_NE(at, bytes.end()) << "nothing to replace";
  if (at != bytes.end()) std::copy(to.begin(), to.end(), at);
  return bytes;
}
std::vector<uint8_t> Chars(const char* s) { return std::vector<uint8_t>(s, s + std::strlen(s)); }
std::vector<uint8_t> Real(double d) {
  std::vector<uint8_t> b(8);
  std::memcpy(b.data(), &d, 8);
  return b;
}

// Documents that are not flows, refer to what is not there (a class, a tool, an output), or hold
// what no flow can hold (found by fuzzing: they loaded before) fail with one message. A saved
// number past its input's limits is held to them, as a number set by hand is.
TEST_F(DocumentTest, WrongDocumentsFailWithOneMessageAndSavedNumbersAreHeld) {
  Clock* clock = Make<Clock>(doc_, "TestClock", "Ghost");
  Adder* adder = Make<Adder>(doc_, "TestAdder");
  doc_.Connect(clock->out, adder->b);
  auto* kinds = Make<Defaults>(doc_, "TestDefaults", "Kinds");
  kinds->strength->SetValue(new Number(7.25));
  kinds->count->SetValue(new Number(17.5));
  Spline path;
  path.SetKey({0.0, {0.375, 0.5}});
  kinds->center->SetAnimation(path);
  Make<Chooser>(doc_, "TestChooser", "Pick");
  doc_.RenameTool(doc_.AddModifier(adder->a, "TestRamp"), "Ramp");
  ClipParameter::SetCompression("png", 6);
  const std::vector<uint8_t> bytes = SaveBytes(doc_);

  auto other_version = bytes, no_end = bytes, reversed_range = bytes;
  other_version[4] = 9;
  no_end.back() ^= 0x20;
  std::copy_n(Real(5.0).begin(), 8, reversed_range.begin() + 16);  // after magic, version and time
  const struct {
    const char* what;
    std::vector<uint8_t> bytes;
    const char* mentions;
  } cases[] = {
      {"empty", {}, ""},
      {"wrong magic word", Replaced(bytes, Chars("KFlw"), Chars("KFlx")), "magic"},
      {"other version", other_version, "version"},
      {"no end mark", no_end, "end"},
      {"a class this host does not have", Replaced(bytes, Chars("tChs"), Chars("tXyz")),
       "tool record 4 has the unknown class id 'tXyz' (0x7A795874)"},
      {"a link to a tool that is not there", Replaced(bytes, Chars("Ghost"), Chars("Gxost")), "Ghost"},
      // The adder's link names the clock's output "Time"; the document's last such word is it.
      {"a link to an output the tool lacks", Replaced(bytes, Chars("Time"), Chars("Xime"), true),
       "output Xime of 'Ghost', which it does not have"},
      {"a range that ends before it starts", reversed_range, "settings are out of range"},
      {"a number that is not finite", Replaced(bytes, Real(17.5), Real(std::nan(""))), "not finite"},
      {"a point key past a float", Replaced(bytes, Real(0.375), Real(1e300)), "past the range of a point"},
      {"a name that is not UTF-8", Replaced(bytes, Chars("Kinds"), Chars("Ki\xFF" "ds")), "not UTF-8"},
      {"a modifier of a class that is none", Replaced(bytes, Chars("Ramp"), Chars("Pick")), "is not possible"},
      {"a codec key that is no extension", Replaced(bytes, Chars("png"), Chars("p'g")), "codec setting"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    HostError err;
    EXPECT_EQ(LoadBytes(c.bytes, err), nullptr);
    EXPECT_FALSE(err.message.empty());
    EXPECT_NE(err.message.find(c.mentions), std::string::npos) << err.message;
  }

  HostError err;
  auto loaded = LoadBytes(Replaced(bytes, Real(7.25), Real(1e300)), err);
  ASSERT_NE(loaded, nullptr) << err.message;
  EXPECT_EQ(CurrentNumber(loaded->FindTool("Kinds")->FindInput(FourCC("Strn"))), 10.0);
}

}  // namespace
}  // namespace kestrion

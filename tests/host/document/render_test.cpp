// The pull renderer over flows of small test operators: values at the requested times, the
// result cache and what drops it, inputs a tool declines, failures and aborts, refused links,
// named undo steps, and modifiers.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/document/document.h"
#include "host/document/flow_file.h"
#include "host/graph/registry.h"
#include "tests/host/test_tools.h"

namespace kestrion {
namespace {

using namespace test_tools;

class RenderTest : public ::testing::Test {
 protected:
  TestClasses classes_;
  CPipelineDoc doc_;
};

// A clock feeding an adder's "A", the adder feeding a spread.
struct Chain {
  Clock* clock;
  Adder* adder;
  Spread* spread;
};
Chain MakeChain(CPipelineDoc& doc) {
  Chain c{Make<Clock>(doc, "TestClock"), Make<Adder>(doc, "TestAdder"), Make<Spread>(doc, "TestSpread")};
  EXPECT_TRUE(doc.Connect(c.clock->out, c.adder->a));
  EXPECT_TRUE(doc.Connect(c.adder->out, c.spread->value));
  return c;
}

Spline Keys(uint32_t curve, std::initializer_list<std::pair<double, double>> keys) {
  Spline s(curve);
  for (const auto& [t, v] : keys) s.SetKey({t, {v, 0.0}});
  return s;
}

// --- values ---

TEST_F(RenderTest, ToolsSeeTheirInputsAtTheRequestedTimes) {
  const auto [clock, adder, spread] = MakeChain(doc_);
  const Spline linear = Keys(Spline::Linear, {{0, 0}, {10, 100}});
  const Spline bezier = Keys(Spline::Bezier, {{0, 0}, {10, 10}, {20, 30}});
  const struct {
    const char* what;
    const Spline* b;  // the adder's "B" (a constant 3 where there is none)
    Output* out;
    double time, expected;
  } cases[] = {
      {"constant", nullptr, adder->out, 5.0, 5.0 + 3.0},
      {"samples before and after", nullptr, spread->out, 5.0, (4.0 + 3) + (6.0 + 3)},
      {"linear keys at the request time", &linear, adder->out, 5.0, 5.0 + 50.0},
      {"held after the last key", &linear, adder->out, 30.0, 30.0 + 100.0},
      // Handles a third of the way to the next key, flat at the first key and of slope
      // (30 - 0) / 20 at the middle one: the control points (0, 0), (10/3, 0), (20/3, 5),
      // (10, 10) reach x = 5 halfway, where y is (3 * 5 + 10) / 8 = 3.125.
      {"Bezier keys", &bezier, adder->out, 5.0, 5.0 + 3.125},
      {"Bezier keys at a key", &bezier, adder->out, 10.0, 10.0 + 10.0},
  };
  adder->b->SetValue(new Number(3));
  for (const auto& c : cases) {
    if (c.b) adder->b->SetAnimation(*c.b);
    HostError err;
    EXPECT_EQ(RenderNumber(doc_, c.out, c.time, &err), c.expected) << c.what << " " << err.message;
  }
  EXPECT_EQ(spread->slots_seen, 2);
  EXPECT_EQ(spread->times_seen, (std::vector<double>{4.0, 6.0}));
}

// --- the cache ---

TEST_F(RenderTest, EachToolRunsOnceForEachTimeAndKindOfRender) {
  const auto [clock, adder, spread] = MakeChain(doc_);

  const struct {
    const char* what;
    Output* out;
    double time;
    uint32_t flags;
    size_t clock, adder, spread;  // Process calls so far
  } steps[] = {
      {"first render", adder->out, 1.0, 0, 1, 1, 0},
      {"the same again", adder->out, 1.0, 0, 1, 1, 0},
      {"the upstream tool at a time it has", clock->out, 1.0, 0, 1, 1, 0},
      {"another time", adder->out, 2.0, 0, 2, 2, 0},
      {"a quick render is another result", adder->out, 1.0, rflag::Quick, 3, 3, 0},
      {"flags that do not change results", adder->out, 1.0, 0x100, 3, 3, 0},
      {"two samples, one already made", spread->out, 3.0, 0, 4, 4, 1},
      {"the spread again", spread->out, 3.0, 0, 4, 4, 1},
      {"a neighbouring time shares a sample", spread->out, 5.0, 0, 5, 5, 2},
  };
  for (const auto& s : steps) {
    HostError err;
    EXPECT_TRUE(RenderNumber(doc_, s.out, s.time, &err, s.flags).has_value()) << s.what << ": " << err.message;
    EXPECT_EQ(doc_.ProcessCount(clock), s.clock) << s.what;
    EXPECT_EQ(doc_.ProcessCount(adder), s.adder) << s.what;
    EXPECT_EQ(doc_.ProcessCount(spread), s.spread) << s.what;
  }
}

// A change drops the results of the changed tool and of everything downstream of it, and
// nothing else; the next render shows the change.
TEST_F(RenderTest, ChangesDropTheResultsDownstreamOfThem) {
  struct Tools : Chain {
    Clock* other;
  };
  const struct {
    const char* what;
    std::function<void(CPipelineDoc&, Tools&)> change;
    size_t clock, adder, spread, other;  // further Process calls
    double spread_after;
  } cases[] = {
      {"a value of an unrelated tool", [](CPipelineDoc&, Tools& t) { t.other->scale->SetValue(new Number(3)); },
       0, 0, 0, 1, 16.0},
      {"a constant of the middle tool", [](CPipelineDoc&, Tools& t) { t.adder->b->SetValue(new Number(4)); },
       0, 2, 1, 0, 18.0},
      {"a value of the first tool", [](CPipelineDoc&, Tools& t) { t.clock->scale->SetValue(new Number(2)); },
       2, 2, 1, 0, 26.0},
      {"an animation of the middle tool",
       [](CPipelineDoc&, Tools& t) { t.adder->b->SetAnimation(Keys(Spline::Linear, {{0, 0}, {10, 10}})); },
       0, 2, 1, 0, 20.0},
      {"a new link", [](CPipelineDoc& d, Tools& t) { d.Connect(t.other->out, t.adder->b); }, 0, 2, 1, 2, 20.0},
      {"a link taken away", [](CPipelineDoc&, Tools& t) { t.adder->a->ConnectTo(nullptr); }, 0, 2, 1, 0, 6.0},
      {"a value of the last tool only", [](CPipelineDoc&, Tools& t) { t.spread->value->SetValue(new Number(1)); },
       0, 0, 1, 0, 16.0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    CPipelineDoc doc;
    Tools t{MakeChain(doc), Make<Clock>(doc, "TestClock")};
    t.adder->b->SetValue(new Number(3));
    ASSERT_EQ(RenderNumber(doc, t.spread->out, 5.0), 16.0);
    ASSERT_EQ(RenderNumber(doc, t.other->out, 5.0), 5.0);
    const size_t clock = doc.ProcessCount(t.clock), adder = doc.ProcessCount(t.adder),
                 spread = doc.ProcessCount(t.spread), other = doc.ProcessCount(t.other);
    c.change(doc, t);
    EXPECT_EQ(RenderNumber(doc, t.spread->out, 5.0), c.spread_after);
    RenderNumber(doc, t.other->out, 5.0);
    EXPECT_EQ(doc.ProcessCount(t.clock) - clock, c.clock) << "first tool";
    EXPECT_EQ(doc.ProcessCount(t.adder) - adder, c.adder) << "middle tool";
    EXPECT_EQ(doc.ProcessCount(t.spread) - spread, c.spread) << "last tool";
    EXPECT_EQ(doc.ProcessCount(t.other) - other, c.other) << "unrelated tool";
  }
}

// --- inputs a tool does not need ---

TEST_F(RenderTest, AnInputAToolDeclinesIsNeverRendered) {
  Chooser* chooser = Make<Chooser>(doc_, "TestChooser");
  Clock* first = Make<Clock>(doc_, "TestClock");
  Trouble* second = Make<Trouble>(doc_, "TestTrouble");
  ASSERT_TRUE(chooser && first && second);
  first->scale->SetValue(new Number(10));
  second->value->SetValue(new Number(-1));
  second->mode->SetValue(new Number(Trouble::ReturnZero));
  ASSERT_TRUE(doc_.Connect(first->out, chooser->first));
  ASSERT_TRUE(doc_.Connect(second->out, chooser->second));

  HostError err;
  EXPECT_EQ(RenderNumber(doc_, chooser->out, 2.0, &err), 20.0) << err.message;
  EXPECT_EQ(doc_.ProcessCount(second), 0u) << "a declined input's tool ran";
  EXPECT_FALSE(chooser->dropped_had_value) << "a declined input was handed a value";

  chooser->which->SetValue(new Number(1));
  second->mode->SetValue(new Number(Trouble::Pass));
  EXPECT_EQ(RenderNumber(doc_, chooser->out, 3.0, &err), -1.0) << err.message;
  EXPECT_EQ(doc_.ProcessCount(first), 1u) << "the first tool ran for a render that declined it";
  EXPECT_EQ(doc_.ProcessCount(second), 1u);
  EXPECT_FALSE(chooser->dropped_had_value);
}

// --- failures ---

TEST_F(RenderTest, FailingToolsGiveAMessageAndLeaveTheFlowUsable) {
  const struct {
    Trouble::Mode mode;
    const char* mentions;
  } cases[] = {
      {Trouble::ReturnZero, "TestTrouble1"},
      {Trouble::ImpossibleImage, "TestTrouble1"},
      {Trouble::Throw, "out of coffee"},
      {Trouble::StopFlow, "stopped"},
      {Trouble::StopSelf, "stopped"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("mode " + std::to_string(int(c.mode)));
    CPipelineDoc doc;
    Trouble* trouble = Make<Trouble>(doc, "TestTrouble");
    Adder* adder = Make<Adder>(doc, "TestAdder");
    Clock* clock = Make<Clock>(doc, "TestClock");
    ASSERT_TRUE(doc.Connect(trouble->out, adder->a));
    ASSERT_TRUE(doc.Connect(clock->out, adder->b));
    ASSERT_EQ(trouble->Name(), "TestTrouble1");
    trouble->value->SetValue(new Number(7));
    trouble->mode->SetValue(new Number(c.mode));

    // The failure reaches the render of a downstream tool, which is not cached.
    for (int attempt = 1; attempt <= 2; ++attempt) {
      HostError err;
      Ref<Parameter> result = doc.Render(adder->out, 1.0, 0, &err);
      EXPECT_EQ(result.get(), nullptr);
      EXPECT_NE(err.message.find(c.mentions), std::string::npos) << err.message;
      EXPECT_EQ(doc.ProcessCount(trouble), size_t(attempt)) << "a failed result was kept";
    }
    EXPECT_EQ(doc.ProcessCount(adder), 0u);

    // The next render of another tool is not stopped, and a repaired tool renders.
    HostError err;
    EXPECT_EQ(RenderNumber(doc, clock->out, 1.0, &err), 1.0) << err.message;
    trouble->mode->SetValue(new Number(Trouble::Pass));
    EXPECT_EQ(RenderNumber(doc, adder->out, 1.0, &err), 8.0) << err.message;
  }
}

TEST_F(RenderTest, AnOutputOutsideTheFlowIsRefused) {
  Clock* clock = Make<Clock>(doc_, "TestClock");
  CPipelineDoc other;
  HostError err;
  EXPECT_EQ(other.Render(clock->out, 0.0, 0, &err).get(), nullptr);
  EXPECT_FALSE(err.message.empty());
  err = {};
  EXPECT_EQ(doc_.Render(nullptr, 0.0, 0, &err).get(), nullptr);
  EXPECT_FALSE(err.message.empty());
}

// --- links ---

TEST_F(RenderTest, LinksThatMakeLoopsOrJoinOtherTypesAreRefused) {
  const auto [clock, adder, spread] = MakeChain(doc_);
  Adder* last = Make<Adder>(doc_, "TestAdder");
  Defaults* defaults = Make<Defaults>(doc_, "TestDefaults");
  Ramp* ramp = dynamic_cast<Ramp*>(doc_.AddModifier(clock->scale, "TestRamp"));
  Operator* blur = doc_.CreateTool("Blur");
  ASSERT_TRUE(last && defaults && ramp && blur);
  ASSERT_TRUE(doc_.Connect(spread->out, last->a));

  const struct {
    const char* what;
    Output* from;
    Input* to;
  } cases[] = {
      {"a tool to itself", adder->out, adder->b},
      {"back one step", spread->out, adder->b},
      {"back three steps", last->out, clock->scale},
      {"into the modifier of an upstream tool", last->out, ramp->rate},
      {"a number into a point", clock->out, defaults->center},
      {"a number into text", clock->out, defaults->label},
      {"an image into a number", blur->Outputs()[0].get(), adder->b},
      {"a number into an image", clock->out, defaults->image},
      {"nothing", nullptr, adder->b},
  };
  doc_.StartUndo("Links");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Output* before = c.to->Link();
    HostError err;
    EXPECT_FALSE(doc_.Connect(c.from, c.to, &err));
    EXPECT_FALSE(err.message.empty());
    EXPECT_EQ(c.to->Link(), before);
  }
  doc_.EndUndo(1);
  EXPECT_EQ(doc_.UndoName(), "") << "refused links recorded an undo step";
  EXPECT_TRUE(RenderNumber(doc_, last->out, 2.0).has_value());
}

// --- undo ---

TEST_F(RenderTest, ANamedStepUndoesAndRedoesEveryChangeExactly) {
  Clock* clock = Make<Clock>(doc_, "TestClock");
  Adder* adder = Make<Adder>(doc_, "TestAdder");
  Defaults* defaults = Make<Defaults>(doc_, "TestDefaults");
  Shape* shape = Make<Shape>(doc_, "TestShape");
  ASSERT_TRUE(clock && adder && defaults && shape);
  adder->b->SetValue(new Number(1));
  shape->SetNodes({1.0, 2.0});
  // A state: its text flow (every value and link, and the shape's nodes), results and step names.
  const auto expect_state = [&](const std::string& text, double total, double sum, const char* undo,
                                const char* redo) {
    EXPECT_EQ(SaveTextFlow(doc_), text);
    EXPECT_EQ(RenderNumber(doc_, shape->out, 2.0), total) << "a result of another state was kept";
    EXPECT_EQ(RenderNumber(doc_, adder->out, 2.0), sum);
    EXPECT_EQ(doc_.UndoName(), undo);
    EXPECT_EQ(doc_.RedoName(), redo);
  };
  const std::string before = SaveTextFlow(doc_);
  expect_state(before, 3.0, 1.0, "Edit Shape", "");

  doc_.StartUndo("Change Values");
  defaults->strength->SetValue(new Number(6));
  defaults->center->SetValue(new Point(0.3f, 0.7f));
  defaults->label->SetValue(new Text("changed"));
  defaults->count->SetAnimation(Keys(Spline::Bezier, {{0, 1}, {4, 9}}));
  ASSERT_TRUE(doc_.Connect(clock->out, adder->a));
  adder->b->SetValue(new Number(5));
  adder->b->SetValue(new Number(9));
  shape->gain->SetValue(new Number(2));
  shape->SetNodes({10.0, 20.0, 30.0});
  doc_.EndUndo(1);

  const std::string after = SaveTextFlow(doc_);
  expect_state(after, 120.0, 11.0, "Change Values", "");
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    ASSERT_TRUE(doc_.Undo());
    expect_state(before, 3.0, 1.0, "Edit Shape", "Change Values");
    ASSERT_TRUE(doc_.Redo());
    expect_state(after, 120.0, 11.0, "Change Values", "");
  }

  // A new step after an undo ends the redo history.
  ASSERT_TRUE(doc_.Undo());
  doc_.StartUndo("Other");
  defaults->strength->SetValue(new Number(1));
  doc_.EndUndo(1);
  EXPECT_EQ(doc_.RedoName(), "");
  EXPECT_FALSE(doc_.Redo());
}

TEST_F(RenderTest, AStepClosedWithoutKeepingIsDropped) {
  Defaults* defaults = Make<Defaults>(doc_, "TestDefaults");
  doc_.StartUndo("First");
  defaults->strength->SetValue(new Number(3));
  doc_.EndUndo(1);
  doc_.StartUndo("Scratch");
  defaults->strength->SetValue(new Number(4));
  defaults->count->SetValue(new Number(8));
  doc_.EndUndo(0);
  EXPECT_EQ(CurrentNumber(defaults->strength), 4.0) << "a dropped step keeps its changes";
  EXPECT_EQ(doc_.UndoName(), "First");
  ASSERT_TRUE(doc_.Undo());
  EXPECT_EQ(CurrentNumber(defaults->strength), 2.5);
  EXPECT_EQ(CurrentNumber(defaults->count), 8.0) << "the dropped change was undone with another step";
  EXPECT_FALSE(doc_.Undo());
}

TEST_F(RenderTest, NestedStepsFormOneStepNamedByTheOutermost) {
  Defaults* defaults = Make<Defaults>(doc_, "TestDefaults");
  Shape* shape = Make<Shape>(doc_, "TestShape");
  const std::string before = SaveTextFlow(doc_);
  doc_.StartUndo("Outer");
  defaults->strength->SetValue(new Number(5));
  doc_.StartUndo("Inner");
  defaults->count->SetValue(new Number(2));
  doc_.EndUndo(1);
  EXPECT_TRUE(doc_.InUndoStep());
  EXPECT_FALSE(doc_.Undo()) << "undo ran inside an open step";
  shape->SetNodes({4.0});  // the tool's own step, nested
  defaults->label->SetValue(new Text("nested"));
  doc_.EndUndo(1);
  EXPECT_FALSE(doc_.InUndoStep());
  EXPECT_EQ(doc_.UndoName(), "Outer");

  ASSERT_TRUE(doc_.Undo());
  EXPECT_EQ(SaveTextFlow(doc_), before);
  EXPECT_FALSE(doc_.Undo()) << "the nested steps were kept separately";
}

// --- modifiers ---

TEST_F(RenderTest, AModifierTakesOverAnInputFromItsCurrentValue) {
  const auto [clock, adder, spread] = MakeChain(doc_);
  adder->b->SetValue(new Number(3));
  doc_.current_time = 6.0;
  ASSERT_EQ(RenderNumber(doc_, adder->out, 4.0), 7.0);

  HostError err;
  auto* ramp = dynamic_cast<Ramp*>(doc_.AddModifier(adder->b, "TestRamp", &err));
  ASSERT_NE(ramp, nullptr) << err.message;
  EXPECT_EQ(ramp->Document(), &doc_);
  EXPECT_EQ(ramp->sources_set, 1);
  EXPECT_EQ(ramp->source_value, 3.0) << "SetSource gets the input's current value";
  EXPECT_EQ(ramp->source_time, 6.0);
  EXPECT_EQ(ramp->source_output, ramp->out);
  EXPECT_EQ(adder->b->Source(), ValueSource::Modifier);
  EXPECT_EQ(adder->b->Modifier(), ramp);
  EXPECT_EQ(adder->b->ModifierOutput(), ramp->out);

  EXPECT_EQ(RenderNumber(doc_, adder->out, 4.0, &err), 4.0 + 3.0) << err.message;
  ramp->rate->SetValue(new Number(2));
  EXPECT_EQ(RenderNumber(doc_, adder->out, 4.0, &err), 4.0 + 3.0 + 2 * 4.0) << "the modifier's change was not seen";
  EXPECT_EQ(RenderNumber(doc_, spread->out, 4.0, &err), (3.0 + 3 + 6) + (5.0 + 3 + 10));

  // A modified input's value is there for CheckRequest, and fetched again where it moves it:
  // the ramp gives t, asked for at t - 1 and t + 1.
  ASSERT_NE(doc_.AddModifier(spread->value, "TestRamp", &err), nullptr) << err.message;
  dynamic_cast<Ramp*>(spread->value->Modifier())->rate->SetValue(new Number(1));
  EXPECT_EQ(RenderNumber(doc_, spread->out, 4.0, &err), 3.0 + 5.0) << err.message;
  EXPECT_EQ(spread->value_seen_first, 4.0);
}

TEST_F(RenderTest, AddingAModifierThatCannotDriveTheInputChangesNothing) {
  Defaults* defaults = Make<Defaults>(doc_, "TestDefaults");
  const size_t tools = doc_.Tools().size();
  const struct {
    const char* what;
    Input* in;
    const char* class_name;
  } cases[] = {
      {"not a modifier", defaults->strength, "TestAdder"},
      {"no such class", defaults->strength, "NoSuchModifier"},
      {"no output of the input's type", defaults->center, "TestRamp"},
  };
  for (const auto& c : cases) {
    HostError err;
    EXPECT_EQ(doc_.AddModifier(c.in, c.class_name, &err), nullptr) << c.what;
    EXPECT_FALSE(err.message.empty()) << c.what;
    EXPECT_EQ(c.in->Source(), ValueSource::Constant) << c.what;
    EXPECT_EQ(doc_.Tools().size(), tools) << c.what << ": a tool was left behind";
  }
  EXPECT_EQ(Ramp::alive, 0);
}

TEST_F(RenderTest, RemovingAModifiedToolTakesItsModifiersWithIt) {
  const auto [clock, adder, spread] = MakeChain(doc_);
  Operator* on_a = doc_.AddModifier(adder->b, "TestRamp");
  Operator* on_clock = doc_.AddModifier(clock->scale, "TestRamp");
  ASSERT_TRUE(on_a && on_clock);
  ASSERT_EQ(Ramp::alive, 2);
  ASSERT_TRUE(RenderNumber(doc_, spread->out, 2.0).has_value());

  doc_.RemoveTool(adder);
  const std::vector<Operator*> left = doc_.Tools();
  EXPECT_EQ(left, (std::vector<Operator*>{clock, spread, on_clock}));
  EXPECT_EQ(Ramp::alive, 1) << "the removed tool's modifier lives on";
  EXPECT_EQ(spread->value->Link(), nullptr);
  EXPECT_TRUE(clock->out->Targets().empty());
  EXPECT_EQ(RenderNumber(doc_, spread->out, 2.0), 0.0) << "a stale result of the removed tool was used";

  // Removing a modifier itself gives its input back its own value.
  doc_.RemoveTool(on_clock);
  EXPECT_EQ(Ramp::alive, 0);
  EXPECT_EQ(clock->scale->Source(), ValueSource::Constant);
  EXPECT_EQ(RenderNumber(doc_, clock->out, 2.0), 2.0);
}

}  // namespace
}  // namespace kestrion

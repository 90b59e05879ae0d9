// Editing a Path: each operation's change to the node list, worked out by hand, its undo step's
// name, and undo and redo giving back the exact node lists; selecting, drawing points and the
// presets make no undo step; Lock Point keys the Displacement animation and the key follows its
// point; the context menu's texts.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "tests/tools/modifier/path_fixture.h"

namespace kestrion::test {
namespace {

// Keys (0.125, 0.5), (0.5, 0.125), (0.875, 0.5); the middle key's handles are not in line.
const std::vector<Node> kThreeKeys = {{.125, .5}, {.25, .25}, {.375, 0}, {.5, .125}, {.625, .25}, {.75, .25}, {.875, .5}};

struct EditCase {
  const char* what;
  int select;  // the key point clicked first (a node index), or -1
  std::function<bool(PathEditing&)> edit;
  const char* undo_name;
  std::vector<Node> after;  // selection bits aside
};

const EditCase kEdits[] = {
    {"delete the middle key", 3, [](PathEditing& e) { return e.DeletePoints(); }, "Delete Path Points",
     {{.125, .5}, {.25, .25}, {.75, .25}, {.875, .5}}},
    // Both segments meet the selected key: handles at a third and two thirds.
    {"linear", 3, [](PathEditing& e) { return e.Linear(); }, "Linearise Path",
     {{.125, .5}, {.25, .375}, {.375, .25}, {.5, .125}, {.625, .25}, {.75, .375}, {.875, .5}}},
    // Handles along (key 2 - key 0) / 6 = (0.125, 0).
    {"smooth", 3, [](PathEditing& e) { return e.Smooth(); }, "Smooth Path",
     {{.125, .5}, {.25, .25}, {.375, .125}, {.5, .125}, {.625, .125}, {.75, .25}, {.875, .5}}},
    {"close", -1, [](PathEditing& e) { return e.ClosePath(); }, "Close Path",
     {{.125, .5}, {.25, .25}, {.375, 0}, {.5, .125}, {.625, .25}, {.75, .25}, {.875, .5}, {.625, .5}, {.375, .5}, {.125, .5}}},
    // Far from the path: a new last key, straight handles from the old last key.
    {"add a key at the end", -1, [](PathEditing& e) { return e.AddPoint(.875f, .875f); }, "Add Path Point",
     {{.125, .5}, {.25, .25}, {.375, 0}, {.5, .125}, {.625, .25}, {.75, .25}, {.875, .5}, {.875, .625}, {.875, .75}, {.875, .875}}},
    // B(0.5) of the first segment is (0.3125, 0.171875): the segment split there, its shape kept.
    {"add a key on the path", -1, [](PathEditing& e) { return e.AddPoint(.3125f, .171875f); }, "Add Path Point",
     {{.125, .5}, {.1875, .375}, {.25, .25}, {.3125, .171875}, {.375, .09375}, {.4375, .0625}, {.5, .125}, {.625, .25}, {.75, .25}, {.875, .5}}},
    {"move a key with its handles", -1, [](PathEditing& e) { return e.MovePoint(3, .5f, .25f); }, "Move Path Point",
     {{.125, .5}, {.25, .25}, {.375, .125}, {.5, .25}, {.625, .375}, {.75, .25}, {.875, .5}}},
    // A selected key goes along.
    {"move two keys", 6, [](PathEditing& e) { return e.MovePoint(0, .125f, .625f); }, "Move Path Point",
     {{.125, .625}, {.25, .375}, {.375, 0}, {.5, .125}, {.625, .25}, {.75, .375}, {.875, .625}}},
    {"move a handle", -1, [](PathEditing& e) { return e.MovePoint(1, .25f, .5f); }, "Move Path Point",
     {{.125, .5}, {.25, .5}, {.375, 0}, {.5, .125}, {.625, .25}, {.75, .25}, {.875, .5}}},
};

std::vector<Node> WithoutSelection(std::vector<Node> nodes) {
  for (Node& n : nodes) n.flags &= ~PathKeyPoint::Selected;
  return nodes;
}

TEST_F(PathTest, EditsAreUndoneAndRedoneExactly) {
  for (const EditCase& c : kEdits) {
    SCOPED_TRACE(c.what);
    Operator* path = NewPath(kThreeKeys);
    PathEditing& edit = Edit(path);
    if (c.select >= 0) {
      ASSERT_TRUE(edit.ClickPoint(c.select, false));
    }
    const auto before = edit.EditedNodes();
    ASSERT_TRUE(c.edit(edit));
    EXPECT_EQ(doc_.UndoName(), c.undo_name);
    const auto after = edit.EditedNodes();
    EXPECT_EQ(WithoutSelection(ToNodes(after)), c.after);
    EXPECT_FLOAT_EQ(after.back().displacement, 1.0f);
    ASSERT_TRUE(doc_.Undo());
    EXPECT_EQ(edit.EditedNodes(), before);
    ASSERT_TRUE(doc_.Redo());
    EXPECT_EQ(edit.EditedNodes(), after);
    doc_.RemoveTool(path);
  }
}

TEST_F(PathTest, OpeningAClosedPathDropsItsLastSegment) {
  Operator* path = NewPath(kThreeKeys);
  PathEditing& edit = Edit(path);
  EXPECT_FALSE(edit.OpenPath()) << "the path is open";
  ASSERT_TRUE(edit.ClosePath());
  EXPECT_FALSE(edit.ClosePath()) << "the path is closed";
  const auto closed = edit.EditedNodes();
  ASSERT_TRUE(edit.OpenPath());
  EXPECT_EQ(doc_.UndoName(), "Open Path");
  EXPECT_EQ(NodesOf(path), kThreeKeys);
  ASSERT_TRUE(doc_.Undo());
  EXPECT_EQ(edit.EditedNodes(), closed);
}

// Edits that need more than there is change nothing and leave no undo step.
TEST_F(PathTest, EditsWithNothingToChangeLeaveNoStep) {
  Operator* path = NewPath({{.5, .5, 1}});
  PathEditing& edit = Edit(path);
  EXPECT_FALSE(edit.DeletePoints()) << "the last key point stays";
  EXPECT_FALSE(edit.ClosePath());
  EXPECT_FALSE(edit.Smooth());
  EXPECT_FALSE(edit.ClickPoint(1, false));
  EXPECT_EQ(doc_.UndoName(), "");
}

// Selecting, the draw-points toggle and the presets are not undone.
TEST_F(PathTest, SelectingAndPresetsMakeNoUndoStep) {
  Operator* path = NewPath(kThreeKeys);
  PathEditing& edit = Edit(path);
  edit.SelectAll();
  for (size_t k = 0; k < kThreeKeys.size(); ++k) EXPECT_EQ(NodesOf(path)[k].flags, k % 3 == 0 ? 1 : 0) << k;
  EXPECT_FALSE(edit.DrawsPoints());
  edit.DrawPoints();
  EXPECT_TRUE(edit.DrawsPoints());
  // The closed preset: five key points, the last on the first.
  ASSERT_TRUE(edit.PathShape(1));
  const auto nodes = NodesOf(path);
  ASSERT_EQ(nodes.size(), 13u);
  EXPECT_EQ(nodes.front(), nodes.back());
  ASSERT_TRUE(edit.PathShape(0));
  EXPECT_EQ(NodesOf(path).size(), 10u);
  EXPECT_EQ(doc_.UndoName(), "");
}

// Locking the clicked key point keys the Displacement animation at the flow's time with the
// point's displacement; moving points moves the key with it; locking again unlocks both.
TEST_F(PathTest, LockedKeysFollowTheirPoints) {
  Operator* path = NewPath(kThreeKeys);
  PathEditing& edit = Edit(path);
  Input* displacement = In(path, "Displacement");
  ASSERT_TRUE(edit.ClickPoint(3, false));
  EXPECT_FALSE(edit.LockPoint()) << "the Displacement is not animated";

  Spline ramp(Spline::Linear);
  ramp.SetKey({0.0, {0, 0}});
  ramp.SetKey({10.0, {1, 0}});
  displacement->SetAnimation(ramp);
  doc_.current_time = 4;
  ASSERT_TRUE(edit.ClickPoint(3, false));
  ASSERT_TRUE(edit.LockPoint());
  EXPECT_EQ(NodesOf(path)[3].flags & PathKeyPoint::Locked, PathKeyPoint::Locked);
  const auto locked = [&] { return displacement->Animation()->Keys()[1]; };
  EXPECT_EQ(locked().time, 4.0);
  EXPECT_EQ(locked().flags, KeyPoint::Locked);
  EXPECT_EQ(locked().value[0], edit.EditedNodes()[3].displacement);

  ASSERT_TRUE(edit.MovePoint(6, .875f, .875f));
  EXPECT_EQ(locked().value[0], edit.EditedNodes()[3].displacement);
  ASSERT_TRUE(doc_.Undo());
  EXPECT_EQ(locked().value[0], edit.EditedNodes()[3].displacement) << "undone with the move";

  ASSERT_TRUE(edit.ClickPoint(3, false));
  ASSERT_TRUE(edit.LockPoint());
  EXPECT_EQ(NodesOf(path)[3].flags & PathKeyPoint::Locked, 0);
  EXPECT_EQ(locked().flags, 0u);
}

TEST_F(PathTest, TheContextMenu) {
  Operator* path = NewPath(kThreeKeys);
  PathEditing& edit = Edit(path);
  std::vector<std::pair<std::string, std::string>> texts;
  for (const auto& e : edit.ContextMenu().entries) texts.emplace_back(e.submenu, e.text);
  EXPECT_EQ(texts, (std::vector<std::pair<std::string, std::string>>{
                       {"", "Select All"}, {"", "Delete Points"}, {"", "Linear"}, {"", "Smooth"}, {"", "Lock Point"},
                       {"", "Draw Points"}, {"", "Close Path"}, {"Path Shape", "Open Path"}, {"Path Shape", "Closed Path"}}));
  // An entry runs through ControlCommand, except while the flow is busy.
  const uint32_t close = edit.ContextMenu().Command("Close Path");
  EXPECT_GE(close, 0x8000u);
  doc_.busy = true;
  EXPECT_FALSE(path->ControlCommand(nullptr, nullptr, nullptr, close, nullptr));
  doc_.busy = false;
  EXPECT_TRUE(path->ControlCommand(nullptr, nullptr, nullptr, close, nullptr));
  EXPECT_EQ(edit.ContextMenu().entries[6].text, "Open Path");
}

}  // namespace
}  // namespace kestrion::test

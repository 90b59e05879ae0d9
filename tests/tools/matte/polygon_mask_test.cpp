// The Polygon mask: straight and curved outlines placed by Centre, Size and Angle (worked out by
// hand on a 16 x 16 frame, centre pixel corner (8, 8)), the outline blended between shapes keyed
// at times through PolygonChange, the save records, and editing with undo.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>

#include "host/base/archive.h"
#include "host/draw/node_editing.h"
#include "host/graph/registry.h"
#include "tests/tools/matte/mask_fixture.h"
#include "tests/tools/modifier/path_fixture.h"

namespace kestrion::test {
namespace {

// A closed outline through the corners, straight: each handle on its key point.
std::vector<Node> Quad(Node a, Node b, Node c, Node d) { return {a, a, b, b, b, c, c, c, d, d, d, a}; }
std::vector<Node> Square(float h) { return Quad({-h, -h}, {h, -h}, {h, h}, {-h, h}); }

class PolygonTest : public MaskToolTest {
 protected:
  void SetUp() override { SetFrame(16, 16); }
  // A Polygon whose outline is the shapes, keyed at the times given (NaN: no time).
  Operator* Polygon(const std::vector<std::pair<double, std::vector<Node>>>& shapes) {
    Operator* op = Tool("PolygonMask");
    NodeLists lists;
    for (const auto& [time, nodes] : shapes) lists.shapes.push_back({!std::isnan(time), std::isnan(time) ? 0.0 : time, ToPoints(nodes)});
    dynamic_cast<NodeListTool*>(op)->SetNodeLists(lists);
    return op;
  }
  Operator* Polygon(const std::vector<Node>& nodes) { return Polygon({{NAN, nodes}}); }
  static NodeEditing& Edit(Operator* op) { return *dynamic_cast<NodeEditing*>(op); }
};

TEST_F(PolygonTest, OutlinesArePlacedByCentreSizeAndAngle) {
  const std::vector<Node> right_of_centre = Quad({.125, -.125}, {.375, -.125}, {.375, .125}, {.125, .125});
  const struct {
    const char* what;
    std::vector<Node> nodes;
    double size, angle;
    CRect bounds;  // the outline's box, widened half a pixel by the pen
    std::vector<std::pair<CPoint, uint8_t>> pixels;
  } cases[] = {
      {"straight", Square(.25f), 1, 0, {3, 3, 13, 13}, {{{4, 4}, 255}, {{11, 11}, 255}, {{2, 8}, 0}}},
      // The new outline, round with radius 0.375: (11, 11) lies inside the circle of radius 6
      // about (8, 8) though outside the square through its key points.
      {"curved", ToNodes(Edit(Tool("PolygonMask")).EditedNodes()), 1, 0, {1, 1, 15, 15}, {{{11, 11}, 255}, {{13, 13}, 0}}},
      {"size 2", Square(.125f), 2, 0, {3, 3, 13, 13}, {}},
      // Y = -u sin + cy Hp: a shape right of the centre turns to above it.
      {"right of the centre", right_of_centre, 1, 0, {9, 5, 15, 11}, {}},
      {"turned 90", right_of_centre, 1, 90, {5, 1, 11, 7}, {}},
      // Sizes that are not positive draw nothing.
      {"size 0", Square(.25f), 0, 0, {}, {{{8, 8}, 0}}},
      {"size -1", Square(.25f), -1, 0, {}, {{{8, 8}, 0}}},
      {"size NaN", Square(.25f), NAN, 0, {}, {{{8, 8}, 0}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Operator* op = Polygon(c.nodes);
    Set(op, "Size", c.size);
    Set(op, "Angle", c.angle);
    const RenderedMask r = Render(op);
    EXPECT_EQ(r.bounds, c.bounds);
    for (const auto& [at, value] : c.pixels) EXPECT_EQ(r.At(at.x, at.y), value) << at.x << ", " << at.y;
  }
}

// Shapes of half-size 0.125 at time 0 and 0.375 at time 10. At time 5 an animated
// PolygonChange of 0.75 weighs the earlier shape (1 - 0.75) / (1 - 0) = 0.25: half-size
// 0.3125, 5 pixels; a still one weighs it by time, 0.5: half-size 0.25.
TEST_F(PolygonTest, ShapesBlendThroughPolygonChange) {
  const struct {
    const char* what;
    bool animated;
    double time;
    CRect bounds;
  } cases[] = {
      {"animated, halfway", true, 5, {2, 2, 14, 14}},
      {"still, halfway", false, 5, {3, 3, 13, 13}},
      {"at the second shape", true, 10, {1, 1, 15, 15}},
      {"after the last shape", true, 12, {1, 1, 15, 15}},
      {"before the first shape", true, -3, {5, 5, 11, 11}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Operator* op = Polygon({{0, Square(.125f)}, {10, Square(.375f)}});
    if (c.animated) {
      Spline change(Spline::Linear);
      for (auto [t, v] : {std::pair{0.0, 0.0}, {5.0, 0.75}, {10.0, 1.0}}) change.SetKey({t, {v, 0}});
      In(op, "PolygonChange")->SetAnimation(change);
    }
    EXPECT_EQ(Render(op, c.time).bounds, c.bounds);
  }
}

// "PgMs", the base record, then records of 32-bit length: 4 and the node count; per shape 4
// and 0 (12, 1 and the time for a keyed shape), then 9 and each node's flags without the
// selection, x, y; a 0; "EndC".
TEST_F(PolygonTest, TheSaveRecordsAreLengthPrefixed) {
  std::vector<Node> nodes = Square(.25f);
  nodes[0].flags = 1 | 2;
  nodes[4].flags = 8;
  Operator* op = Polygon(nodes);
  CArchive whole, base;
  ASSERT_EQ(op->Save(&whole, nullptr), 1u);
  op->Operator::Save(&base, nullptr);
  CArchive expected;
  expected.WriteWord(FourCC("PgMs"));
  expected.WriteBytes(base.Bytes().data(), base.Bytes().size());
  for (uint32_t w : {4u, 12u, 4u, 0u}) expected.WriteWord(w);
  for (const Node& n : nodes) {
    expected.WriteWord(9);
    const uint8_t flags = uint8_t(n.flags & 14);
    expected.WriteBytes(&flags, 1);
    expected.WriteFloat(n.x);
    expected.WriteFloat(n.y);
  }
  expected.WriteWord(0);
  expected.WriteWord(FourCC("EndC"));
  EXPECT_EQ(whole.Bytes(), expected.Bytes());
}

TEST_F(PolygonTest, BrokenRecordsAreRefused) {
  Operator* op = Polygon(Square(.25f));
  CArchive base;
  op->Operator::Save(&base, nullptr);
  const struct {
    const char* what;
    std::vector<uint32_t> words;
  } cases[] = {
      {"a count that is not 3k", {4, 4, 4, 0}},
      {"no shape", {4, 3, 0}},
      {"a shape record of 8 bytes", {4, 3, 8, 0, 0}},
      {"a node record of 8 bytes", {4, 3, 4, 0, 8, 0, 0, 0}},
  };
  for (const auto& c : cases) {
    CArchive bytes;
    bytes.WriteBytes(base.Bytes().data(), base.Bytes().size());
    for (uint32_t w : c.words) bytes.WriteWord(w);
    for (int i = 0; i < 12; ++i) bytes.WriteWord(0);
    CArchive in(bytes.Bytes());
    EXPECT_THROW(op->Class()->Create(&in, nullptr), ArchiveError) << c.what;
  }
}

// Square(0.375) on the 16 x 16 frame, edited at time 0 with Size 1.
struct PolygonEdit {
  const char* what;
  int select;  // a key point's node, or -1
  double angle;
  std::function<bool(NodeEditing&)> edit;
  const char* undo_name;
  std::vector<Node> after;
};

const Node k0{-.375, -.375}, k1{.375, -.375}, k2{.375, .375}, k3{-.375, .375};
const PolygonEdit kEdits[] = {
    {"delete a key", 3, 0, [](NodeEditing& e) { return e.DeletePoints(); }, "Delete Polygon Points",
     {k0, k0, k2, k2, k2, k3, k3, k3, k0}},
    // Handles along (key 2 - key 0) / 6 = (0.125, 0.125).
    {"smooth", 3, 0, [](NodeEditing& e) { return e.Smooth(); }, "Smooth Polygon",
     {k0, k0, {.25, -.5}, k1, {.5, -.25}, k2, k2, k2, k3, k3, k3, k0}},
    {"linear", 3, 0, [](NodeEditing& e) { return e.Linear(); }, "Linearise Polygon",
     {k0, {-.125, -.375}, {.125, -.375}, k1, {.375, -.125}, {.375, .125}, k2, k2, k3, k3, k3, k0}},
    // Frame (-0.25, 0.5) is node (-0.75, 0), far off the outline: a key on the closing segment.
    {"add a key", -1, 0, [](NodeEditing& e) { return e.AddPoint(-.25f, .5f); }, "Add Polygon Point",
     {k0, k0, k1, k1, k1, k2, k2, k2, k3, k3, {-.5, .25}, {-.625, .125}, {-.75, 0}, {-.625, -.125}, {-.5, -.25}}},
    {"move a key", -1, 0, [](NodeEditing& e) { return e.MovePoint(3, 1.0f, .125f); }, "Move Polygon Point",
     {k0, k0, {.5, -.375}, {.5, -.375}, {.5, -.375}, k2, k2, k2, k3, k3, k3, k0}},
    // Turned 90, node (x, y) lies at frame (y + 0.5, 0.5 - x).
    {"move a key, turned", -1, 90, [](NodeEditing& e) { return e.MovePoint(3, .125f, 0.0f); }, "Move Polygon Point",
     {k0, k0, {.5, -.375}, {.5, -.375}, {.5, -.375}, k2, k2, k2, k3, k3, k3, k0}},
};

TEST_F(PolygonTest, EditsAreUndoneAndRedoneExactly) {
  for (const PolygonEdit& c : kEdits) {
    SCOPED_TRACE(c.what);
    Operator* op = Polygon(Square(.375f));
    Set(op, "Angle", c.angle);
    NodeEditing& edit = Edit(op);
    if (c.select >= 0) {
      ASSERT_TRUE(edit.ClickPoint(c.select, false));
    }
    const NodeLists before = dynamic_cast<NodeListTool*>(op)->GetNodeLists();
    ASSERT_TRUE(c.edit(edit));
    EXPECT_EQ(doc_.UndoName(), c.undo_name);
    std::vector<Node> after = ToNodes(edit.EditedNodes());
    for (Node& n : after) n.flags &= ~PathKeyPoint::Selected;
    EXPECT_EQ(after, c.after);
    const NodeLists edited = dynamic_cast<NodeListTool*>(op)->GetNodeLists();
    ASSERT_TRUE(doc_.Undo());
    EXPECT_EQ(dynamic_cast<NodeListTool*>(op)->GetNodeLists(), before);
    ASSERT_TRUE(doc_.Redo());
    EXPECT_EQ(dynamic_cast<NodeListTool*>(op)->GetNodeLists(), edited);
    doc_.RemoveTool(op);
  }
}

// Moving a point at a time between two keyed shapes keys a third shape there, made from the
// outline at that time; undo takes it away again. Deleting a point takes it from every shape
// and keys none.
TEST_F(PolygonTest, EditsBetweenKeyedShapesKeyANewShape) {
  Operator* op = Polygon({{0, Square(.125f)}, {10, Square(.375f)}});
  doc_.current_time = 5;
  ASSERT_TRUE(Edit(op).MovePoint(1, .5f, .5f));
  const NodeLists lists = dynamic_cast<NodeListTool*>(op)->GetNodeLists();
  ASSERT_EQ(lists.shapes.size(), 3u);
  EXPECT_EQ(lists.shapes[1].time, 5.0);
  EXPECT_EQ(ToNodes(lists.shapes[1].nodes)[0], (Node{-.25, -.25}));
  EXPECT_EQ(ToNodes(lists.shapes[1].nodes)[1], (Node{0, 0}));
  ASSERT_TRUE(doc_.Undo());
  EXPECT_EQ(dynamic_cast<NodeListTool*>(op)->GetNodeLists().shapes.size(), 2u);
  ASSERT_TRUE(Edit(op).ClickPoint(3, false));
  ASSERT_TRUE(Edit(op).DeletePoints());
  for (const NodeShape& shape : dynamic_cast<NodeListTool*>(op)->GetNodeLists().shapes) EXPECT_EQ(shape.nodes.size(), 9u);
  EXPECT_EQ(dynamic_cast<NodeListTool*>(op)->GetNodeLists().shapes.size(), 2u);
}

TEST_F(PolygonTest, TheContextMenu) {
  std::vector<std::string> texts;
  for (const auto& e : Edit(Polygon(Square(.25f))).ContextMenu().entries) texts.push_back(e.text);
  EXPECT_EQ(texts, (std::vector<std::string>{"Select All", "Delete Points", "Smooth", "Linear"}));
}

}  // namespace
}  // namespace kestrion::test

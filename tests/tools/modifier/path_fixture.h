// What the Path tests share: a Path in a flow given its nodes, its outputs rendered at a time,
// and node lists written and compared as (x, y, flags) rows.
#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <stdexcept>
#include <tuple>
#include <vector>

#include "host/document/document.h"
#include "host/document/node_lists.h"
#include "host/draw/node_editing.h"
#include "tests/host/test_tools.h"

namespace kestrion::test {

// A node as tests write it: x, y and flags.
struct Node {
  float x, y;
  int flags = 0;
  bool operator==(const Node&) const = default;
};
inline void PrintTo(const Node& n, std::ostream* os) { *os << "(" << n.x << ", " << n.y << ", " << n.flags << ")"; }

inline std::vector<PathKeyPoint> ToPoints(const std::vector<Node>& nodes) {
  std::vector<PathKeyPoint> out;
  for (const Node& n : nodes) out.push_back(PathKeyPoint{uint8_t(n.flags), n.x, n.y, 0.0f});
  return out;
}
inline std::vector<Node> ToNodes(const std::vector<PathKeyPoint>& points) {
  std::vector<Node> out;
  for (const PathKeyPoint& p : points) out.push_back({p.x, p.y, p.flags});
  return out;
}

class PathTest : public ::testing::Test {
 protected:
  // A Path holding the nodes (with the default aspect factor, 0.75).
  Operator* NewPath(const std::vector<Node>& nodes) {
    HostError err;
    Operator* op = doc_.CreateTool("Path", {}, &err);
    if (!op) throw std::runtime_error(err.message);
    dynamic_cast<NodeListTool*>(op)->SetNodeLists(NodeLists{{NodeShape{false, 0.0, ToPoints(nodes)}}});
    return op;
  }
  static PathEditing& Edit(Operator* op) { return *dynamic_cast<PathEditing*>(op); }
  static std::vector<Node> NodesOf(Operator* op) { return ToNodes(Edit(op).EditedNodes()); }
  static Input* In(Operator* op, const char* label) { return op->FindInput(0, label); }

  // Value and Heading at a time.
  std::tuple<float, float, double> Evaluate(Operator* op, double time = 0.0) {
    HostError err;
    Ref<Parameter> value = doc_.Render(op->Outputs()[0].get(), time, 0, &err);
    Ref<Parameter> heading = doc_.Render(op->Outputs()[1].get(), time, 0, &err);
    auto* p = dynamic_cast<Point*>(value.get());
    auto* h = dynamic_cast<Number*>(heading.get());
    if (!p || !h) throw std::runtime_error("no value: " + err.message);
    return {p->x, p->y, h->value};
  }

  CPipelineDoc doc_;
};

}  // namespace kestrion::test

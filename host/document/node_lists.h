// Tool data made of path node lists: the Path modifier's path and the Polygon mask's shapes.
// Text flows write it in a readable form ({"nodes": ...}, {"shapes": ...}) rather than as the
// bytes of the tool's record, and check it before the tool sees it.
#pragma once

#include <vector>

#include "host/base/animation.h"

namespace kestrion {

// One list of nodes, with the time (in frames) it is keyed at, if any.
struct NodeShape {
  bool timed = false;
  double time = 0.0;
  std::vector<PathKeyPoint> nodes;
  bool operator==(const NodeShape&) const = default;
};

struct NodeLists {
  std::vector<NodeShape> shapes;
  float aspect = 0.75f;  // the path's height-to-width factor (open paths only)
  bool operator==(const NodeLists&) const = default;
};

// Implemented by tools whose data is node lists.
class NodeListTool {
 public:
  // OpenPath: one untimed list of 3k - 2 nodes (key, out-handle, in-handle, key, ...) and an
  // aspect factor. ClosedShapes: one or more lists of the same 3k nodes (key, out-handle,
  // in-handle for each key; the last in-handle leads back to the first key), timed or not.
  enum class Form { OpenPath, ClosedShapes };

  virtual ~NodeListTool();
  virtual Form NodeForm() const = 0;
  virtual NodeLists GetNodeLists() const = 0;
  // Replaces the data with lists of the tool's form whose numbers are all finite.
  virtual void SetNodeLists(const NodeLists& lists) = 0;
};

}  // namespace kestrion

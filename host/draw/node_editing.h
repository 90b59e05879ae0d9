// Editing a tool's outline of path nodes (the Path modifier, the Polygon mask) in a preview.
// The preview has no mouse yet: these are the operations its clicks, drags and context menu
// would run, and what tests and scripts call. Positions are in frame coordinates (0 to 1 across
// the width and down the height). An operation that changes the outline is one undo step under
// the name the tool gives it; selecting is not undone.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "host/base/animation.h"
#include "host/graph/ui.h"

namespace kestrion {

class NodeEditing {
 public:
  virtual ~NodeEditing();

  // The nodes being edited in drawing order (the Polygon's outline at the document's time).
  virtual std::vector<PathKeyPoint> EditedNodes() const = 0;
  // The context menu; ControlCommand runs an entry's command.
  virtual PopupMenu ContextMenu() const = 0;

  // A click on the key point at node index `node`: it becomes the current key point and is
  // selected, alone unless `add`. False when the node is no key point.
  virtual bool ClickPoint(int node, bool add) = 0;
  virtual void SelectAll() = 0;
  // The menu operations on the selected key points; false when nothing changed.
  virtual bool DeletePoints() = 0;
  virtual bool Smooth() = 0;
  virtual bool Linear() = 0;
  // A key point added at (x, y): on the outline, splitting the segment there, when (x, y) lies
  // within kHitRadius of it; else at the end of the outline.
  virtual bool AddPoint(float x, float y) = 0;
  // Node `node` dragged to (x, y): a key point carries its handles and the other selected key
  // points along; a handle moves alone.
  virtual bool MovePoint(int node, float x, float y) = 0;

  // How near the outline a click counts as on it, in frame widths.
  static constexpr float kHitRadius = 0.01f;

  // The commands of the context-menu entries every outline has; a tool's own entries take
  // kFirstToolCommand on. Command 1 deletes the selected points, as the preview's delete key.
  enum Command : uint32_t { kDeleteSelected = 1, kSelectAll = 0x8000, kDeletePoints, kSmooth, kLinear, kFirstToolCommand };
  // Runs one of those commands: whether it changed anything, or nothing for another command.
  std::optional<bool> RunCommand(uint32_t command);
};

// The Path modifier's further operations.
class PathEditing : public NodeEditing {
 public:
  // Toggles the lock of the current key point to a key of the Displacement animation.
  virtual bool LockPoint() = 0;
  // Toggles whether the preview draws the path's points.
  virtual void DrawPoints() = 0;
  virtual bool DrawsPoints() const = 0;
  virtual bool ClosePath() = 0;
  virtual bool OpenPath() = 0;
  // Replaces the path by a preset of the "Path Shape" menu: 0 "Open Path", 1 "Closed Path".
  virtual bool PathShape(int preset) = 0;
  // The height-to-width factor of the frame that headings are measured on.
  virtual float Aspect() const = 0;
};

}  // namespace kestrion

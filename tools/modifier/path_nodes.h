// The path node list that the Path modifier and the Polygon mask share: key points with their
// handles in drawing order (key, out-handle, in-handle, key, ...), the arc-length displacement
// of key points, the point and heading at a displacement, and the geometry of editing.
// An open path of k key points has 3k - 2 nodes, key k at node 3k. A closed shape has 3k:
// key i, its out-handle, and the in-handle of key i + 1, the last leading back to key 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "host/base/animation.h"
#include "host/base/archive.h"

namespace kestrion::tools {

using PathNodes = std::vector<PathKeyPoint>;

constexpr bool IsKeyNode(size_t node) { return node % 3 == 0; }

// B'(t) = a t^2 + b t + c of the segment from p[0] through handles p[1], p[2] to p[3], the
// coefficients in single precision: a = 3(P3 - 3 P2 + 3 P1 - P0), b = 6(P0 - 2 P1 + P2),
// c = 3(P1 - P0).
struct SegmentSlope {
  float ax, ay, bx, by, cx, cy;
  static SegmentSlope Of(const PathKeyPoint* p);
};

// A segment's length by the trapezoid rule over 200 steps of 0.005, in single precision.
float SegmentLength(const SegmentSlope& s);

// Gives every key point of an open path the share of the path's length up to it (0 at the
// first, 1 at the last); a path without length, or of one segment, shares by node index:
// index / (count - 1). Paths of one key point are left as they are.
void ComputeDisplacements(PathNodes& nodes);

struct PathPoint {
  float x = 0.0f, y = 0.0f;
  double heading = 0.0;  // degrees; 0 where the path gives no direction
};

// The point at displacement d along an open path, found by walking the segment's arc length
// in 10 000 steps in double precision, and the heading there on a frame of the given
// height-to-width factor. Beyond a segment's length, or before its start, the point is the
// segment's end key.
PathPoint EvaluatePath(const PathNodes& nodes, float d, float aspect);

// --- editing ---

// A key point with its handles; an open path's first key has no in-handle and its last no
// out-handle (they hold the key's own position).
struct KeyWithHandles {
  PathKeyPoint in, key, out;
};
std::vector<KeyWithHandles> KeysOf(const PathNodes& nodes, bool closed);
PathNodes NodesOf(const std::vector<KeyWithHandles>& keys, bool closed);

// Selects the key point at node index `node`, alone unless `add`; false (nothing changed) when
// the node is no key point.
bool SelectKey(PathNodes& nodes, int node, bool add);
void SelectAllKeys(PathNodes& nodes);

// Moves node `node` to (x, y): a handle alone; a key point with its handles, and by the same
// step every key point that `carried` marks (by node index) with its handles. False when there
// is no such node.
bool MoveNode(PathNodes& nodes, bool closed, int node, float x, float y, const std::vector<bool>& carried);

// Whether an open path ends where it starts (more than one segment, last key on the first).
bool IsClosedPath(const PathNodes& nodes);

// Handles in line through each selected key point, pointing from the key before it to the key
// after it, each a sixth of that distance long.
void SmoothSelected(std::vector<KeyWithHandles>& keys, bool closed);
// Straight handles (at a third and two thirds) on every segment that has a selected end.
void StraightenSelected(std::vector<KeyWithHandles>& keys, bool closed);
// Straight handles on the segment from a to b.
void Straighten(KeyWithHandles& a, KeyWithHandles& b);
// A new key point splitting the segment after key `segment` at parameter t (its shape kept).
void SplitSegment(std::vector<KeyWithHandles>& keys, size_t segment, double t);

// Where an outline passes nearest a point: the segment, its parameter (in hundredths) and the
// distance, measured in frame widths on the frame after mapping each node with `to_frame`.
struct OutlineHit {
  size_t segment = 0;
  double t = 0.0;
  double distance = 0.0;
};
using NodeToFrame = std::function<PathKeyPoint(const PathKeyPoint&)>;
OutlineHit NearestOnOutline(const PathNodes& nodes, bool closed, const NodeToFrame& to_frame, float x, float y,
                            float aspect);

// `count` key points round (cx, cy) on the ellipse of radii rx, ry, from its right end
// clockwise on the frame (y grows downwards), a quarter turn apart, with handles along the
// ellipse `roundness` times the radius long (0.5523 is round).
std::vector<KeyWithHandles> EllipseKeys(int count, double rx, double ry, double roundness, double cx, double cy);

// The "Path Shape" presets: key points round (cx, cy) at radius r frame widths (r / aspect frame
// heights): the open shape stops a quarter short, the closed one returns to its start.
PathNodes PresetShape(float r, float roundness, float cx, float cy, bool closed, float aspect);

// Save records of a node: 8-bit flags without the selection, float x, float y (and the
// displacement, for paths).
void WriteNode(CArchive& ar, const PathKeyPoint& node, bool with_displacement);
PathKeyPoint ReadNode(CArchive& ar, bool with_displacement);

}  // namespace kestrion::tools

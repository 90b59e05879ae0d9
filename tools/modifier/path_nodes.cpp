#include "tools/modifier/path_nodes.h"

#include <cmath>
#include <limits>

namespace kestrion::tools {

namespace {

// |B'(t)| in single precision.
float SpeedF(const SegmentSlope& s, float t) {
  const float t2 = t * t;
  const float dx = s.ax * t2 + s.bx * t + s.cx, dy = s.ay * t2 + s.by * t + s.cy;
  return std::sqrt(dx * dx + dy * dy);
}

// B'(t) in double precision from the single-precision coefficients.
struct Slope {
  double dx, dy;
  double Speed() const { return std::sqrt(dx * dx + dy * dy); }
};
Slope SlopeAt(const SegmentSlope& s, double t) {
  const double t2 = t * t;
  return {double(s.ax) * t2 + double(s.bx) * t + double(s.cx), double(s.ay) * t2 + double(s.by) * t + double(s.cy)};
}

constexpr int kWalkSteps = 10000;
constexpr double kWalkStep = 0.0001;
constexpr double kHalfStep = 5e-05;
constexpr double kDegreesPerRadian = 57.29577951308232;

PathKeyPoint Lerp(const PathKeyPoint& a, const PathKeyPoint& b, double t) {
  PathKeyPoint p = a;
  p.x = float(a.x + (double(b.x) - a.x) * t);
  p.y = float(a.y + (double(b.y) - a.y) * t);
  return p;
}

PathKeyPoint At(const PathKeyPoint& like, double x, double y) {
  PathKeyPoint p = like;
  p.x = float(x);
  p.y = float(y);
  return p;
}

}  // namespace

SegmentSlope SegmentSlope::Of(const PathKeyPoint* p) {
  SegmentSlope s;
  s.ax = 3.0f * (((p[3].x - 3.0f * p[2].x) + 3.0f * p[1].x) - p[0].x);
  s.ay = 3.0f * (((p[3].y - 3.0f * p[2].y) + 3.0f * p[1].y) - p[0].y);
  s.bx = 6.0f * ((p[0].x - 2.0f * p[1].x) + p[2].x);
  s.by = 6.0f * ((p[0].y - 2.0f * p[1].y) + p[2].y);
  s.cx = 3.0f * (p[1].x - p[0].x);
  s.cy = 3.0f * (p[1].y - p[0].y);
  return s;
}

float SegmentLength(const SegmentSlope& s) {
  float sum = SpeedF(s, 0.0f), last = 0.0f;
  for (int i = 1; i <= 200; ++i) {
    last = SpeedF(s, float(i) * 0.005f);
    sum += 2.0f * last;
  }
  return (sum - last) * 0.0025f;
}

void ComputeDisplacements(PathNodes& nodes) {
  const size_t count = nodes.size();
  if (count <= 3) return;
  float total = 0.0f;
  nodes[0].displacement = 0.0f;
  nodes[count - 1].displacement = 1.0f;
  for (size_t k = 0; k + 3 < count; k += 3) {
    total += SegmentLength(SegmentSlope::Of(&nodes[k]));
    nodes[k + 3].displacement = total;
  }
  for (size_t k = 0; k < count; k += 3)
    nodes[k].displacement = total == 0.0f || count == 4 ? float(k) / float(count - 1) : nodes[k].displacement / total;
}

PathPoint EvaluatePath(const PathNodes& nodes, float d, float aspect) {
  PathPoint out;
  if (nodes.empty()) return out;
  if (nodes.size() < 4) {
    out.x = nodes[0].x;
    out.y = nodes[0].y;
    return out;
  }
  size_t k = 0;
  while (k + 6 < nodes.size() && nodes[k + 3].displacement < d) k += 3;
  const float local = d - nodes[k].displacement;
  const PathKeyPoint* p = &nodes[k];
  const SegmentSlope s = SegmentSlope::Of(p);

  double sum = SlopeAt(s, 0.0).Speed(), last = 0.0;
  for (int i = 1; i <= kWalkSteps; ++i) {
    last = SlopeAt(s, i * kWalkStep).Speed();
    sum += 2.0 * last;
  }
  const double length = sum - last;
  const float span = p[3].displacement - p[0].displacement;
  const double target = span != 0.0f ? length / span * local * kHalfStep : double(local);

  out.x = p[3].x;
  out.y = p[3].y;
  if (target < 0.0) return out;
  double running = SlopeAt(s, 0.0).Speed(), before = 0.0;
  for (int i = 1; i <= kWalkSteps; ++i) {
    const Slope slope = SlopeAt(s, i * kWalkStep);
    const double speed = slope.Speed();
    running += 2.0 * speed;
    const double reached = (running - speed) * kHalfStep;
    if (target <= reached) {
      double t = i * kWalkStep;
      if (target < reached) t = (target - before) / (reached - before) * kWalkStep + t - kWalkStep;
      const double u = 1.0 - t;
      const double t2 = float(t * t);
      out.x = float(p[0].x * (u * u * u) + 3.0 * p[1].x * t * (u * u) + 3.0 * p[2].x * t2 * u + p[3].x * t2 * t);
      out.y = float(p[0].y * (u * u * u) + 3.0 * p[1].y * t * (u * u) + 3.0 * p[2].y * t2 * u + p[3].y * t2 * t);
      if (slope.dx != 0.0 || slope.dy != 0.0)
        out.heading = std::atan2(-double(aspect) * slope.dy, slope.dx) * kDegreesPerRadian;
      return out;
    }
    before = reached;
  }
  return out;
}

// --- editing ---

std::vector<KeyWithHandles> KeysOf(const PathNodes& nodes, bool closed) {
  std::vector<KeyWithHandles> keys;
  const size_t count = nodes.size();
  for (size_t k = 0; k < count; k += 3) {
    KeyWithHandles key{nodes[k], nodes[k], nodes[k]};
    if (k + 1 < count) key.out = nodes[k + 1];
    if (k > 0) key.in = nodes[k - 1];
    if (k == 0 && closed) key.in = nodes[count - 1];
    keys.push_back(key);
  }
  return keys;
}

PathNodes NodesOf(const std::vector<KeyWithHandles>& keys, bool closed) {
  PathNodes nodes;
  for (size_t i = 0; i < keys.size(); ++i) {
    if (i > 0) nodes.push_back(keys[i].in);
    nodes.push_back(keys[i].key);
    if (closed || i + 1 < keys.size()) nodes.push_back(keys[i].out);
  }
  if (closed && !keys.empty()) nodes.push_back(keys[0].in);
  return nodes;
}

bool SelectKey(PathNodes& nodes, int node, bool add) {
  if (node < 0 || size_t(node) >= nodes.size() || !IsKeyNode(size_t(node))) return false;
  for (size_t k = 0; k < nodes.size() && !add; k += 3) nodes[k].flags &= ~PathKeyPoint::Selected;
  nodes[size_t(node)].flags |= PathKeyPoint::Selected;
  return true;
}

void SelectAllKeys(PathNodes& nodes) {
  for (size_t k = 0; k < nodes.size(); k += 3) nodes[k].flags |= PathKeyPoint::Selected;
}

bool MoveNode(PathNodes& nodes, bool closed, int node, float x, float y, const std::vector<bool>& carried) {
  if (node < 0 || size_t(node) >= nodes.size()) return false;
  const size_t moved = size_t(node);
  const float dx = x - nodes[moved].x, dy = y - nodes[moved].y;
  if (!IsKeyNode(moved)) {
    nodes[moved].x = x;
    nodes[moved].y = y;
    return true;
  }
  std::vector<KeyWithHandles> keys = KeysOf(nodes, closed);
  for (size_t i = 0; i < keys.size(); ++i) {
    if (3 * i != moved && !carried[3 * i]) continue;
    for (PathKeyPoint* p : {&keys[i].in, &keys[i].key, &keys[i].out}) {
      p->x += dx;
      p->y += dy;
    }
  }
  nodes = NodesOf(keys, closed);
  return true;
}

bool IsClosedPath(const PathNodes& nodes) {
  return nodes.size() > 4 && nodes.front().x == nodes.back().x && nodes.front().y == nodes.back().y;
}

void SmoothSelected(std::vector<KeyWithHandles>& keys, bool closed) {
  const size_t n = keys.size();
  const std::vector<KeyWithHandles> before = keys;
  for (size_t i = 0; i < n; ++i) {
    if (!(keys[i].key.flags & PathKeyPoint::Selected)) continue;
    const PathKeyPoint& key = before[i].key;
    const PathKeyPoint& prev = i > 0 ? before[i - 1].key : closed ? before[n - 1].key : key;
    const PathKeyPoint& next = i + 1 < n ? before[i + 1].key : closed ? before[0].key : key;
    const double tx = (double(next.x) - prev.x) / 6, ty = (double(next.y) - prev.y) / 6;
    if (closed || i > 0) keys[i].in = At(keys[i].in, key.x - tx, key.y - ty);
    if (closed || i + 1 < n) keys[i].out = At(keys[i].out, key.x + tx, key.y + ty);
  }
}

void Straighten(KeyWithHandles& a, KeyWithHandles& b) {
  a.out = Lerp(a.key, b.key, 1.0 / 3);
  a.out.flags = 0;
  b.in = Lerp(a.key, b.key, 2.0 / 3);
  b.in.flags = 0;
}

void StraightenSelected(std::vector<KeyWithHandles>& keys, bool closed) {
  const size_t n = keys.size();
  const size_t segments = closed ? n : n - 1;
  for (size_t i = 0; i < segments && n > 1; ++i) {
    KeyWithHandles& a = keys[i];
    KeyWithHandles& b = keys[(i + 1) % n];
    if ((a.key.flags | b.key.flags) & PathKeyPoint::Selected) Straighten(a, b);
  }
}

void SplitSegment(std::vector<KeyWithHandles>& keys, size_t segment, double t) {
  KeyWithHandles& a = keys[segment];
  KeyWithHandles& b = keys[(segment + 1) % keys.size()];
  const PathKeyPoint p01 = Lerp(a.key, a.out, t), p12 = Lerp(a.out, b.in, t), p23 = Lerp(b.in, b.key, t);
  const PathKeyPoint p012 = Lerp(p01, p12, t), p123 = Lerp(p12, p23, t);
  KeyWithHandles added{p012, Lerp(p012, p123, t), p123};
  added.in.flags = added.key.flags = added.out.flags = 0;
  a.out = At(a.out, p01.x, p01.y);
  b.in = At(b.in, p23.x, p23.y);
  keys.insert(keys.begin() + std::ptrdiff_t(segment + 1), added);
}

OutlineHit NearestOnOutline(const PathNodes& nodes, bool closed, const NodeToFrame& to_frame, float x, float y,
                            float aspect) {
  OutlineHit best;
  best.distance = std::numeric_limits<double>::infinity();
  const std::vector<KeyWithHandles> keys = KeysOf(nodes, closed);
  const size_t segments = closed ? keys.size() : keys.size() - 1;
  for (size_t i = 0; i < segments && keys.size() > 1; ++i) {
    const PathKeyPoint p[4] = {to_frame(keys[i].key), to_frame(keys[i].out), to_frame(keys[(i + 1) % keys.size()].in),
                               to_frame(keys[(i + 1) % keys.size()].key)};
    for (int step = 0; step <= 100; ++step) {
      const double t = step / 100.0, u = 1.0 - t;
      const double bx = p[0].x * u * u * u + 3 * p[1].x * t * u * u + 3 * p[2].x * t * t * u + p[3].x * t * t * t;
      const double by = p[0].y * u * u * u + 3 * p[1].y * t * u * u + 3 * p[2].y * t * t * u + p[3].y * t * t * t;
      const double distance = std::hypot(bx - x, (by - y) / aspect);
      if (distance < best.distance) best = {i, t, distance};
    }
  }
  return best;
}

std::vector<KeyWithHandles> EllipseKeys(int count, double rx, double ry, double roundness, double cx, double cy) {
  // Right, bottom, left, top.
  static constexpr int kCos[] = {1, 0, -1, 0}, kSin[] = {0, 1, 0, -1};
  std::vector<KeyWithHandles> keys;
  for (int i = 0; i < count; ++i) {
    const int c = kCos[i % 4], s = kSin[i % 4];
    const double x = cx + rx * c, y = cy + ry * s;
    const double hx = -roundness * rx * s, hy = roundness * ry * c;
    keys.push_back({At({}, x - hx, y - hy), At({}, x, y), At({}, x + hx, y + hy)});
  }
  return keys;
}

PathNodes PresetShape(float r, float roundness, float cx, float cy, bool closed, float aspect) {
  PathNodes nodes = NodesOf(EllipseKeys(closed ? 5 : 4, r, double(r) / aspect, roundness, cx, cy), false);
  ComputeDisplacements(nodes);
  return nodes;
}

void WriteNode(CArchive& ar, const PathKeyPoint& node, bool with_displacement) {
  const uint8_t flags = node.flags & PathKeyPoint::SavedFlags;
  ar.WriteBytes(&flags, 1);
  ar.WriteFloat(node.x);
  ar.WriteFloat(node.y);
  if (with_displacement) ar.WriteFloat(node.displacement);
}

PathKeyPoint ReadNode(CArchive& ar, bool with_displacement) {
  PathKeyPoint node;
  ar.ReadBytes(&node.flags, 1);
  node.x = ar.ReadFloat();
  node.y = ar.ReadFloat();
  if (with_displacement) node.displacement = ar.ReadFloat();
  return node;
}

}  // namespace kestrion::tools

// Path: moves a point along a curve drawn in the preview. "Displacement" (0 to 1) says how far
// along the curve the point is, by arc length, so equal steps move it equal distances; the
// "Heading" output is the curve's direction there, in degrees, plus "Heading Offset". The curve
// is a path node list edited point by point; key points can be locked to keys of the
// Displacement animation, which then follow the key points' displacements.
#include <cmath>

#include "host/base/prefs.h"
#include "host/document/document.h"
#include "host/document/node_lists.h"
#include "host/draw/node_editing.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/modifier/modifier_tools.h"
#include "tools/modifier/path_nodes.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("Path");
constexpr size_t kNodeRecordBytes = 13;

enum PathInput { Displacement, HeadingOffset, kInputCount };

// The Path's own context-menu commands, after those every outline has.
enum PathCommand : uint32_t {
  kLockPoint = NodeEditing::kFirstToolCommand,
  kDrawPoints,
  kClosePath,
  kOpenPath,
  kOpenShape,
  kClosedShape,
};

// The "Path Shape" presets: radius, roundness, centre, closed.
struct Preset {
  float r, roundness, cx, cy;
  bool closed;
};
constexpr Preset kPresets[] = {{0.2f, 0.3f, 0.5f, 0.5f, false}, {0.2f, 0.7f, 0.5f, 0.5f, true}};

// The height-to-width factor of the flow's frame.
float FrameAspect() {
  return float(PVidMode.height * PVidMode.aspect_y / (PVidMode.width * PVidMode.aspect_x));
}

PathKeyPoint Identity(const PathKeyPoint& p) { return p; }

class Path final : public ThreadedOperator, public NodeListTool, public PathEditing {
 public:
  Path(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Displacement",   vtype::Number, 0x76436DD4, {Tag(in::Control, control::Slider), Tag(in::CurveKind, control::BezierCurve),
                                                     Tag(in::Lowest, 0.0), Tag(in::Highest, 1.0), Tag(in::Default, 0.0)}},
      {"Heading Offset", vtype::Number, 0x6C676EC1, {Tag(in::Control, control::Dial), Tag(in::SliderLow, 0.0),
                                                     Tag(in::SliderHigh, 360.0), Tag(in::Default, 0.0), Tag(in::Steps, 3600),
                                                     Tag(in::Presentation64, 450)}},
    };
    // clang-format on
    module::DeclareInputs(this, table, in_);
    value_out_ = AddOutput("Value", vtype::Point, ImageOutputId(1));
    heading_out_ = AddOutput("Heading", vtype::Number, ImageOutputId(2));
    nodes_ = {PathKeyPoint{0, 0.5f, 0.5f, 0.0f}};
    if (ar) Load(*ar);
  }

  // Class id, base record, count x 13, the nodes, "EndC" (no 0 word before it); nothing after
  // a failed base record.
  uint32_t Save(CArchive* ar, TagList* tags) override {
    ar->WriteWord(kClassId);
    const uint32_t ok = Operator::Save(ar, tags);
    if (!ok) return 0;
    ObtainReadLock();
    ar->WriteWord(uint32_t(nodes_.size() * kNodeRecordBytes));
    for (const PathKeyPoint& node : nodes_) WriteNode(*ar, node, true);
    ReleaseReadLock();
    ar->WriteWord(kEndOfRecord);
    return ok;
  }

  void GetTitle(char* title) override { module::ModifierTitle(*this, title); }

  // Attached to a point input, a path of one key point starts where the point was.
  void SetSource(Output*, Parameter* current, double) override {
    auto* p = dynamic_cast<Point*>(current);
    ObtainLock();
    if (p && nodes_.size() == 1) {
      nodes_[0].x = p->x;
      nodes_[0].y = p->y;
    }
    ReleaseLock();
  }

  uint32_t Process(Request* req) override {
    const float d = float(module::NumberInput(req, in_[Displacement]));
    const float offset = float(module::NumberInput(req, in_[HeadingOffset]));
    ObtainReadLock();
    const PathPoint at = EvaluatePath(nodes_, d, aspect_);
    ReleaseReadLock();
    req->SetOutputData(value_out_, new Point(at.x, at.y));
    return req->SetOutputData(heading_out_, new Number(double(offset) + at.heading));
  }

  // --- undo ---

  struct State final : UndoState {
    PathNodes nodes;
    float aspect;
  };
  UndoState* SaveState() override {
    auto* state = new State;
    ObtainReadLock();
    state->nodes = nodes_;
    state->aspect = aspect_;
    ReleaseReadLock();
    return state;
  }
  void RestoreState(UndoState* state) override {
    auto* s = dynamic_cast<State*>(state);
    if (!s) return;
    ObtainLock();
    nodes_ = s->nodes;
    aspect_ = s->aspect;
    current_key_ = -1;
    ReleaseLock();
  }

  // --- text flows ---

  Form NodeForm() const override { return Form::OpenPath; }
  NodeLists GetNodeLists() const override {
    ObtainReadLock();
    NodeLists lists{{NodeShape{false, 0.0, nodes_}}, aspect_};
    ReleaseReadLock();
    return lists;
  }
  void SetNodeLists(const NodeLists& lists) override {
    ObtainLock();
    nodes_ = lists.shapes.front().nodes;
    aspect_ = lists.aspect;
    current_key_ = -1;
    ComputeDisplacements(nodes_);
    ReleaseLock();
    InvalidateCache(nullptr);
  }

  // --- editing ---

  std::vector<PathKeyPoint> EditedNodes() const override {
    ObtainReadLock();
    PathNodes nodes = nodes_;
    ReleaseReadLock();
    return nodes;
  }

  PopupMenu ContextMenu() const override {
    PopupMenu menu;
    menu.Append(kSelectAll, "Select All");
    menu.Append(kDeletePoints, "Delete Points");
    menu.Append(kLinear, "Linear");
    menu.Append(kSmooth, "Smooth");
    menu.Append(kLockPoint, "Lock Point");
    menu.Append(kDrawPoints, "Draw Points");
    if (IsClosedPath(EditedNodes()))
      menu.Append(kOpenPath, "Open Path");
    else
      menu.Append(kClosePath, "Close Path");
    menu.Append(kOpenShape, "Open Path", "Path Shape");
    menu.Append(kClosedShape, "Closed Path", "Path Shape");
    return menu;
  }

  // Menu commands wait while the flow is busy.
  bool ControlCommand(OperatorControl*, DrawSurface*, PreviewInfo*, uint32_t command, void*) override {
    if (command >= kSelectAll && Document() && Document()->busy) return false;
    if (const std::optional<bool> done = RunCommand(command)) return *done;
    switch (command) {
      case kLockPoint: return LockPoint();
      case kDrawPoints: DrawPoints(); return true;
      case kClosePath: return ClosePath();
      case kOpenPath: return OpenPath();
      case kOpenShape: return PathShape(0);
      case kClosedShape: return PathShape(1);
      default: return false;
    }
  }

  bool ClickPoint(int node, bool add) override {
    ObtainLock();
    const bool key = SelectKey(nodes_, node, add);
    if (key) current_key_ = node;
    ReleaseLock();
    return key;
  }

  void SelectAll() override {
    ObtainLock();
    SelectAllKeys(nodes_);
    ReleaseLock();
    MenuDone();
  }

  bool DeletePoints() override {
    return Edit("Delete Path Points", [](PathNodes& nodes) {
      std::vector<KeyWithHandles> kept;
      for (const KeyWithHandles& key : KeysOf(nodes, false))
        if (!(key.key.flags & PathKeyPoint::Selected)) kept.push_back(key);
      if (kept.empty() || kept.size() * 3 - 2 == nodes.size()) return false;
      nodes = NodesOf(kept, false);
      return true;
    });
  }

  bool Linear() override {
    return Edit("Linearise Path", [](PathNodes& nodes) {
      std::vector<KeyWithHandles> keys = KeysOf(nodes, false);
      StraightenSelected(keys, false);
      return Replace(nodes, NodesOf(keys, false));
    });
  }

  bool Smooth() override {
    return Edit("Smooth Path", [](PathNodes& nodes) {
      std::vector<KeyWithHandles> keys = KeysOf(nodes, false);
      SmoothSelected(keys, false);
      return Replace(nodes, NodesOf(keys, false));
    });
  }

  bool AddPoint(float x, float y) override {
    const float aspect = FrameAspect();
    const bool added = Edit("Add Path Point", [&](PathNodes& nodes) {
      std::vector<KeyWithHandles> keys = KeysOf(nodes, false);
      const OutlineHit hit = NearestOnOutline(nodes, false, &Identity, x, y, aspect);
      if (keys.size() > 1 && hit.distance <= kHitRadius) {
        SplitSegment(keys, hit.segment, hit.t);
      } else {
        const PathKeyPoint at{0, x, y, 0.0f};
        keys.push_back({at, at, at});
        Straighten(keys[keys.size() - 2], keys.back());
      }
      nodes = NodesOf(keys, false);
      return true;
    }, false);
    return added;
  }

  bool MovePoint(int node, float x, float y) override {
    return Edit("Move Path Point", [&](PathNodes& nodes) {
      // Selected key points go along; a closed path's first and last key points are one point.
      std::vector<bool> carried(nodes.size(), false);
      for (size_t k = 0; k < nodes.size(); k += 3)
        carried[k] = int(k) == node || (nodes[k].flags & PathKeyPoint::Selected);
      if (IsClosedPath(nodes) && (carried.front() || carried.back())) carried.front() = carried.back() = true;
      return MoveNode(nodes, false, node, x, y, carried);
    }, false);
  }

  // Locking keys the Displacement at the flow's current time with the point's displacement;
  // unlocking frees the locked key nearest that displacement (within 0.001).
  bool LockPoint() override {
    Input* displacement = in_[Displacement];
    const Spline* animation = displacement->Animation();
    bool changed = false;
    ObtainLock();
    if (current_key_ >= 0 && size_t(current_key_) < nodes_.size() && animation && !animation->Empty()) {
      PathKeyPoint& point = nodes_[size_t(current_key_)];
      Spline keys = *animation;
      if (!(point.flags & PathKeyPoint::Locked)) {
        point.flags |= PathKeyPoint::Locked;
        KeyPoint key;
        key.time = Document() ? Document()->current_time : 0.0;
        key.value[0] = point.displacement;
        key.flags = KeyPoint::Locked;
        keys.SetKey(key);
      } else {
        point.flags &= uint8_t(~(4 | PathKeyPoint::Locked));
        const std::vector<KeyPoint> all = keys.Keys();
        for (KeyPoint key : all)
          if ((key.flags & KeyPoint::Locked) && std::abs(key.value[0] - point.displacement) <= 0.001) {
            key.flags &= 0xF2;
            keys.SetKey(key);
            break;
          }
      }
      ReleaseLock();
      displacement->SetAnimation(keys);
      changed = true;
    } else {
      ReleaseLock();
    }
    MenuDone();
    return changed;
  }

  void DrawPoints() override {
    draw_points_ = !draw_points_;
    MenuDone();
  }
  bool DrawsPoints() const override { return draw_points_; }

  bool ClosePath() override {
    return Edit("Close Path", [](PathNodes& nodes) {
      if (nodes.size() <= 3 || IsClosedPath(nodes)) return false;
      std::vector<KeyWithHandles> keys = KeysOf(nodes, false);
      keys.push_back(keys.front());
      keys.back().key.flags = 0;
      Straighten(keys[keys.size() - 2], keys.back());
      keys.back().out = keys.back().key;
      nodes = NodesOf(keys, false);
      return true;
    });
  }

  bool OpenPath() override {
    return Edit("Open Path", [](PathNodes& nodes) {
      if (!IsClosedPath(nodes)) return false;
      nodes.resize(nodes.size() - 3);
      return true;
    });
  }

  bool PathShape(int preset) override {
    if (preset < 0 || preset > 1) return false;
    const Preset& p = kPresets[preset];
    ObtainLock();
    aspect_ = FrameAspect();
    nodes_ = PresetShape(p.r, p.roundness, p.cx, p.cy, p.closed, aspect_);
    ReleaseLock();
    MenuDone();
    return true;
  }

  float Aspect() const override { return aspect_; }

 private:
  static bool Replace(PathNodes& nodes, PathNodes next) {
    if (next == nodes) return false;
    nodes = std::move(next);
    return true;
  }

  // Reads the tool's own fields: count x 13, the node records, "EndC".
  void Load(CArchive& ar) {
    const uint32_t count = ar.ReadWord() / kNodeRecordBytes;
    if (count > ar.Remaining() / kNodeRecordBytes)
      throw ArchiveError("the Path claims " + std::to_string(count) + " nodes");
    nodes_.clear();
    for (uint32_t i = 0; i < count; ++i) nodes_.push_back(ReadNode(ar, true));
    ar.ReadWord();
    if (count % 3 != 1)
      throw ArchiveError("the Path holds " + std::to_string(count) +
                         " nodes; a path has 3k - 2 (key, out-handle, in-handle, key, ...)");
    ComputeDisplacements(nodes_);
  }

  // One change of the path as a named undo step: the path's displacements are recomputed and
  // the Displacement keys locked to key points follow them.
  template <class Change>
  bool Edit(const char* undo_name, Change change, bool from_menu = true) {
    StartUndo(undo_name);
    ObtainLock();
    aspect_ = FrameAspect();
    const bool changed = change(nodes_);
    if (changed && !(Document() && Document()->busy)) ComputeDisplacements(nodes_);
    ReleaseLock();
    if (changed) FollowLockedKeys();
    if (from_menu) current_key_ = -1;
    InvalidateCache(nullptr);
    EndUndo(changed ? 1 : 0);
    return changed;
  }

  // After a menu command: no current key point, and the renders of the old path are dropped.
  void MenuDone() {
    current_key_ = -1;
    InvalidateCache(nullptr);
  }

  // The k-th locked key of the Displacement animation (in time) takes the displacement of the
  // k-th locked key point (along the path).
  void FollowLockedKeys() {
    Input* displacement = in_[Displacement];
    if (!displacement->Animation() || displacement->Animation()->Empty()) return;
    Spline keys = *displacement->Animation();
    ObtainReadLock();
    size_t next_point = 0;
    bool moved = false;
    const std::vector<KeyPoint> all = keys.Keys();
    for (KeyPoint key : all) {
      if (!(key.flags & KeyPoint::Locked)) continue;
      while (next_point < nodes_.size() && !(nodes_[next_point].flags & PathKeyPoint::Locked)) next_point += 3;
      if (next_point >= nodes_.size()) break;
      if (key.value[0] != nodes_[next_point].displacement) {
        key.value[0] = nodes_[next_point].displacement;
        keys.SetKey(key);
        moved = true;
      }
      next_point += 3;
    }
    ReleaseReadLock();
    if (moved) displacement->SetAnimation(keys);
  }

  Input* in_[kInputCount];
  Output* value_out_;
  Output* heading_out_;
  PathNodes nodes_;
  float aspect_ = 0.75f;
  bool draw_points_ = false;
  int current_key_ = -1;  // the key point clicked last, if any
};

}  // namespace

Object* NewPath(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Path>(reg, ar, tags); }

}  // namespace kestrion::tools

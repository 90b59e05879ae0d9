// Polygon: a mask of a closed outline of cubic Bezier segments, edited point by point, placed by
// "Centre", scaled by "Size" and turned by "Angle". The outline can change over time: it is kept
// as a list of shapes keyed at times, and "PolygonChange" is the timing curve the drawing blends
// between them by. The shapes are guarded by the tool's lock: renders read them while the
// preview edits them.
#include <cmath>
#include <string>

#include "host/base/prefs.h"
#include "host/document/document.h"
#include "host/document/node_lists.h"
#include "host/draw/mask_operator.h"
#include "host/draw/node_editing.h"
#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/matte/masks.h"
#include "tools/modifier/path_nodes.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("PgMs");
// The time a shape without a key time reports.
constexpr double kNoTime = -1000000000.0;
// Handles a round quarter of a circle has, as a share of its radius.
constexpr double kRound = 0.5522847;

enum PolygonInput { Centre, Size, Angle, PolygonChange, kInputCount };

// Record lengths of the saved outline: the node count, a shape without a key time (its word 0),
// a shape keyed at a time (the word 1 and the time as a double), a node.
constexpr uint32_t kWordRecord = 4, kTimedShapeRecord = 12, kNodeRecord = 9;

double ShapeTime(const NodeShape& shape) { return shape.timed ? shape.time : kNoTime; }

class PolygonMask final : public MaskOperator, public NodeListTool, public NodeEditing {
 public:
  PolygonMask(Registry* reg, CArchive* ar, TagList* tags) : MaskOperator(reg, ar, tags) {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Centre",        vtype::Point,  0x746E65C3, {Tag(in::Control, control::Offset), Tag(in::PreviewControl, control::CrossHair),
                                                    Tag(in::Presentation0D, 1), Tag(in::DefaultX, 0.5), Tag(in::DefaultY, 0.5)}},
      {"Size",          vtype::Number, 0x657A69D3, {Tag(in::Control, control::Slider), Tag(in::Presentation0D, 1),
                                                    Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 5.0), Tag(in::Default, 1.0)}},
      {"Angle",         vtype::Number, 0x6C676EC1, {Tag(in::Control, control::Dial), Tag(in::PreviewControl, control::AngleHandle),
                                                    Tag(in::Presentation0D, 1), Tag(in::SliderLow, 0.0), Tag(in::SliderHigh, 360.0),
                                                    Tag(in::Default, 0.0), Tag(in::Steps, 3601)}},
      {"PolygonChange", vtype::Number, 0x76436DD4, {Tag(in::Control, control::Slider), Tag(in::CurveKind, control::BezierCurve),
                                                    Tag(in::Presentation11, 3), Tag(in::Lowest, 0.0), Tag(in::Highest, 100.0),
                                                    Tag(in::SliderHigh, 5.0), Tag(in::Default, 0.0)}},
    };
    // clang-format on
    module::DeclareInputs(this, table, in_);
    in_[Angle]->SetAttrs({Tag(in::TiedInput1, in_[Centre]), Tag(in::TiedInput2, in_[Size])});
    shapes_ = {NodeShape{false, 0.0, NodesOf(EllipseKeys(4, 0.375, 0.375, kRound, 0.0, 0.0), true)}};
    if (ar) Load(*ar);
  }

  // Class id, base record, then length-prefixed records: the node count; per shape its key
  // time, then its nodes (flags without the selection, x, y); a 0; "EndC".
  uint32_t Save(CArchive* ar, TagList* tags) override {
    ar->WriteWord(kClassId);
    const uint32_t ok = Operator::Save(ar, tags) & 1;
    ObtainReadLock();
    ar->WriteWord(kWordRecord);
    ar->WriteWord(uint32_t(shapes_.front().nodes.size()));
    for (const NodeShape& shape : shapes_) {
      ar->WriteWord(shape.timed ? kTimedShapeRecord : kWordRecord);
      ar->WriteWord(shape.timed ? 1 : 0);
      if (shape.timed) ar->WriteDouble(shape.time);
      for (const PathKeyPoint& node : shape.nodes) {
        ar->WriteWord(kNodeRecord);
        WriteNode(*ar, node, false);
      }
    }
    ReleaseReadLock();
    module::WriteRecordEnd(ar);
    return ok;
  }

  void NotifyChanged(Input* in, Parameter* value, double time) override {
    if (in == in_[PolygonChange]) DropOutline();
    MaskOperator::NotifyChanged(in, value, time);
  }

  long Draw(Request* req, MaskSurface& surface, const MaskFrame& frame) override {
    const module::PointValue centre = module::PointInput(req, in_[Centre]);
    const double angle = module::NumberInput(req, in_[Angle]);
    const double size = module::NumberInput(req, in_[Size]);
    if (!(size > 0)) return 0;
    using module::TruncToInt;
    const int wp = TruncToInt(frame.width * double(frame.sx)), hp = TruncToInt(frame.height * double(frame.sy));
    const double theta = double(float(angle)) * kRadiansPerDegree;
    const float c = float(std::cos(theta)), n = float(std::sin(theta));
    const float cx = float(double(centre.x) * wp), cy = float(double(centre.y) * hp);
    std::vector<CPoint> points;
    ObtainLock();
    for (const PathKeyPoint& node : OutlineAt(req->time)) {
      const double u = node.x * size * wp, v = node.y * size * hp;
      points.push_back({TruncToInt(c * u + n * v + cx), TruncToInt(v * c - u * n + cy)});
    }
    ReleaseLock();
    points.push_back(points.front());
    surface.BeginPath();
    surface.PolyBezier(points.data(), int(points.size()));
    surface.EndPath();
    return surface.StrokeAndFillPath();
  }

  // --- undo ---

  struct State final : UndoState {
    std::vector<NodeShape> shapes;
  };
  UndoState* SaveState() override {
    auto* state = new State;
    ObtainReadLock();
    state->shapes = shapes_;
    ReleaseReadLock();
    return state;
  }
  void RestoreState(UndoState* state) override {
    if (auto* s = dynamic_cast<State*>(state)) SetShapes(s->shapes);
  }

  // --- text flows ---

  Form NodeForm() const override { return Form::ClosedShapes; }
  NodeLists GetNodeLists() const override {
    ObtainReadLock();
    NodeLists lists{shapes_};
    ReleaseReadLock();
    return lists;
  }
  void SetNodeLists(const NodeLists& lists) override {
    SetShapes(lists.shapes);
    InvalidateCache(nullptr);
  }

  // --- editing ---

  std::vector<PathKeyPoint> EditedNodes() const override {
    // Reading the outline may rebuild its cache, which takes the writer's lock.
    auto* self = const_cast<PolygonMask*>(this);
    self->ObtainLock();
    PathNodes nodes = self->OutlineAt(EditTime());
    self->ReleaseLock();
    return nodes;
  }

  PopupMenu ContextMenu() const override {
    PopupMenu menu;
    menu.Append(kSelectAll, "Select All");
    menu.Append(kDeletePoints, "Delete Points");
    menu.Append(kSmooth, "Smooth");
    menu.Append(kLinear, "Linear");
    return menu;
  }

  // Menu commands wait while the flow is busy.
  bool ControlCommand(OperatorControl*, DrawSurface*, PreviewInfo*, uint32_t command, void*) override {
    if (command >= kSelectAll && Document() && Document()->busy) return false;
    return RunCommand(command).value_or(false);
  }

  // The selection lives on the first shape's key points.
  bool ClickPoint(int node, bool add) override {
    ObtainLock();
    const bool key = SelectKey(shapes_.front().nodes, node, add);
    outline_valid_ = false;
    ReleaseLock();
    return key;
  }

  void SelectAll() override {
    ObtainLock();
    SelectAllKeys(shapes_.front().nodes);
    outline_valid_ = false;
    ReleaseLock();
  }

  bool DeletePoints() override {
    return Edit("Delete Polygon Points", [&] {
      const PathNodes first = shapes_.front().nodes;
      size_t kept = 0;
      for (size_t k = 0; k < first.size(); k += 3) kept += !(first[k].flags & PathKeyPoint::Selected);
      if (kept == 0 || kept * 3 == first.size()) return false;
      for (NodeShape& shape : shapes_) {
        std::vector<KeyWithHandles> keys;
        const std::vector<KeyWithHandles> all = KeysOf(shape.nodes, true);
        for (size_t i = 0; i < all.size(); ++i)
          if (!(first[3 * i].flags & PathKeyPoint::Selected)) keys.push_back(all[i]);
        shape.nodes = NodesOf(keys, true);
      }
      return true;
    });
  }

  bool Smooth() override {
    return Edit("Smooth Polygon", [&] { return ReshapeSelected(EditedShape(), &SmoothSelected); });
  }

  bool Linear() override {
    return Edit("Linearise Polygon", [&] { return ReshapeSelected(EditedShape(), &StraightenSelected); });
  }

  bool AddPoint(float x, float y) override {
    const Placement place = PlacementNow();
    if (!place.valid) return false;
    return Edit("Add Polygon Point", [&] {
      // On the outline drawn now, every shape is split at the same place; elsewhere the point
      // goes on the closing segment of the shape at this time, the others split there midway.
      const auto to_frame = [&](const PathKeyPoint& p) { return place.ToFrame(p); };
      const PathNodes outline = OutlineAt(EditTime());
      const OutlineHit hit = NearestOnOutline(outline, true, to_frame, x, y, place.aspect);
      const bool on_outline = hit.distance <= kHitRadius;
      const size_t edited = on_outline ? shapes_.size() : EditedShape();
      for (size_t i = 0; i < shapes_.size(); ++i) {
        std::vector<KeyWithHandles> keys = KeysOf(shapes_[i].nodes, true);
        if (on_outline) {
          SplitSegment(keys, hit.segment, hit.t);
        } else if (i != edited) {
          SplitSegment(keys, keys.size() - 1, 0.5);
        } else {
          // A new key point on the closing segment, with straight handles to its neighbours.
          const PathKeyPoint at = place.ToNodes(x, y);
          keys.push_back({at, at, at});
          Straighten(keys[keys.size() - 2], keys.back());
          Straighten(keys.back(), keys.front());
        }
        shapes_[i].nodes = NodesOf(keys, true);
      }
      return true;
    });
  }

  bool MovePoint(int node, float x, float y) override {
    const Placement place = PlacementNow();
    if (!place.valid) return false;
    return Edit("Move Polygon Point", [&] {
      std::vector<bool> carried;
      for (const PathKeyPoint& p : shapes_.front().nodes) carried.push_back(p.flags & PathKeyPoint::Selected);
      const PathKeyPoint to = place.ToNodes(x, y);
      return MoveNode(shapes_[EditedShape()].nodes, true, node, to.x, to.y, carried);
    });
  }

 private:
  // How the outline lies on the frame at the document's time: node (x, y) is drawn at
  // (c u + n v) / Wp + cx, (c v - n u) / Hp + cy frame units, with u = x s Wp and v = y s Hp.
  struct Placement {
    bool valid = false;
    double cx = 0, cy = 0, s = 1, c = 1, n = 0, wp = 1, hp = 1;
    float aspect = 1.0f;

    PathKeyPoint ToFrame(const PathKeyPoint& p) const {
      const double u = p.x * s * wp, v = p.y * s * hp;
      PathKeyPoint f = p;
      f.x = float((c * u + n * v) / wp + cx);
      f.y = float((c * v - n * u) / hp + cy);
      return f;
    }
    PathKeyPoint ToNodes(float x, float y) const {
      const double dx = (x - cx) * wp, dy = (y - cy) * hp;
      PathKeyPoint p;
      p.x = float((c * dx - n * dy) / (s * wp));
      p.y = float((n * dx + c * dy) / (s * hp));
      return p;
    }
  };

  double EditTime() const { return Document() ? Document()->current_time : 0.0; }

  Placement PlacementNow() const {
    const double t = EditTime();
    Placement p;
    Ref<Point> centre = in_[Centre]->ValueAs<Point>(t);
    Ref<Number> size = in_[Size]->ValueAs<Number>(t), angle = in_[Angle]->ValueAs<Number>(t);
    if (!centre || !size || !angle || !(size->value > 0)) return p;
    const double theta = double(float(angle->value)) * kRadiansPerDegree;
    p = {true, centre->x, centre->y, size->value, std::cos(theta), std::sin(theta), double(PVidMode.width),
         double(PVidMode.height), float(PVidMode.height * PVidMode.aspect_y / (PVidMode.width * PVidMode.aspect_x))};
    return p;
  }

  // Reads the saved outline records.
  void Load(CArchive& ar) {
    if (ar.ReadWord() != kWordRecord) throw ArchiveError("the Polygon's outline is corrupt: no node count");
    const uint32_t count = ar.ReadWord();
    if (count == 0 || count % 3 != 0 || count > ar.Remaining() / (4 + kNodeRecord))
      throw ArchiveError("the Polygon's outline claims " + std::to_string(count) +
                         " nodes; a closed shape has 3k (key, out-handle, in-handle for each key)");
    std::vector<NodeShape> shapes;
    for (uint32_t length = ar.ReadWord(); length != 0; length = ar.ReadWord()) {
      NodeShape shape;
      if (length != kWordRecord && length != kTimedShapeRecord)
        throw ArchiveError("the Polygon's outline is corrupt: a shape record of " + std::to_string(length) + " bytes");
      shape.timed = ar.ReadWord() != 0 && length == kTimedShapeRecord;
      if (length == kTimedShapeRecord) shape.time = ar.ReadDouble();
      if (shape.timed && !std::isfinite(shape.time)) throw ArchiveError("the Polygon's outline has a shape at no time");
      for (uint32_t i = 0; i < count; ++i) {
        if (ar.ReadWord() != kNodeRecord) throw ArchiveError("the Polygon's outline is corrupt: a node record is not 9 bytes");
        shape.nodes.push_back(ReadNode(ar, false));
      }
      shapes.push_back(std::move(shape));
    }
    ar.ReadWord();
    if (shapes.empty()) throw ArchiveError("the Polygon's outline has no shape");
    shapes_ = std::move(shapes);
  }

  void SetShapes(const std::vector<NodeShape>& shapes) {
    ObtainLock();
    shapes_ = shapes;
    outline_valid_ = false;
    ReleaseLock();
  }

  void DropOutline() {
    ObtainLock();
    outline_valid_ = false;
    ReleaseLock();
  }

  // The value of the PolygonChange animation at a time.
  double ChangeAt(double t) const {
    Ref<Number> v = in_[PolygonChange]->ValueAs<Number>(t);
    return v ? v->value : 0.0;
  }

  // The outline at a time, blended between the shapes keyed around it through PolygonChange.
  // Called under the lock.
  const PathNodes& OutlineAt(double t) {
    if (outline_valid_ && outline_time_ == t) return outline_;
    size_t next = shapes_.size() - 1;
    bool has_previous = false;
    for (size_t i = 0; i < shapes_.size(); ++i)
      if (ShapeTime(shapes_[i]) >= t || !shapes_[i].timed) {
        next = i;
        has_previous = i > 0;
        break;
      }
    const NodeShape& to = shapes_[next];
    const NodeShape& from = has_previous ? shapes_[next - 1] : to;
    outline_ = to.nodes;
    if (to.timed && t != to.time) {
      float w = 0.0f;
      if (has_previous) {
        const double sn = ChangeAt(to.time), sp = ChangeAt(from.time);
        w = sn == sp ? float((to.time - t) / (to.time - from.time)) : float((sn - ChangeAt(t)) / (sn - sp));
      }
      for (size_t k = 0; k < outline_.size(); ++k) {
        outline_[k].x = to.nodes[k].x * (1.0f - w) + from.nodes[k].x * w;
        outline_[k].y = from.nodes[k].y * w + to.nodes[k].y * (1.0f - w);
      }
    }
    const PathNodes& first = shapes_.front().nodes;
    for (size_t k = 0; k < outline_.size(); ++k)
      outline_[k].flags = uint8_t((outline_[k].flags & ~PathKeyPoint::Selected) | (first[k].flags & PathKeyPoint::Selected));
    outline_time_ = t;
    outline_valid_ = true;
    return outline_;
  }

  // The shape an edit at the document's time t changes: the one keyed at t, or the untimed one
  // drawn at t; else a new shape keyed at t, made from the outline there. Called under the lock.
  size_t EditedShape() {
    const double t = EditTime();
    size_t next = shapes_.size();
    for (size_t i = 0; i < shapes_.size(); ++i) {
      if (shapes_[i].timed && shapes_[i].time == t) return i;
      if (ShapeTime(shapes_[i]) >= t || !shapes_[i].timed) {
        next = i;
        break;
      }
    }
    if (next < shapes_.size() && !shapes_[next].timed) return next;
    NodeShape keyed{true, t, OutlineAt(t)};
    shapes_.insert(shapes_.begin() + std::ptrdiff_t(next), std::move(keyed));
    return next;
  }

  // Moves the handles of the edited shape at the key points selected on the first shape.
  bool ReshapeSelected(size_t edited, void (*reshape)(std::vector<KeyWithHandles>&, bool)) {
    PathNodes& nodes = shapes_[edited].nodes;
    const PathNodes& first = shapes_.front().nodes;
    std::vector<KeyWithHandles> keys = KeysOf(nodes, true);
    for (size_t i = 0; i < keys.size(); ++i) keys[i].key.flags = first[3 * i].flags;
    reshape(keys, true);
    for (size_t i = 0; i < keys.size(); ++i) keys[i].key.flags = nodes[3 * i].flags;
    PathNodes next = NodesOf(keys, true);
    if (next == nodes) return false;
    nodes = std::move(next);
    return true;
  }

  // One change of the outline as a named undo step.
  template <class Change>
  bool Edit(const char* undo_name, Change change) {
    StartUndo(undo_name);
    ObtainLock();
    const std::vector<NodeShape> before = shapes_;
    const bool changed = change();
    if (!changed) shapes_ = before;  // nor a new shape key
    outline_valid_ = false;
    ReleaseLock();
    InvalidateCache(nullptr);
    EndUndo(changed ? 1 : 0);
    return changed;
  }

  Input* in_[kInputCount];
  std::vector<NodeShape> shapes_;  // in time order; every shape has the same nodes
  PathNodes outline_;              // the outline at outline_time_, when valid
  double outline_time_ = 0.0;
  bool outline_valid_ = false;
};

}  // namespace

Object* NewPolygonMask(Registry* reg, CArchive* ar, TagList* tags) {
  return module::Factory<PolygonMask>(reg, ar, tags);
}

}  // namespace kestrion::tools

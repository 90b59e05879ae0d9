// Tracker: follows a rectangular pattern through a clip. "Select Pattern" cuts the pattern
// around "Center" on a reference frame; on every other frame the tool finds the window of the
// frame that differs least from the pattern (a coarse search over the whole frame, local
// searches around the last place, and a sub-pixel refinement on enlarged copies), keys
// "Center" there and offers the position, plus the positions that steady or follow the motion.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/modifier/modifier_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("Trak");
constexpr double kNoReference = -1000000000.0;
constexpr int kRefinement = 3;                // the enlargement of the sub-pixel refinement
constexpr int64_t kCoarseStart = 1000000000;  // the best sums the searches start from
constexpr int64_t kLocalStart = 0x7FFFFFF8;
constexpr int kLocalDivisor = 8;              // local searches reach W / 16 either way

enum TrackerInput { Center, Size, Color, Accuracy, SelectPattern, ImageIn, kInputCount };
enum TrackerOutput { ImageOut, PositionOut, SteadyOut, UnsteadyOut, kOutputCount };

// The byte of a pixel the matcher compares and what a difference weighs. "Red", "Green",
// "Blue" and "Alpha" compare their own byte (the list's red and blue swap to become byte
// offsets: red is byte 2, blue byte 0); "Luminance" and "Full Color" compare byte 0 alone,
// weighing 6 and 3 (only that one byte is compared: saved tracks depend on it).
struct Channel {
  int byte = 2, weight = 1;
};
Channel ChannelOf(int item) {
  constexpr Channel kChannels[] = {{2, 1}, {1, 1}, {0, 1}, {3, 1}, {0, 6}, {0, 3}};
  return kChannels[std::clamp(item, 0, 5)];
}

// A time whose fraction exceeds 0.001 is the second field of its frame.
int FieldOf(double time) { return time - int64_t(time) > 0.001 ? 1 : 0; }

// One byte of every pixel of an image (a mask's own bytes), row after row.
struct Plane {
  int width = 0, height = 0;
  std::vector<uint8_t> bytes;
  const uint8_t* Row(int y) const { return bytes.data() + size_t(y) * size_t(width); }
};

void ExtractPlane(const Image& img, int byte, Plane& plane) {
  plane.width = img.Width();
  plane.height = img.Height();
  plane.bytes.resize(size_t(plane.width) * size_t(plane.height));
  const int step = int(img.BytesPerPixel()), offset = step == 1 ? 0 : byte;
  for (int y = 0; y < plane.height; ++y) {
    const uint8_t* from = img.MaskRow(y) + offset;
    uint8_t* to = plane.bytes.data() + size_t(y) * size_t(plane.width);
    for (int x = 0; x < plane.width; ++x) to[x] = from[x * step];
  }
}

// The even and odd columns of a plane apart: even[x / 2] is column x for even x, odd[x / 2]
// for odd x. A search that samples every second column then reads runs of bytes.
void SplitColumns(const Plane& plane, Plane& even, Plane& odd) {
  even.width = (plane.width + 1) / 2;
  odd.width = plane.width / 2;
  even.height = odd.height = plane.height;
  even.bytes.resize(size_t(even.width) * size_t(plane.height));
  odd.bytes.resize(size_t(odd.width) * size_t(plane.height));
  for (int y = 0; y < plane.height; ++y) {
    const uint8_t* row = plane.Row(y);
    uint8_t* e = even.bytes.data() + size_t(y) * size_t(even.width);
    uint8_t* o = odd.bytes.data() + size_t(y) * size_t(odd.width);
    for (int x = 0; x < plane.width; ++x) (x % 2 ? o : e)[x / 2] = row[x];
  }
}

// Sum of |a[i] - b[i]| over n bytes.
uint32_t RowSad(const uint8_t* a, const uint8_t* b, int n) {
  uint32_t sum = 0;
  for (int i = 0; i < n; ++i) sum += uint32_t(std::abs(int(a[i]) - int(b[i])));
  return sum;
}

// The pattern's rows and columns that a search compares: first, first + stride, ... below the ends.
struct Compared {
  int first, rows_end, cols_end;
};

// Candidate windows: top-left corners x = x0, x0 + step, ... below x1, rows alike.
struct Candidates {
  int x0, x1, y0, y1, step;
};

// The window that matched best, by its top-left corner; `found` when any candidate beat the
// starting sum.
struct Match {
  bool found = false;
  int x = 0, y = 0;
};

// Searches a frame plane for a pattern plane by the weighted sum of absolute differences.
class PatternSearch {
 public:
  PatternSearch(const Plane& frame, const Plane& pattern, int weight, const std::atomic<int32_t>& abort)
      : frame_(frame), pattern_(pattern), weight_(weight), abort_(abort) {}

  // Searches that sample every second row and column (coarse searches below "High") read the
  // frame's columns apart and the pattern's odd columns.
  void SampleColumnsApart(const Plane& frame_even, const Plane& frame_odd, const Plane& pattern_odd) {
    frame_even_ = &frame_even;
    frame_odd_ = &frame_odd;
    pattern_odd_ = &pattern_odd;
  }

  // The first window in scan order (rows from the top, then columns from the left) whose sum
  // is below every earlier one and below `best`. A window stops summing once it reaches the
  // best so far: it can no longer win. The stop flag is checked before each row of windows.
  //
  // `near`, a window where the pattern is likely to be, changes nothing but the time taken: its
  // sum S bounds the best from the start (only windows of at most S can win, and the first of
  // them in scan order still does), so most windows stop after a row or two.
  template <int Stride>
  Match Best(Candidates c, Compared cmp, int64_t best, Match near) const {
    if (c.x0 >= c.x1 || c.y0 >= c.y1) return {};
    if (near.found) {
      const auto on_grid = [&](int v, int v0, int v1) {
        return v0 + std::clamp((v - v0 + c.step / 2) / c.step, 0, (v1 - 1 - v0) / c.step) * c.step;
      };
      best = std::min(best, Sum<Stride>(on_grid(near.x, c.x0, c.x1), on_grid(near.y, c.y0, c.y1), cmp, best) + 1);
    }
    Match m;
    for (int y = c.y0; y < c.y1; y += c.step) {
      if (abort_.load(std::memory_order_relaxed) != 0) break;
      for (int x = c.x0; x < c.x1; x += c.step) {
        const int64_t sum = Sum<Stride>(x, y, cmp, best);
        if (sum < best) {
          best = sum;
          m = {true, x, y};
        }
      }
    }
    return m;
  }

  // The coarse search: every step-th window of the whole frame (step = accuracy + 1), the
  // pattern sampled at min(accuracy + 1, 2) from its second row and column.
  Match Coarse(int accuracy, Match near) const {
    const int step = accuracy + 1;
    const Candidates c{0, frame_.width - pattern_.width - 1, 0, frame_.height - pattern_.height - 1, step};
    const Compared cmp{1, pattern_.height - 3, pattern_.width - 3};
    return step == 1 ? Best<1>(c, cmp, kCoarseStart, near) : Best<2>(c, cmp, kCoarseStart, near);
  }

  // The local search around a top-left corner of (W px, H py), W / (2k) either way in both
  // directions (the whole frame from 1 with k = 0), the pattern's inner pixels from its third
  // row and column at stride 1. The window centred on the prediction is tried first.
  Match Local(double px, double py, int k) const {
    const int w = frame_.width, h = frame_.height;
    Candidates c{1, w - pattern_.width - 2, 1, h - pattern_.height - 2, 1};
    if (k != 0) {
      const int d = w / (2 * k);
      c.x0 = std::max(module::TruncToInt(w * px - d), 1);
      c.x1 = std::min(c.x0 + 2 * d, c.x1);
      c.y0 = std::max(module::TruncToInt(h * py - d), 1);
      c.y1 = std::min(c.y0 + 2 * d, c.y1);
    }
    const Match centred{true, module::TruncToInt(w * px) - pattern_.width / 2,
                        module::TruncToInt(h * py) - pattern_.height / 2};
    return Best<1>(c, {2, pattern_.height - 4, pattern_.width - 4}, kLocalStart, centred);
  }

 private:
  // The weighted sum of the window at (x, y), or a partial sum once it reaches `stop`. With a
  // stride of 2 (from the pattern's column 1), frame column x + 1 + 2i is entry (x + 1) / 2 + i
  // of the frame's even or odd columns, and pattern column 1 + 2i entry i of its odd ones.
  template <int Stride>
  int64_t Sum(int x, int y, Compared cmp, int64_t stop) const {
    int64_t sum = 0;
    for (int j = cmp.first; j < cmp.rows_end && sum < stop; j += Stride) {
      if constexpr (Stride == 1) {
        sum += weight_ * int64_t(RowSad(frame_.Row(y + j) + x + cmp.first, pattern_.Row(j) + cmp.first,
                                        cmp.cols_end - cmp.first));
      } else {
        const Plane& columns = (x + 1) % 2 ? *frame_odd_ : *frame_even_;
        sum += weight_ * int64_t(RowSad(columns.Row(y + j) + (x + 1) / 2, pattern_odd_->Row(j), cmp.cols_end / 2));
      }
    }
    return sum;
  }

 private:
  const Plane& frame_;
  const Plane& pattern_;
  const Plane* frame_even_ = nullptr;
  const Plane* frame_odd_ = nullptr;
  const Plane* pattern_odd_ = nullptr;
  int weight_;
  const std::atomic<int32_t>& abort_;
};

// A new image like `like` that the tool holds beyond the request (the request would hand its
// own images on as its own when the tool shows them).
Ref<Image> HeldImage(int width, int height, const Image& like) {
  Ref<Image> img = Ref<Image>::Adopt(new Image(width, height, like.Depth()));
  img->CopyAttributesFrom(like);
  return img;
}

// A position in fractions of the frame, x from the left, y down from the first row.
struct Place {
  double x = 0.0, y = 0.0;
};

// Takes the operator's lock for the life of the guard.
class Locked {
 public:
  explicit Locked(LockableObject& object) : object_(object) { object_.ObtainLock(); }
  ~Locked() { object_.ReleaseLock(); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  LockableObject& object_;
};

class Tracker final : public ThreadedOperator {
 public:
  Tracker(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Center",         vtype::Point,  0x746E65C3,      {Tag(in::Control, control::Offset), Tag(in::PreviewControl, control::CrossHair),
                                                          Tag(in::DefaultX, 0.5), Tag(in::DefaultY, 0.5)}},
      {"Size",           vtype::Number, 0x657A69D3,      {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.001), Tag(in::Highest, 0.5),
                                                          Tag(in::SliderHigh, 0.1), Tag(in::Default, 0.05)}},
      {"Color",          vtype::Number, 0x6E6168C3,      {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Red"), Tag(in::ListEntry, "Green"),
                                                          Tag(in::ListEntry, "Blue"), Tag(in::ListEntry, "Alpha"), Tag(in::ListEntry, "Luminance"),
                                                          Tag(in::ListEntry, "Full Color")}},
      {"Accuracy",       vtype::Number, FourCC("Mode"),  {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "High"), Tag(in::ListEntry, "Medium"),
                                                          Tag(in::ListEntry, "Low"), Tag(in::ListEntry, "Very Low")}},
      {"Select Pattern", vtype::Number, FourCC("Slct"),  {Tag(in::Control, control::CheckBox), Tag(in::Default, 0.0)}},
      {"Image",          vtype::Image,  ImageInputId(1), {Tag(in::Presentation11, 2)}},
    };
    // clang-format on
    module::DeclareInputs(this, table, in_);
    out_[ImageOut] = AddOutput("Image", vtype::Image, ImageOutputId(1));
    out_[PositionOut] = AddOutput("Position", vtype::Point, ImageOutputId(2));
    out_[SteadyOut] = AddOutput("Steady Position", vtype::Point, ImageOutputId(3));
    out_[UnsteadyOut] = AddOutput("Unsteady Position", vtype::Point, ImageOutputId(4));
    SetThreadSettings(2, 0);
    if (!ar) return;
    reference_time_ = ar->ReadDouble();
    reference_.x = ar->ReadDouble();
    reference_.y = ar->ReadDouble();
    odd_sides_ = ar->ReadInt();
    module::SkipRecordEnd(ar);
  }

  // The reference time and position and the odd-size flag follow the base record.
  uint32_t Save(CArchive* ar, TagList* tags) override {
    ar->WriteWord(kClassId);
    const uint32_t ok = Operator::Save(ar, tags) & 1;
    ar->WriteDouble(reference_time_);
    ar->WriteDouble(reference_.x);
    ar->WriteDouble(reference_.y);
    ar->WriteInt(odd_sides_);
    module::WriteRecordEnd(ar);
    return ok;
  }

  std::vector<DataField> DataLayout() const override {
    return {{"reference time", DataField::Double, 1, kNoReference},
            {"reference position", DataField::Double, 2, 0.0},
            {"odd sides", DataField::Int32, 1, 1.0}};
  }

  // Without its pattern for this field, a tool that has a reference frame asks for the image
  // a second time, at that frame, to cut the pattern again (not while it selects a new one).
  void CheckRequest(Request* req) override {
    ThreadedOperator::CheckRequest(req);
    if (req->status != -1) return;
    Locked lock(*this);
    const int field = FieldOf(req->time);
    const bool selecting = module::NumberInput(req, in_[SelectPattern]) == 1.0;
    if (!pattern_[field] && reference_time_ != kNoReference && !selecting)
      req->SetInputTime(in_[ImageIn], module::TruncToInt(reference_time_) + (field ? 0.5 : 0.0), 1);
    else
      req->SetInputData(in_[ImageIn], nullptr, 1);
  }

  // New pictures on the image input make the patterns cut from it stale.
  void InvalidateCache(Input* changed) override {
    ThreadedOperator::InvalidateCache(changed);
    if (changed != in_[ImageIn]) return;
    Locked lock(*this);
    for (int field = 0; field < 2; ++field) pattern_[field] = scaled_[field] = {};
  }

  uint32_t Process(Request* req) override {
    Locked lock(*this);
    const bool selecting = module::NumberInput(req, in_[SelectPattern]) == 1.0;
    auto* src = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    const int field = FieldOf(req->time);
    if (src) {
      const double half = module::NumberInput(req, in_[Size]) * 0.5;
      // Half-sides below 3 pixels become 2: the smallest pattern is 5 pixels wide.
      half_x_ = module::TruncToInt(src->Width() * half);
      half_y_ = module::TruncToInt(src->Height() * half);
      if (half_x_ < 3) half_x_ = 2;
      if (half_y_ < 3) half_y_ = 2;
      const int pw = odd_sides_ ? 2 * half_x_ + 1 : 2 * half_x_, ph = odd_sides_ ? 2 * half_y_ + 1 : 2 * half_y_;
      if (selecting) reference_time_ = req->time;
      if (reference_time_ != kNoReference && !(pattern_[field] && pattern_[field]->Width() == pw &&
                                               pattern_[field]->Height() == ph)) {
        pattern_[field] = HeldImage(pw, ph, *src);
        scaled_[field] = HeldImage(kRefinement * pw, kRefinement * ph, *src);
      }
      if (selecting) {
        auto* centre = dynamic_cast<Point*>(req->GetInputData(in_[Center]));
        const Place at = centre ? Place{centre->x, centre->y} : Place{};
        CutPattern(*src, at, field);
        reference_ = current_ = search_start_ = restart_ = at;
        tracking_ = true;
      } else if (auto* reference_frame = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn], 1))) {
        // A loaded tool, or one whose pictures changed, tracks again once its pattern is cut.
        CutPattern(*reference_frame, reference_, field);
        restart_ = reference_;
        tracking_ = true;
      }
      if (tracking_ && !selecting) {
        current_ = Track(req, *src, field);
        in_[Center]->SetKey(new Point(float(current_.x), float(current_.y)), req->time);
      }
    }
    uint32_t ok = 1;
    const auto point = [](double x, double y) { return new Point(float(x), float(y)); };
    ok &= req->SetOutputData(out_[PositionOut], point(current_.x, current_.y));
    ok &= req->SetOutputData(out_[SteadyOut],
                             point(reference_.x - current_.x + 0.5, reference_.y - current_.y + 0.5));
    ok &= req->SetOutputData(out_[UnsteadyOut],
                             point(current_.x - reference_.x + 0.5, current_.y - reference_.y + 0.5));
    Image* shown = selecting && pattern_[field] ? pattern_[field].get() : src;
    if (shown) shown->Use();
    return ok & req->SetOutputData(out_[ImageOut], shown);
  }

 private:
  // Copies the pattern box around `at` (fractions) from `frame` and enlarges it. A box over the
  // right or bottom edge moves inside; one over the left or top edge stays, and its copy repeats
  // the edge pixels.
  void CutPattern(const Image& frame, Place at, int field) {
    Image& pattern = *pattern_[field];
    const int w = frame.Width(), h = frame.Height();
    double cx = w * at.x, cy = h * at.y;
    if (cx - half_x_ >= 0 && cx + half_x_ > w - 1) cx = w - half_x_ - 1;
    if (cy - half_y_ >= 0 && cy + half_y_ > h - 1) cy = h - half_y_ - 1;
    const int left = module::TruncToInt(cx - half_x_), top = module::TruncToInt(cy - half_y_);
    const size_t bytes = pattern.BytesPerPixel();
    for (int j = 0; j < pattern.Height(); ++j) {
      const uint8_t* row = frame.MaskRow(std::clamp(top + j, 0, h - 1));
      for (int i = 0; i < pattern.Width(); ++i)
        std::copy_n(row + size_t(std::clamp(left + i, 0, w - 1)) * bytes, bytes,
                    pattern.MaskRow(j) + size_t(i) * bytes);
    }
    pattern.ImageResize(scaled_[field].get());
  }

  Place PlaceOf(const Match& m) const {
    return {double(m.x + half_x_) / frame_.width, double(m.y + half_y_) / frame_.height};
  }

  // The frame searched for the pattern of its field, as the request's flags ask.
  Place Track(Request* req, const Image& src, int field) {
    const Channel channel = ChannelOf(module::TruncToInt(module::NumberInput(req, in_[Color])));
    const int accuracy = std::clamp(module::TruncToInt(module::NumberInput(req, in_[Accuracy])), 0, 3);
    ExtractPlane(src, channel.byte, frame_);
    ExtractPlane(*pattern_[field], channel.byte, pattern_plane_);
    PatternSearch search(frame_, pattern_plane_, channel.weight, abort_flag);
    const bool coarse_now = !have_previous_ || (req->flags & rflag::Interactive);
    if (coarse_now && accuracy > 0) {
      SplitColumns(frame_, frame_even_, frame_odd_);
      SplitColumns(pattern_plane_, pattern_even_, pattern_odd_);
      search.SampleColumnsApart(frame_even_, frame_odd_, pattern_odd_);
    }
    // The whole frame, then around the best place found there. A local search around `hint`
    // first only speeds the coarse search up.
    const auto first_sight = [&](Place hint) {
      const int rows = frame_.height - pattern_plane_.height - 1;
      const Place coarse =
          rows < 1 ? Place{} : PlaceOf(search.Coarse(accuracy, search.Local(hint.x, hint.y, kLocalDivisor)));
      return Found(search.Local(coarse.x, coarse.y, kLocalDivisor), coarse);
    };
    if (req->flags & rflag::Interactive) {
      const Place at = first_sight(restart_);
      have_previous_ = false;
      search_start_ = restart_;
      return at;
    }
    if (!have_previous_) {
      search_start_ = first_sight(search_start_);
      have_previous_ = true;
    }
    const Match box = search.Local(search_start_.x, search_start_.y, kLocalDivisor);
    Place at = Found(box, search_start_);
    if (box.found) Refine(req, src, box, channel.byte, channel.weight, field, at);
    search_start_ = at;
    return at;
  }

  // Where a search put the pattern, or `otherwise` when no window was tried.
  Place Found(const Match& m, Place otherwise) const { return m.found ? PlaceOf(m) : otherwise; }

  // The box found, widened by 4 pixels each way, enlarged by the refinement factor and searched
  // for the enlarged pattern: the position to a third of a pixel. Nothing changes where the
  // widened box leaves the frame.
  void Refine(Request* req, const Image& src, const Match& box, int byte, int weight, int field, Place& at) {
    const int left = box.x - 4, top = box.y - 4, w = pattern_[field]->Width() + 8, h = pattern_[field]->Height() + 8;
    if (left < 0 || top < 0 || left + w > src.Width() || top + h > src.Height()) return;
    const Ref<Image> region = Ref<Image>::Adopt(src.CropOfImage(left, top, w, h));
    Image* enlarged = NewImage(req, kRefinement * w, kRefinement * h, src.Depth(), &src);
    region->ImageResize(enlarged);
    ExtractPlane(*enlarged, byte, region_plane_);
    ExtractPlane(*scaled_[field], byte, scaled_plane_);
    const Match fine = PatternSearch(region_plane_, scaled_plane_, weight, abort_flag).Local(0, 0, 0);
    if (!fine.found) return;
    const int scaled_w = enlarged->Width(), scaled_h = enlarged->Height();
    at.x = double(left) / src.Width() + ((kRefinement * half_x_ + fine.x) * (double(w) / src.Width())) / scaled_w;
    at.y = double(top) / src.Height() + ((kRefinement * half_y_ + fine.y) * (double(h) / src.Height())) / scaled_h;
  }

  Input* in_[kInputCount];
  Output* out_[kOutputCount];

  // Guarded by the operator's lock.
  double reference_time_ = kNoReference;
  Place reference_, current_, search_start_, restart_;
  Ref<Image> pattern_[2], scaled_[2];  // per field
  bool tracking_ = false, have_previous_ = false;
  int32_t odd_sides_ = 1;  // 0: patterns of even sides (2h), as flows of old kept them
  int half_x_ = 2, half_y_ = 2;
  // Kept between renders to save allocations.
  Plane frame_, pattern_plane_, region_plane_, scaled_plane_, frame_even_, frame_odd_, pattern_even_, pattern_odd_;
};

}  // namespace

Object* NewTracker(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Tracker>(reg, ar, tags); }

}  // namespace kestrion::tools

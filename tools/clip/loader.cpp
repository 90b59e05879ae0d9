// The Loader brings the frames of a clip into the flow: it maps the request time to a clip
// frame (clip range, extended first and last frames, reverse, loop), reads it, retrying a few
// times, and decides what a frame that cannot be read gives ("Missing Frames").
#include "tools/clip/loader.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "host/clip/clip.h"
#include "host/document/document.h"
#include "host/graph/module.h"
#include "host/document/source_operator.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("Load");
constexpr int kReadAttempts = 5;
constexpr auto kReadWait = std::chrono::milliseconds(10);
constexpr uint32_t kLoopAttr = 0x100000c8;  // CopyAttr: the Loop setting

enum LoaderInput { ClipStart, ClipEnd, ExtendFirst, ExtendLast, Reverse, Loop, Filename, MissingFrames, kInputCount };
enum Missing { Fail = 0, HoldPrevious = 1, OutputBlack = 2 };

// The clip definitions list: the whole file in one buffer, a table of its lines ended by a
// null entry, and the line the next Loader takes.
struct ClipDefinitions {
  std::vector<char> text;
  std::vector<const char*> lines;
  size_t next = 0;
};
ClipDefinitions* g_definitions = nullptr;

// Every CR or LF ends a line; lines that are empty or start with ';' are skipped. The text
// after the last line break is never entered: a last line without one is ignored on purpose.
ClipDefinitions* ReadClipDefinitions(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return nullptr;
  auto* defs = new ClipDefinitions;
  defs->text.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  char* line = defs->text.data();
  for (char& c : defs->text) {
    if (c != '\r' && c != '\n') continue;
    c = '\0';
    if (*line != '\0' && *line != ';') defs->lines.push_back(line);
    line = &c + 1;
  }
  defs->lines.push_back(nullptr);
  return defs;
}

// The name the next Loader starts with; Loaders added one after another cycle through the list.
std::string TakeInitialClipName() {
  if (!g_definitions) return {};
  auto& d = *g_definitions;
  const char* name = d.next < d.lines.size() ? d.lines[d.next] : nullptr;
  ++d.next;
  if (d.next >= d.lines.size() || d.lines[d.next] == nullptr) d.next = 0;
  return name ? name : "";
}

// The file name after the last separator with its frame number masked by '#': the digits at
// the very end when the text after the last '.' is all digits, else those just before it.
std::string MaskedClipTitle(const std::string& name) {
  const size_t sep = name.find_last_of("\\/");
  std::string file = sep == std::string::npos ? name : name.substr(sep + 1);
  const size_t dot = file.rfind('.');
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  size_t run_end = dot == std::string::npos ? file.size() : dot;
  if (dot != std::string::npos && dot + 1 < file.size() &&
      std::all_of(file.begin() + long(dot) + 1, file.end(), is_digit))
    run_end = file.size();
  for (size_t i = run_end; i > 0 && is_digit(file[i - 1]); --i) file[i - 1] = '#';
  return file;
}

class Loader final : public SourceOperator {
 public:
  Loader(Registry* reg, CArchive* ar, TagList* tags) : SourceOperator(reg, ar, tags) {
    const TagList range_pair{Tag(in::Control, control::Range), Tag(in::Lowest, 0.0), Tag(in::Default, 0.0),
                             Tag(in::Presentation0D, 1), Tag(in::GroupNumber, 1), Tag(in::Presentation01, 0),
                             Tag(in::WholeNumber, 1), Tag(in::Presentation65, 2)};
    auto pair_member = [&](int index) {
      TagList t = range_pair;
      t.Set(Tag(in::GroupIndex, index));
      return t;
    };
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Clip Time Start",    vtype::Number, FourCC("ClSt"), pair_member(0)},
      {"Clip Time End",      vtype::Number, FourCC("ClEn"), pair_member(1)},
      {"Extend First Frame", vtype::Number, FourCC("HldF"), {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 100.0)}},
      {"Extend Last Frame",  vtype::Number, FourCC("HldL"), {Tag(in::Control, control::Slider), Tag(in::Lowest, 0.0), Tag(in::SliderHigh, 100.0)}},
      {"Reverse",            vtype::Number, FourCC("Rvrs"), {Tag(in::Control, control::CheckBox), Tag(in::Default, 0.0)}},
      {"Loop",               vtype::Number, FourCC("Loop"), {Tag(in::Control, control::CheckBox), Tag(in::Default, 0.0)}},
      {"Filename",           vtype::Clip,   FourCC("File"), {Tag(in::Control, FourCC("ClpC"))}},
      {"Missing Frames",     vtype::Number, FourCC("MsFm"), {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Fail"),
                                                             Tag(in::ListEntry, "Hold Previous"), Tag(in::ListEntry, "Output Black"), Tag(in::Default, 0.0)}},
    };
    // clang-format on
    module::DeclareInputs(this, table, in_);
    if (!in_[Filename]->Constant()) in_[Filename]->SetValue(new ClipParameter(TakeInitialClipName()));

    adjusting_ = true;
    const double last = LimitClipRange(CurrentClip().get());
    if (!(op_flags & opflag::Restored)) SetNumber(in_[ClipEnd], last);
    for (Input* g : {global_in_, global_out_})
      g->SetAttrs({Tag(srcattr::ExtendFirst, CurrentNumber(in_[ExtendFirst])),
                   Tag(srcattr::ExtendLast, CurrentNumber(in_[ExtendLast])), Tag(srcattr::Looping, 1),
                   Tag(srcattr::LoopOn, uint32_t(module::TruncToInt(CurrentNumber(in_[Loop]))))});
    adjusting_ = false;
    if (ar) module::SkipRecordEnd(ar);
  }

  bool CopyAttr(uint32_t attr, void* value) override {
    if (attr != kLoopAttr) return SourceOperator::CopyAttr(attr, value);
    *static_cast<int*>(value) = int(CurrentNumber(in_[Loop]));
    return true;
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  void GetTitle(char* title) override {
    char base[kTitleSize];
    SourceOperator::GetTitle(base);
    Ref<ClipParameter> clip = CurrentClip();
    std::string shown = std::string(base) + ": ";
    shown += clip && !clip->Name().empty() ? MaskedClipTitle(clip->Name()) : "No Clip";
    std::snprintf(title, kTitleSize, "%s", shown.c_str());
  }

  void OnDelete(uint32_t how) override {
    if (Ref<ClipParameter> clip = ClipAtCurrentTime()) clip->EndUse();
    SourceOperator::OnDelete(how);
  }

  void OnAddToFlow() override {
    if (Ref<ClipParameter> clip = ClipAtCurrentTime()) clip->BeginUse();
    SourceOperator::OnAddToFlow();
  }

  void OnGlobalExtentChanged(TimeExtent* extent) override {
    double ef = global_in_->GetAttrD(srcattr::ExtendFirst), el = global_in_->GetAttrD(srcattr::ExtendLast);
    const double cs = CurrentNumber(in_[ClipStart]), ce = CurrentNumber(in_[ClipEnd]);
    const double n = ce - cs + 1.0, gin = CurrentNumber(global_in_);
    double excess = -(extent->end - el - ef - n - gin + 1.0);
    if (excess > 0.0 && !adjusting_) {
      adjusting_ = true;
      const double from_last = std::min(excess, el);
      el -= from_last;
      excess -= from_last;
      const double from_span = std::min(excess, n - 1.0);
      excess -= from_span;
      ef -= std::min(excess, ef);
      for (Input* g : {global_in_, global_out_})
        g->SetAttrs({Tag(srcattr::ExtendFirst, ef), Tag(srcattr::ExtendLast, el)});
      SetNumber(in_[ExtendFirst], ef);
      SetNumber(in_[ExtendLast], el);
      SetNumber(in_[ClipEnd], cs + (n - from_span) - 1.0);
      adjusting_ = false;
    }
    SourceOperator::OnGlobalExtentChanged(extent);
  }

  uint32_t Process(Request* req) override {
    const int gin = int(module::NumberInput(req, global_in_)), gout = int(module::NumberInput(req, global_out_));
    const int cs = int(module::NumberInput(req, in_[ClipStart])), ce = int(module::NumberInput(req, in_[ClipEnd]));
    const int ef = int(module::NumberInput(req, in_[ExtendFirst]));
    const int reverse = int(module::NumberInput(req, in_[Reverse]));
    const int loop = int(module::NumberInput(req, in_[Loop]));
    const int missing = int(module::NumberInput(req, in_[MissingFrames]));
    auto* clip = dynamic_cast<ClipParameter*>(req->GetInputData(in_[Filename]));
    Output* out = image_out_;

    double t = req->time;
    const double span = gout - gin + 1.0;
    if (loop && span > 0.0)
      while (t > gout + 0.5) t -= span;
    if (t < gin || t > gout + 0.5 || !clip) return req->SetOutputData(out, nullptr);

    double f = t - gin - ef + cs;
    if (f < cs) f = cs;
    if (f > ce) f = ce;
    if (reverse) f = ce - (f - cs);

    const double length = clip->Length();
    TagList read_tags{Tag(cliptag::FieldSetting, field_setting), Tag(cliptag::SizeSetting, size_setting),
                      Tag(cliptag::AbortFlag, &abort_flag)};
    Image* img = nullptr;
    for (int attempt = 0; attempt < kReadAttempts && !img; ++attempt) {
      img = clip->ReadFrame(int(std::min(f, length - 1.0)), req, &read_tags);
      std::this_thread::sleep_for(kReadWait);
    }
    if (abort_flag.load()) return req->SetOutputData(out, img);

    if (!img) {
      if (missing == HoldPrevious) {
        while (!img) {
          f -= 1.0;
          if (f < first_valid_time || abort_flag.load()) break;
          img = clip->ReadFrame(int(std::min(f, length - 1.0)), req, &read_tags);
        }
      } else if (missing == OutputBlack && last_width_ != 0 && last_height_ != 0) {
        return req->SetOutputData(out, NewImage(req, last_width_, last_height_, 32, nullptr));  // cleared to black
      }
      if (!img) return req->SetOutputData(out, nullptr);
    }

    last_width_ = img->Width();
    last_height_ = img->Height();
    if (field_setting != 0 && img->frame_attrs.Has(frameattr::Field)) field_setting = 0;
    if (size_setting > 1 && int(img->frame_attrs.GetInt(frameattr::FullWidth, uint32_t(img->Width()))) != img->Width())
      size_setting = 1;
    return req->SetOutputData(out, img);
  }

  void NotifyChanged(Input* in, Parameter* value, double time) override {
    if (!adjusting_) {
      adjusting_ = true;
      Adjust(in, value);
      adjusting_ = false;
    }
    SourceOperator::NotifyChanged(in, value, time);
  }

  double GetClipLength() override {
    return (CurrentNumber(in_[ClipEnd]) + 1.0 - CurrentNumber(in_[ClipStart])) + CurrentNumber(in_[ExtendFirst]) +
           CurrentNumber(in_[ExtendLast]);
  }

 private:
  Ref<ClipParameter> CurrentClip() const { return in_[Filename]->ValueAs<ClipParameter>(); }

  Ref<ClipParameter> ClipAtCurrentTime() const {
    const double now = Document() ? Document()->current_time : kOutsideTime;
    return in_[Filename]->ValueAs<ClipParameter>(now);
  }

  // Limits the clip range inputs to the frames of `clip` and returns its last frame (0 for a
  // clip with no frames).
  double LimitClipRange(const ClipParameter* clip) {
    const double length = clip ? clip->Length() : 0;
    const double last = std::max(length, 1.0) - 1.0;
    for (int i : {ClipStart, ClipEnd})
      in_[i]->SetAttrs({Tag(in::Lowest, 0.0), Tag(in::Highest, last), Tag(in::SliderHigh, last),
                        Tag(in::Steps, uint32_t(last + 1.0))});
    return last;
  }

  // Sets "Extend First Frame" or "Extend Last Frame" (`in`) to `wanted`, reduced so that the
  // span ends within the flow's range, and hands it to Global In and Global Out.
  void SetExtension(Input* in, double wanted) {
    const bool first = in == in_[ExtendFirst];
    const double upper = global_in_->Highest();
    const double n = CurrentNumber(in_[ClipEnd]) - CurrentNumber(in_[ClipStart]) + 1.0;
    const double gin = CurrentNumber(global_in_);
    const double other = CurrentNumber(in_[first ? ExtendLast : ExtendFirst]);
    double v = wanted;
    if (!(gin + v + n + other - 1.0 <= upper)) v = std::max(upper - n - other - gin + 1.0, 0.0);
    for (Input* g : {global_in_, global_out_}) g->SetAttrs({Tag(first ? srcattr::ExtendFirst : srcattr::ExtendLast, v)});
    if (v != CurrentNumber(in)) SetNumber(in, v);
  }

  // Keeps the clip range, the extensions and the global span consistent after a change.
  void Adjust(Input* in, Parameter* value) {
    if (in == in_[Filename]) {
      auto* clip = dynamic_cast<ClipParameter*>(value);
      const double last = LimitClipRange(clip);
      SetNumber(in_[ClipStart], 0.0);
      SetNumber(in_[ClipEnd], last);
      // A still holds to the end of the flow's range.
      if (clip && clip->Length() > 0 && !clip->IsSequence() && std::isfinite(global_in_->Highest()))
        SetExtension(in_[ExtendLast], HUGE_VAL);
    } else if (in == in_[Loop]) {
      const double loop = CurrentNumber(in_[Loop]);
      for (Input* g : {global_in_, global_out_}) g->SetAttrs({Tag(srcattr::LoopOn, uint32_t(module::TruncToInt(loop)))});
    } else if (in == in_[ExtendFirst] || in == in_[ExtendLast]) {
      SetExtension(in, CurrentNumber(in));
    }
    if (in == global_in_ || in == global_out_) return;

    const double lower = global_in_->Lowest();
    const double upper = global_in_->Highest();
    const double gin = CurrentNumber(global_in_);
    const double len = GetClipLength();
    const double excess = len - (upper - gin + 1.0);
    const double end = gin + len - 1.0;
    if (end <= upper) {
      SetNumber(global_out_, end);
    } else if (in == in_[ClipStart]) {
      const double ce = CurrentNumber(in_[ClipEnd]);
      SetNumber(in, std::min(std::max(CurrentNumber(in) + excess, 0.0), ce));
      SetNumber(global_out_, upper);
    } else if (in == in_[ClipEnd]) {
      const double cs = CurrentNumber(in_[ClipStart]);
      SetNumber(in, std::max(std::max(CurrentNumber(in) - excess, 0.0), cs));
      SetNumber(global_out_, upper);
    } else {
      SetNumber(global_in_, std::max(upper - len + 1.0, lower));
    }
  }

  Input* in_[kInputCount];
  int last_width_ = 0, last_height_ = 0;
  bool adjusting_ = false;
};

}  // namespace

uint32_t LoaderRegInit(Registry* reg) {
  if (!Operator::RegInit(reg)) return 0;
  char path[4096];
  std::snprintf(path, sizeof path, "%sClips.def", ApplicationFolder().c_str());
  delete g_definitions;
  g_definitions = ReadClipDefinitions(path);
  return 1;
}

void LoaderRegCleanup(Registry* reg) {
  delete g_definitions;
  g_definitions = nullptr;
  Operator::RegCleanup(reg);
}

Object* NewLoader(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Loader>(reg, ar, tags); }

}  // namespace kestrion::tools

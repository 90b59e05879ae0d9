#include "host/document/source_operator.h"

#include <cmath>
#include <set>
#include <vector>

#include "host/clip/clip.h"
#include "host/document/document.h"

namespace kestrion {

SourceOperator::SourceOperator(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
  global_in_ = AddInput("Global In", vtype::Number, kGlobalInId, {Tag(in::WholeNumber, 1)});
  global_out_ = AddInput("Global Out", vtype::Number, kGlobalOutId, {Tag(in::WholeNumber, 1)});
  image_out_ = AddOutput("Image", vtype::Image, ImageOutputId(1));
}

double SourceOperator::CurrentNumber(Input* in) {
  const Ref<Number> n = in->ValueAs<Number>();
  return n ? n->value : 0.0;
}

void SourceOperator::SetNumber(Input* in, double value) { in->SetValue(new Number(value)); }

double SourceOperator::GetClipLength() { return CurrentNumber(global_out_) - CurrentNumber(global_in_) + 1.0; }

// Moving Global In moves the whole span; Global Out follows, within the flow's range.
void SourceOperator::NotifyChanged(Input* in, Parameter* value, double time) {
  if (in == global_in_) {
    const double end = CurrentNumber(global_in_) + GetClipLength() - 1.0;
    SetNumber(global_out_, end);
  }
  Operator::NotifyChanged(in, value, time);
}

bool SourceOperator::GetExtent(TimeExtent& valid, TimeExtent& global) {
  valid = {CurrentNumber(global_in_), CurrentNumber(global_out_)};
  global = {global_in_->GetAttrD(in::Lowest, valid.start), global_in_->GetAttrD(in::Highest, valid.end)};
  return true;
}

// A new source starts at the beginning of the flow's range (one restored from a document keeps
// its place).
void SourceOperator::OnAddToFlow() {
  if (CPipelineDoc* doc = Document()) {
    TimeExtent range = doc->render_range;
    OnGlobalExtentChanged(&range);
    if (!(op_flags & opflag::Restored)) SetNumber(global_in_, range.start);
  }
  Operator::OnAddToFlow();
}

// A tool shortens its clip to the range first (the Loader); its span then ends with the range
// at the latest.
void SourceOperator::OnGlobalExtentChanged(TimeExtent* extent) {
  for (Input* in : {global_in_, global_out_})
    in->SetAttrs({Tag(in::Lowest, extent->start), Tag(in::Highest, extent->end)});
  if (CurrentNumber(global_out_) > extent->end) SetNumber(global_out_, extent->end);
  Operator::OnGlobalExtentChanged(extent);
}

void SourceOperator::SpanClip() {
  SetNumber(global_out_, CurrentNumber(global_in_) + GetClipLength() - 1.0);
  if (CPipelineDoc* doc = Document()) {
    TimeExtent range = doc->render_range;
    OnGlobalExtentChanged(&range);
  }
}

namespace {

std::string FrameSpan(double first, double last) {
  const std::string a = std::to_string(long(std::floor(first))), b = std::to_string(long(std::floor(last)));
  return a == b ? a : a + "-" + b;
}

}  // namespace

std::string SourceOperator::OutsideSpanNote(double time) const {
  const double gin = CurrentNumber(global_in_), gout = CurrentNumber(global_out_);
  const bool loops = global_in_->Tags().GetInt(srcattr::LoopOn) != 0;
  if (time >= gin && (time <= gout + 0.5 || loops)) return {};
  std::string note = "tool \"" + Name() + "\"";
  for (const auto& in : Inputs()) {
    if (in->Type() != vtype::Clip) continue;
    if (Ref<ClipParameter> clip = in->ValueAs<ClipParameter>(); clip && clip->Length() > 0)
      note += " (clip '" + clip->Name() + "', " +
              (clip->IsSequence() ? "files " + FrameSpan(clip->FirstNumber(), clip->FirstNumber() + clip->Length() - 1)
                                  : std::string("one file")) +
              ")";
  }
  note += gout < gin ? " covers no frame" : " covers frames " + FrameSpan(gin, gout) + " only";
  return note + (time < gin ? "; start it earlier with \"Global In\", or start the flow's range later"
                            : "; hold its last frame with \"Extend Last Frame\", or shorten the flow's range");
}

std::string WhyNoImage(Operator* op, double time) {
  std::string why;
  std::set<Operator*> seen{op};
  std::vector<Operator*> todo{op};
  while (!todo.empty()) {
    Operator* at = todo.back();
    todo.pop_back();
    if (auto* source = dynamic_cast<SourceOperator*>(at); source && at != op) {
      const std::string note = source->OutsideSpanNote(time);
      if (!note.empty()) why += (why.empty() ? "" : "; ") + note;
    }
    for (const auto& in : at->Inputs())
      if (Output* from = in->Link(); from && seen.insert(from->Owner()).second) todo.push_back(from->Owner());
  }
  return why;
}

}  // namespace kestrion

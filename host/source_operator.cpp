#include "host/source_operator.h"

#include "host/document.h"

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

}  // namespace kestrion

// The base of tools that place a clip in the flow's global time (loaders and creators): it
// owns the Global In and Global Out inputs (the first and last global frame the tool covers,
// limited to the flow's render range) and the image output.
#pragma once

#include <string>

#include "host/graph/operator.h"

namespace kestrion {

// Attributes of Global In and Global Out.
namespace srcattr {
constexpr uint32_t ExtendFirst = 0x20000064;  // frames the first frame is extended by
constexpr uint32_t ExtendLast = 0x20000065;   // frames the last frame is extended by
constexpr uint32_t Looping = 0x1000006a;
constexpr uint32_t LoopOn = 0x1000006b;
}  // namespace srcattr

constexpr uint32_t kGlobalInId = FourCC("GlIn");
constexpr uint32_t kGlobalOutId = FourCC("GlOt");

class SourceOperator : public ThreadedOperator {
 public:
  SourceOperator(Registry* reg, CArchive* ar, TagList* tags);

  void NotifyChanged(Input* in, Parameter* value, double time) override;
  // valid: the tool's span [Global In, Global Out]; global: the flow's render range.
  bool GetExtent(TimeExtent& valid, TimeExtent& global) override;
  void OnAddToFlow() override;
  // Fits the tool to a new global range; the span then ends within it.
  void OnGlobalExtentChanged(TimeExtent* extent) override;
  // Frames the tool's clip spans.
  virtual double GetClipLength();
  // Lays the span from Global In over the whole clip and fits it to the document's range (a
  // tool placed without a Global Out).
  void SpanClip();
  // Why the tool gives no image at `time`: the tool, its clip and the clip's frame numbers,
  // and what would cover the time. Empty when the time lies within the tool's span.
  std::string OutsideSpanNote(double time) const;

  // The two settings a source passes with its clip's frame reads (files ignore them; a source
  // drops them once frames show they do not apply), and the first clip frame that a search for
  // an earlier frame may reach.
  int field_setting = 0;
  int size_setting = 1;
  double first_valid_time = 0.0;

 protected:
  // The current value of a Number input (outside a render).
  static double CurrentNumber(Input* in);
  static void SetNumber(Input* in, double value);

  Input* global_in_;
  Input* global_out_;
  Output* image_out_;
};

// Why no image reached `op` at `time`: the notes of the sources upstream of it, each once,
// joined by "; ". Empty when no source explains it.
std::string WhyNoImage(Operator* op, double time);

}  // namespace kestrion

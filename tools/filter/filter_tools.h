// The filter tools: their factories, and what several of them share: the four channel switches
// and the blend on their panels, the image they filter, and the 16-bit mix of a filtered value
// back over its source.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "host/base/object.h"
#include "host/graph/operator.h"
#include "host/graph/registry.h"
#include "host/graph/request.h"
#include "host/image/image.h"
#include "module/image_model.h"
#include "module/operator_contract.h"

namespace kestrion::tools {

Object* NewBlur(Registry* reg, CArchive* ar, TagList* tags);
Object* NewFilter(Registry* reg, CArchive* ar, TagList* tags);
Object* NewCustomFilter(Registry* reg, CArchive* ar, TagList* tags);
Object* NewGlow(Registry* reg, CArchive* ar, TagList* tags);
Object* NewMotionBlur(Registry* reg, CArchive* ar, TagList* tags);

namespace filter {

// "Red", "Green", "Blue", "Alpha" (RdCh, GnCh, BlCh, AlCh, the first letter's top bit set) and
// "Blend" (Blnd).
constexpr uint32_t kRedId = HighFourCC("RdCh"), kGreenId = HighFourCC("GnCh"), kBlueId = HighFourCC("BlCh"),
                   kAlphaId = HighFourCC("AlCh"), kBlendId = HighFourCC("Blnd");

// The input-table row of a channel switch: a check box, on by default.
inline module::InputDecl ChannelSwitch(const char* label, uint32_t id) {
  return {label, vtype::Number, id, {Tag(in::Control, control::CheckBox), Tag(in::Default, 1.0)}};
}

// The pixel bytes (0xFF in each) of the channels whose switch, in the order red, green, blue,
// alpha, passes `on`.
template <class On>
uint32_t SwitchedBytes(const int32_t (&switches)[4], On on) {
  constexpr int kByte[4] = {2, 1, 0, 3};
  uint32_t mask = 0;
  for (int c = 0; c < 4; ++c)
    if (on(switches[c])) mask |= 0xFFu << (8 * kByte[c]);
  return mask;
}

// The image a filter works on: the input itself, or a mask as a grey image (its value in all
// four bytes, made for the request). Null when none is connected.
inline const Image* FilterSource(Request* req, Input* in) {
  auto* img = dynamic_cast<Image*>(req->GetInputData(in));
  return img ? module::ColourImage(req, img) : nullptr;
}

// The frame every filter tool shares: its inputs declared from its table in panel order, one
// "Image" output, the threaded base's settings 2 and 0, and a saved record without fields of
// its own.
template <uint32_t ClassId, size_t N>
class FilterTool : public ThreadedOperator {
 public:
  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, ClassId, ar, tags); }

 protected:
  FilterTool(Registry* reg, CArchive* ar, TagList* tags, const module::InputDecl (&table)[N])
      : ThreadedOperator(reg, ar, tags) {
    image_out_ = module::DeclareImageTool(this, ar, table, in_);
  }

  Input* in_[N];
  Output* image_out_;
};

// A filtered value v of the 16-bit working scale mixed over the source value s (a byte x 256)
// by b (0 to 256): (clamp(v, 0, 65535) * b + (256 - b) * s) >> 8, still in 16-bit scale.
constexpr int32_t Mix16(int32_t v, int32_t s, int32_t b) { return (std::clamp(v, 0, 65535) * b + (256 - b) * s) >> 8; }

}  // namespace filter
}  // namespace kestrion::tools

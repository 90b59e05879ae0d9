// Crop: cuts a rectangle out of the frame. Offsets and sizes are in full-resolution pixels; an
// image at proxy resolution, or one field of a frame, carries its full size in its frame
// attributes, and the rectangle is divided down to the image at hand. Outside the source the
// crop is transparent black.
#include <algorithm>
#include <cstdint>
#include <string>

#include "host/base/failure.h"
#include "host/base/prefs.h"
#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/warp/warp_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("Crop");
constexpr int kSmallestSide = 4;

enum CropInput { XOffset, YOffset, XSize, YSize, ImageIn, kInputCount };

TagList OffsetTags() {
  return {Tag(in::Control, control::Slider), Tag(in::SliderLow, -1000.0), Tag(in::SliderHigh, 1000.0), Tag(in::Steps, 2001),
          Tag(in::Default, 0.0), Tag(in::WholeNumber, 1)};
}
TagList SizeTags(int video_size) {
  return {Tag(in::Control, control::Slider), Tag(in::Lowest, double(kSmallestSide)), Tag(in::SliderHigh, 1000.0),
          Tag(in::Default, double(video_size))};
}

// How many full-resolution pixels one pixel of the image stands for along an axis: the full
// size that the frame attribute `tag` gives over the image's `size`, rounded; 1 where the image
// carries no such attribute.
int32_t ProxyRatio(const Image& img, uint32_t tag, int size) {
  if (!img.frame_attrs.Has(tag)) return 1;
  return module::TruncToInt(double(int32_t(img.frame_attrs.GetInt(tag))) / size + 0.5);
}

class Crop final : public ThreadedOperator {
 public:
  Crop(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"X Offset", vtype::Number, FourCC("XOff"),  OffsetTags()},
      {"Y Offset", vtype::Number, FourCC("YOff"),  OffsetTags()},
      {"X Size",   vtype::Number, FourCC("XSiz"),  SizeTags(PVidMode.width)},
      {"Y Size",   vtype::Number, FourCC("YSiz"),  SizeTags(PVidMode.height)},
      {"Image",    vtype::Image,  ImageInputId(1), {}},
    };
    // clang-format on
    image_out_ = module::DeclareImageTool(this, ar, table, in_);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  uint32_t Process(Request* req) override {
    auto* src = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    if (!src) return req->SetOutputData(image_out_, nullptr);
    const bool field = src->frame_attrs.Has(frameattr::Field);
    const int32_t px = ProxyRatio(*src, frameattr::FullWidth, src->Width());
    const int32_t py = ProxyRatio(*src, frameattr::FullHeight, src->Height()) * (field ? 2 : 1);
    // A ratio below 1 cannot divide the rectangle: the attributes claim a full size under half
    // the image's own.
    if (px < 1 || py < 1) {
      NoteFailure("tool \"" + Name() + "\": the image's full-resolution size " +
                      std::to_string(int32_t(src->frame_attrs.GetInt(frameattr::FullWidth, uint32_t(src->Width())))) + " x " +
                      std::to_string(int32_t(src->frame_attrs.GetInt(frameattr::FullHeight, uint32_t(src->Height())))) +
                      " does not fit its size of " + std::to_string(src->Width()) + " x " + std::to_string(src->Height()),
                  false);
      return 0;
    }
    const int32_t xo = module::TruncToInt(module::NumberInput(req, in_[XOffset]));
    const int32_t yo = module::TruncToInt(module::NumberInput(req, in_[YOffset]));
    const int32_t xs = module::TruncToInt(module::NumberInput(req, in_[XSize]));
    const int32_t ys = module::TruncToInt(module::NumberInput(req, in_[YSize]));

    Image* out = src->CropOfImage(xo / px, yo / py, std::max(xs / px, kSmallestSide), std::max(ys / py, kSmallestSide));
    // A crop at full resolution sets no size attributes; those the copy brought along no longer
    // describe it.
    out->frame_attrs.Remove(frameattr::FullWidth);
    out->frame_attrs.Remove(frameattr::FullHeight);
    if (px > 1) out->frame_attrs.Set(Tag(frameattr::FullWidth, xs));
    if (py > 1) out->frame_attrs.Set(Tag(frameattr::FullHeight, field ? ys / 2 : ys));
    return req->SetOutputData(image_out_, out);
  }

 private:
  Input* in_[kInputCount];
  Output* image_out_;
};

}  // namespace

Object* NewCrop(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Crop>(reg, ar, tags); }

}  // namespace kestrion::tools

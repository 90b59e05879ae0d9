// Resize: scales the whole frame to a new pixel size, given in full-resolution pixels and
// divided by the proxy factor in proxy renders; a field holds half the lines. Full-quality
// renders resample with the host's ImageResize filter, quick ones copy the nearest pixel; both
// run in bands of output rows on the worker threads.
#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

#include "host/base/prefs.h"
#include "host/image/image_rows.h"
#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/warp/warp_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("Rsze");

enum ResizeInput { Width, Height, ImageIn, kInputCount };

// Everything the bands need, worked out once per render in Process.
struct ResizeRender {
  const Image* src = nullptr;
  Image* out = nullptr;
  long bands = 1;
  std::optional<Resampler> resampler;  // full quality
  uint32_t x_step = 0, y_step = 0;     // quick: source pixels per output pixel, 8 fractional bits
};

// Quick rows: the nearest source pixel, from the source's first row and column on (no
// half-pixel centring); products wrap at 32 bits, which keeps them inside the source.
void NearestRow(const ResizeRender& r, int y) {
  const uint32_t* from = r.src->Row(int((uint32_t(y) * r.y_step) >> 8));
  uint32_t* to = r.out->Row(y);
  for (int x = 0; x < r.out->Width(); ++x) to[x] = from[(uint32_t(x) * r.x_step) >> 8];
}

void NearestMaskRow(const ResizeRender& r, int y) {
  const uint8_t* from = r.src->MaskRow(int((uint32_t(y) * r.y_step) >> 8));
  uint8_t* to = r.out->MaskRow(y);
  for (int x = 0; x < r.out->Width(); ++x) to[x] = from[(uint32_t(x) * r.x_step) >> 8];
}

class Resize final : public ThreadedOperator {
 public:
  Resize(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Width",  vtype::Number, 0x687464D7,      {Tag(in::Control, control::Slider), Tag(in::Lowest, 1.0), Tag(in::SliderHigh, 4096.0),
                                                  Tag(in::Default, 320.0), Tag(in::WholeNumber, 1)}},
      {"Height", vtype::Number, 0x746867C8,      {Tag(in::Control, control::Slider), Tag(in::Lowest, 1.0), Tag(in::SliderHigh, 4096.0),
                                                  Tag(in::Default, 240.0), Tag(in::WholeNumber, 1)}},
      {"Image",  vtype::Image,  ImageInputId(1), {}},
    };
    // clang-format on
    image_out_ = module::DeclareImageTool(this, ar, table, in_);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  uint32_t Process(Request* req) override {
    const int32_t full_width = module::TruncToInt(module::NumberInput(req, in_[Width]));
    const int32_t full_height = module::TruncToInt(module::NumberInput(req, in_[Height]));
    auto* src = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    if (!src) return req->SetOutputData(image_out_, nullptr);
    const bool field = src->frame_attrs.Has(frameattr::Field);
    int32_t w = full_width, h = full_height;
    if ((req->flags & rflag::Proxy) && PGeneral.proxy > 1) {
      w /= PGeneral.proxy;
      h /= PGeneral.proxy;
    }
    if (field) h /= 2;
    w = std::max(w, 1);
    h = std::max(h, 1);

    ResizeRender& r = render_;
    r.src = src;
    r.out = NewImage(req, w, h, src->Depth(), src);
    r.bands = module::RowBands(h);
    r.resampler.reset();
    if (req->flags & rflag::Quick) {
      r.x_step = (uint32_t(src->Width()) * 256) / uint32_t(w);
      r.y_step = (uint32_t(src->Height()) * 256) / uint32_t(h);
    } else {
      r.resampler.emplace(*src, *r.out, true);
    }
    // An empty source leaves the new frame black.
    if (src->Width() > 0 && src->Height() > 0) DoMultiProcess(req, r.bands);

    // The full-resolution sizes, unscaled, where the source carries them.
    if (src->frame_attrs.Has(frameattr::FullWidth)) r.out->frame_attrs.Set(Tag(frameattr::FullWidth, full_width));
    if (src->frame_attrs.Has(frameattr::FullHeight))
      r.out->frame_attrs.Set(Tag(frameattr::FullHeight, field ? full_height >> 1 : full_height));
    r.resampler.reset();
    return req->SetOutputData(image_out_, r.out);
  }

  void ProcessChunk(Request*, long band) override {
    const ResizeRender& r = render_;
    std::vector<uint32_t> scratch(r.resampler->ScratchWords());
    module::ForEachRow(*this, module::BandRows(r.out->Height(), r.bands, band),
                       [&](int y) { r.resampler->Row(y, scratch.data()); });
  }

  void QuickProcessChunk(Request*, long band) override {
    const ResizeRender& r = render_;
    module::ForEachRow(*this, module::BandRows(r.out->Height(), r.bands, band), [&](int y) {
      if (r.src->Depth() == 8) {
        NearestMaskRow(r, y);
      } else {
        NearestRow(r, y);
      }
    });
  }

 private:
  Input* in_[kInputCount];
  Output* image_out_;
  ResizeRender render_;
};

}  // namespace

Object* NewResize(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Resize>(reg, ar, tags); }

}  // namespace kestrion::tools

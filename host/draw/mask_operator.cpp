#include "host/draw/mask_operator.h"

#include "host/base/prefs.h"
#include "host/graph/request.h"

namespace kestrion {

MaskFrame MaskFrame::Of(const Request& req) {
  const int proxy = (req.flags & rflag::Proxy) && PGeneral.proxy > 1 ? PGeneral.proxy : 1;
  const float scale = 1.0f / float(proxy);
  return MaskFrame{PVidMode.width, PVidMode.height, scale, scale, proxy};
}

MaskOperator::MaskOperator(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
  mask_out_ = AddOutput("Mask", vtype::Mask, ImageOutputId(1));
}

uint32_t MaskOperator::Process(Request* req) {
  const MaskFrame frame = MaskFrame::Of(*req);
  MaskSurface surface(frame.SurfaceWidth(), frame.SurfaceHeight(), !(req->flags & rflag::Quick));
  Draw(req, surface, frame);
  CRect bounds;
  Image* mask = surface.TakeMask(&bounds);
  mask->x_aspect = float(PVidMode.aspect_x);
  mask->y_aspect = float(PVidMode.aspect_y);
  mask->frame_attrs.Set(Tag(frameattr::FullWidth, frame.width));
  mask->frame_attrs.Set(Tag(frameattr::FullHeight, frame.height));
  {
    std::lock_guard<std::mutex> hold(bounds_lock_);
    bounds_ = bounds;
  }
  return req->SetOutputData(mask_out_, mask);
}

CRect MaskOperator::GetBounds() {
  std::lock_guard<std::mutex> hold(bounds_lock_);
  return bounds_;
}

}  // namespace kestrion

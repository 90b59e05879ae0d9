// The stand-in for a registered tool class whose own behaviour is not built yet: it declares
// one image input and output, passes the image through, and saves a record without fields.
#pragma once

#include "module/operator_contract.h"
#include "module/registry.h"

namespace kestrion::module {

template <uint32_t ClassId>
class PlaceholderTool final : public ThreadedOperator {
 public:
  PlaceholderTool(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    image_in_ = AddInput("Image", vtype::Image, ImageInputId(1));
    image_out_ = AddOutput("Image", vtype::Image, ImageOutputId(1));
    SetAttrs({Tag(kNotYetBuiltAttr, 1)});
    if (ar) SkipRecordEnd(ar);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return SaveWithoutFields(this, ClassId, ar, tags); }

  uint32_t Process(Request* req) override { return PassThrough(req, image_in_, image_out_); }

 private:
  Input* image_in_;
  Output* image_out_;
};

template <uint32_t ClassId>
Object* PlaceholderFactory(Registry* reg, CArchive* ar, TagList* tags) {
  return Factory<PlaceholderTool<ClassId>>(reg, ar, tags);
}

}  // namespace kestrion::module

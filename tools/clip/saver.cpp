// The Saver writes the frames that reach it to a clip and passes its image on. With a field
// mode it assembles two fields rendered at n and n + 0.5 into one frame and writes it on the
// second. The Preview Saver first resizes each frame to the preview size. When the render
// gives a frame writer, writes are queued on it (the clip copies the pixels, so the field
// buffer is free again at once).
#include "tools/clip/saver.h"

#include <algorithm>
#include <cstdint>

#include "module/operator_contract.h"
#include "module/registry.h"
#include "host/clip/clip.h"
#include "host/base/prefs.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("Save");
constexpr uint32_t kShowsClipName = 0x10000064;

enum SaverInput { Filename, FieldMode, ImageIn, kInputCount };
enum FieldModes { FullFrames = 0, NtscFields = 1, PalFields = 2, PalFieldsReversed = 3, NtscFieldsReversed = 4, Auto = 5 };
constexpr int kNoField = -1;

class Saver : public ThreadedOperator {
 public:
  Saver(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"Filename",   vtype::Clip,   FourCC("File"), {Tag(in::Control, FourCC("ClpC")), Tag(kShowsClipName, 1)}},
      {"Field Mode", vtype::Number, FourCC("FldM"), {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Full frames"),
                                                     Tag(in::ListEntry, "NTSC fields"), Tag(in::ListEntry, "PAL fields"),
                                                     Tag(in::ListEntry, "PAL fields (reversed)"), Tag(in::ListEntry, "NTSC fields (reversed)"),
                                                     Tag(in::ListEntry, "Auto"), Tag(in::Default, 5.0), Tag(in::Presentation01, 0)}},
      {"Image",      vtype::Image,  ImageInputId(1), {}},
    };
    // clang-format on
    module::DeclareInputs(this, table, in_);
    image_out_ = AddOutput("Image", vtype::Image, ImageOutputId(1));
    op_flags |= opflag::Saver;
    SetThreadSettings(1, 0);
    if (ar) module::SkipRecordEnd(ar);
  }

  ~Saver() override { ReleaseFieldBuffer(); }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  void OnStartRender(RenderMessage* msg) override {
    if (Ref<ClipParameter> clip = CurrentClip()) clip->BeginUse();
    ReleaseFieldBuffer();
    field_phase_ = 0;
    writer_ = msg ? msg->writer : nullptr;
    ThreadedOperator::OnStartRender(msg);
  }

  void OnEndRender() override {
    if (Ref<ClipParameter> clip = CurrentClip()) clip->EndUse();
    writer_ = nullptr;
    ThreadedOperator::OnEndRender();
  }

  uint32_t Process(Request* req) override {
    auto* img = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    if (!img) return req->SetOutputData(image_out_, nullptr);
    const bool interactive = req->flags & (rflag::Interactive | rflag::Preview);
    if (!interactive && !WriteFrame(req, 0)) return req->SetOutputData(image_out_, nullptr);
    img->Use();
    return req->SetOutputData(image_out_, img);
  }

  // Writes the request's image (or, with fields, the frame the second field completes).
  // Returns 0 when the clip refused the write. Virtual: the frame-writing slot of savers.
  virtual uint32_t WriteFrame(Request* req, int preview) {
    auto* img = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    auto* clip = dynamic_cast<ClipParameter*>(req->GetInputData(in_[Filename]));
    const int mode = int(module::NumberInput(req, in_[FieldMode]));
    if (!img || !clip) return 0;
    const int number = int(int(req->time) - start_offset_);
    TagList write_tags;
    if (preview) write_tags.Set(Tag(cliptag::Preview, 1));
    if (writer_) write_tags.Set(Tag(cliptag::Writer, writer_));

    const int field = FieldOf(img, mode, req->time);
    if (field == kNoField) {
      ReleaseFieldBuffer();
      field_phase_ = 0;
      return clip->WriteFrame(number, img, &write_tags) ? 1 : 0;
    }
    if (!field_buffer_ || field_buffer_->Width() != img->Width() || field_buffer_->Height() != 2 * img->Height()) {
      ReleaseFieldBuffer();
      field_buffer_ = NewImage(req, img->Width(), 2 * img->Height(), img->Depth(), img);
      field_buffer_->Use();  // kept across requests until the render ends; new images are zero-filled
    }
    const size_t row_bytes = size_t(img->Width()) * img->BytesPerPixel();
    for (int r = 0; r < img->Height(); ++r)
      std::copy_n(reinterpret_cast<const uint8_t*>(img->RowTable()[r]), row_bytes,
                  reinterpret_cast<uint8_t*>(field_buffer_->RowTable()[2 * r + field]));
    if (field_phase_ == 1) {
      field_phase_ = 0;
      return clip->WriteFrame(number, field_buffer_, &write_tags) ? 1 : 0;
    }
    field_phase_ = 1;
    return 1;
  }

 protected:
  Input* in_[kInputCount];
  Output* image_out_;

 private:
  // The field (0 or 1) that a request's image holds, or kNoField for whole frames.
  int FieldOf(const Image* img, int mode, double time) const {
    const int k = int(time / TimeStep());
    switch (mode) {
      case NtscFields:
      case PalFieldsReversed:
        return (k + 1) & 1;
      case PalFields:
      case NtscFieldsReversed:
        return k & 1;
      case Auto:
        return img->frame_attrs.Has(frameattr::Field) ? int(img->frame_attrs.GetInt(frameattr::Field)) : kNoField;
      default:
        return kNoField;
    }
  }

  Ref<ClipParameter> CurrentClip() const { return in_[Filename]->ValueAs<ClipParameter>(); }

  void ReleaseFieldBuffer() {
    if (field_buffer_) field_buffer_->Recycle();
    field_buffer_ = nullptr;
  }

  Image* field_buffer_ = nullptr;
  int field_phase_ = 0;
  FrameWriter* writer_ = nullptr;  // the render's, while one runs
  // Frames subtracted from the number written; nothing in the module sets it yet.
  double start_offset_ = 0.0;
};

class PreviewSaver final : public Saver {
 public:
  using Saver::Saver;

  uint32_t Process(Request* req) override {
    auto* img = dynamic_cast<Image*>(req->GetInputData(in_[ImageIn]));
    if (!img) return req->SetOutputData(image_out_, nullptr);
    const double w = img->Width(), h = img->Height();
    int width = PPreview.width, height = PPreview.height;
    if (PPreview.fit_to_box) {
      double s = w / PPreview.width;
      if (h / s > PPreview.height) s = h / PPreview.height;
      width = int(w / s);
      height = int(h / s);
    }
    Image* resized = img->ResizeOfImage(req, width, height, 0);
    req->SetInputData(in_[ImageIn], resized);
    if (!WriteFrame(req, 1)) return req->SetOutputData(image_out_, nullptr);
    resized->Use();
    return req->SetOutputData(image_out_, resized);
  }
};

}  // namespace

Object* NewSaver(Registry* reg, CArchive* ar, TagList* tags) { return module::Factory<Saver>(reg, ar, tags); }
Object* NewPreviewSaver(Registry* reg, CArchive* ar, TagList* tags) {
  return module::Factory<PreviewSaver>(reg, ar, tags);
}

}  // namespace kestrion::tools

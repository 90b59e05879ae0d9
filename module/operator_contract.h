// What every tool shares in the operator contract: the end of a saved record and the save of
// a tool without fields, the pass-through of an image input, the input table that declares a
// tool's inputs, and reading the number and point inputs of a request.
#pragma once

#include <cstdint>

#include "host/base/archive.h"
#include "host/image/image.h"
#include "host/graph/operator.h"
#include "host/graph/request.h"

namespace kestrion::module {

// Instance attribute set by tools whose class is registered but not built yet.
constexpr uint32_t kNotYetBuiltAttr = 0x1000F001;

// Ends a saved record after the tool's own fields: a 32-bit 0, then "EndC".
inline void WriteRecordEnd(CArchive* ar) {
  ar->WriteWord(0);
  ar->WriteWord(kEndOfRecord);
}

// Reads the two words that end a record, without checking them.
inline void SkipRecordEnd(CArchive* ar) {
  ar->ReadWord();
  ar->ReadWord();
}

// Saves the record of a tool that keeps no fields of its own: class id, base record, 0, "EndC".
inline uint32_t SaveWithoutFields(Operator* op, uint32_t class_id, CArchive* ar, TagList* tags) {
  ar->WriteWord(class_id);
  const uint32_t ok = op->Operator::Save(ar, tags) & 1;
  WriteRecordEnd(ar);
  return ok;
}

// Hands an input image on unchanged (a new reference); outputs nothing when there is none.
inline uint32_t PassThrough(Request* req, Input* in, Output* out) {
  Parameter* value = req->GetInputData(in);
  if (!value) return 1;
  value->Use();
  return req->SetOutputData(out, value);
}

// One row of a tool's input table: everything about an input on one line, in panel order.
struct InputDecl {
  const char* label;
  uint32_t type;
  uint32_t id;
  TagList tags;
};

// Declares the inputs of a table in order and keeps each pointer at its row's index.
template <size_t N>
void DeclareInputs(Operator* op, const InputDecl (&table)[N], Input* (&inputs)[N]) {
  for (size_t i = 0; i < N; ++i) inputs[i] = op->AddInput(table[i].label, table[i].type, table[i].id, table[i].tags);
}

// Declares a chunked tool of one image output that keeps no fields of its own: its inputs from
// the table in panel order, the "Image" output (returned), the threaded base's two settings
// and, loading, the end of the record.
template <size_t N>
Output* DeclareImageTool(ThreadedOperator* op, CArchive* ar, const InputDecl (&table)[N], Input* (&inputs)[N],
                         int thread_setting = 2, int two_image_setting = 0) {
  DeclareInputs(op, table, inputs);
  Output* out = op->AddOutput("Image", vtype::Image, ImageOutputId(1));
  op->SetThreadSettings(thread_setting, two_image_setting);
  if (ar) SkipRecordEnd(ar);
  return out;
}

// The value of a Number input for the request (0 when there is none).
inline double NumberInput(Request* req, Input* in, int slot = 0) {
  auto* n = dynamic_cast<Number*>(req->GetInputData(in, slot));
  return n ? n->value : 0.0;
}

// The value of a Point input for the request: x and y in fractions of the frame, the middle of
// the frame when there is none.
struct PointValue {
  float x = 0.5f, y = 0.5f;
};
inline PointValue PointInput(Request* req, Input* in) {
  auto* p = dynamic_cast<Point*>(req->GetInputData(in));
  return p ? PointValue{p->x, p->y} : PointValue{};
}

// The title of a modifier: its name followed by " on", then the tool and input it drives.
inline void ModifierTitle(const Operator& op, char* title) {
  std::string driven;
  for (const auto& out : op.Outputs())
    for (const Input* in : out->Targets())
      if (in->Modifier() == &op && driven.empty()) driven = " " + in->Owner()->Name() + "." + in->Name();
  std::snprintf(title, kTitleSize, "%s on%s", op.Name().c_str(), driven.c_str());
}

}  // namespace kestrion::module

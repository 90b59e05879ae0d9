// Fuzzes the document reader (.kfl): any bytes either load a whole flow or fail with one
// message. A flow that loads must save and load again, and from then on give the same bytes
// (the first save may differ: loading settles what the input left open, such as the folder of a
// clip that no record named); it must also give a text flow that loads.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "host/base/archive.h"
#include "host/document/document.h"
#include "host/document/flow_file.h"

using namespace kestrion;

namespace {

std::vector<uint8_t> Saved(const CPipelineDoc& doc) {
  CArchive out;
  doc.Save(out);
  return out.Bytes();
}

std::unique_ptr<CPipelineDoc> Reload(const std::vector<uint8_t>& bytes) {
  CArchive in(bytes);
  HostError err;
  auto doc = CPipelineDoc::Load(in, &err);
  if (!doc) fuzz::Finding("a saved document does not load again: " + err.message);
  return doc;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::StartHost();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::KeepSettings keep;
  ClipFolderScope folder(fuzz::Scratch());
  CArchive in(std::vector<uint8_t>(data, data + size));
  HostError err;
  auto doc = CPipelineDoc::Load(in, &err);
  if (!doc) {
    if (err.message.empty()) fuzz::Finding("a document was refused without a message");
    return 0;
  }
  const std::vector<uint8_t> settled = Saved(*Reload(Saved(*doc)));
  if (Saved(*Reload(settled)) != settled) fuzz::Finding("a document saved and loaded again gives different bytes");
  if (!LoadTextFlow(SaveTextFlow(*doc), fuzz::Scratch(), &err))
    fuzz::Finding("a document as a text flow does not load: " + err.message);
  return 0;
}

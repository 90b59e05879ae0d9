// Fuzzes the text flow reader (.json): any text either loads a whole flow or fails with one
// message naming what is wrong. A flow that loads must give a text flow and a document that
// load again to the same text.
#include <cstdint>
#include <string>

#include "fuzz/fuzz_support.h"
#include "host/base/archive.h"
#include "host/document/document.h"
#include "host/document/flow_file.h"

using namespace kestrion;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::StartHost();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::KeepSettings keep;
  HostError err;
  auto doc = LoadTextFlow(std::string(reinterpret_cast<const char*>(data), size), fuzz::Scratch(), &err);
  if (!doc) {
    if (err.message.empty()) fuzz::Finding("a text flow was refused without a message");
    return 0;
  }
  const std::string text = SaveTextFlow(*doc);
  auto reloaded = LoadTextFlow(text, fuzz::Scratch(), &err);
  if (!reloaded) fuzz::Finding("a saved text flow does not load again: " + err.message + "\n" + text);
  if (SaveTextFlow(*reloaded) != text) fuzz::Finding("a text flow saved twice gives different text:\n" + text);
  CArchive saved;
  doc->Save(saved);
  CArchive in(saved.Bytes());
  ClipFolderScope folder(fuzz::Scratch());
  auto from_document = CPipelineDoc::Load(in, &err);
  if (!from_document) fuzz::Finding("a text flow saved as a document does not load: " + err.message);
  return 0;
}

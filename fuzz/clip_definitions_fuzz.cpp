// Fuzzes the clip definitions file (Clips.def), read when the tool module starts: any bytes give
// a list of initial clip names that new Loaders take in turn, and each Loader shows a title.
#include <cstdint>
#include <fstream>
#include <string>

#include "fuzz/fuzz_support.h"
#include "host/document/document.h"
#include "host/graph/operator.h"
#include "host/graph/registry.h"

using namespace kestrion;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::StartHost();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::ofstream(fuzz::Scratch() + "/Clips.def", std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), std::streamsize(size));
  ClassRegistry->CleanupAll();
  if (ClassRegistry->InitAll() != 0) fuzz::Finding("a class failed to start");
  CPipelineDoc doc;
  for (int i = 0; i < 4; ++i) {
    HostError err;
    Operator* loader = doc.CreateTool("Loader", {}, &err);
    if (!loader) fuzz::Finding("a Loader could not be made: " + err.message);
    char title[kTitleSize];
    loader->GetTitle(title);
  }
  return 0;
}

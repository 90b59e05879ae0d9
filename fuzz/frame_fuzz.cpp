// Fuzzes frame reading through the clip layer: any file under a PNG, TIFF or OpenEXR name
// either reads as a BGRA image within the size limit or fails with a message. The name's
// extension follows the file's first bytes, so the corpus holds plain image files.
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>

#include "fuzz/fuzz_support.h"
#include "host/base/failure.h"
#include "host/clip/clip.h"
#include "host/image/image.h"

using namespace kestrion;

namespace {

const char* ExtensionFor(const uint8_t* data, size_t size) {
  const auto starts = [&](const char* magic, size_t n) { return size >= n && std::memcmp(data, magic, n) == 0; };
  if (starts("II*\0", 4) || starts("MM\0*", 4)) return ".tif";
  if (starts("\x76\x2f\x31\x01", 4)) return ".exr";
  return ".png";
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::StartHost();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = fuzz::Scratch() + "/frame" + ExtensionFor(data, size);
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(data), std::streamsize(size));
  ClipParameter clip(path);
  TakeFailures();
  Image* img = clip.ReadFrame(0, nullptr, nullptr);
  const auto failures = TakeFailures();
  if (img) {
    if (uint64_t(img->Width()) * uint64_t(img->Height()) * 4 > Image::SizeLimit())
      fuzz::Finding("a frame over the size limit was read");
    img->Recycle();
  } else if (failures.empty() || failures[0].message.empty()) {
    fuzz::Finding("a frame failed to read without a message");
  }
  std::remove(path.c_str());
  return 0;
}

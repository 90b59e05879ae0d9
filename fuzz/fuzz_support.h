// What the fuzz targets share: the tool module loaded once as the command loads it, a scratch
// folder of the process's own (the application folder, where clip definitions are read, and the
// folder relative clip names resolve against), and the process-wide settings put back after
// every input so that one input never changes how the next one runs.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/base/prefs.h"
#include "host/clip/clip.h"
#include "host/graph/module.h"
#include "host/image/image.h"

namespace kestrion::fuzz {

// Images above this are refused, as the size limit refuses them for a render: the fuzzer runs
// with an allocation limit of 2 GiB and must see no allocation near it.
constexpr size_t kFuzzImageLimit = size_t(16) << 20;

// The scratch folder, made on first use under /dev/shm (memory) where it exists.
inline const std::string& Scratch() {
  static const std::string folder = [] {
    const std::filesystem::path base = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
    const auto path = base / ("kestrion-fuzz-" + std::to_string(::getpid()));
    std::filesystem::create_directories(path);
    return path.string();
  }();
  return folder;
}

// Loads the tool module from the build's module folder with the scratch folder as the
// application folder. Called from LLVMFuzzerInitialize.
inline void StartHost() {
  ::setenv("KESTRION_HOME", Scratch().c_str(), 1);
  Image::SetSizeLimit(kFuzzImageLimit);
  std::string error;
  static auto modules = OpenModules(KESTRION_FUZZ_MODULE_DIR, &error);
  if (modules.empty()) {
    std::fprintf(stderr, "fuzz: %s\n", error.c_str());
    std::exit(1);
  }
  std::atexit([] {
    std::error_code ec;
    std::filesystem::remove_all(Scratch(), ec);
  });
}

// The settings a loaded flow may change, put back when this goes.
class KeepSettings {
 public:
  ~KeepSettings() {
    PGeneral = general_;
    PVidMode = video_;
    PPreview = preview_;
    ClipParameter::SetCompression(compression_);
  }

 private:
  GeneralPrefs general_ = PGeneral;
  VideoModePrefs video_ = PVidMode;
  PreviewPrefs preview_ = PPreview;
  std::map<std::string, int> compression_ = ClipParameter::Compression();
};

// Stops the run with a message: the fuzzer reports it as a crash and keeps the input.
[[noreturn]] inline void Finding(const std::string& what) {
  std::fprintf(stderr, "fuzz finding: %s\n", what.c_str());
  std::abort();
}

}  // namespace kestrion::fuzz

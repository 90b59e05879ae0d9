// `kestrion render` of a 1920 x 1080 flow Loader -> Merge -> Saver (PNG, zlib level 1) over 30
// frames, in frames per second, next to reading and writing the same frames through the clip
// layer alone (decode + encode, one after the other, nothing rendered). The frames are made at
// start in a temporary folder: smooth gradients with a little noise, so that they compress
// like footage rather than like noise.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "bench/bench_tools.h"
#include "cli/flow_commands.h"
#include "host/clip/clip.h"

namespace kestrion {
namespace {

namespace fs = std::filesystem;
using namespace bench;

constexpr int kFrames = 30;

fs::path g_folder;

std::string InPattern() { return (g_folder / "in" / "plate.####.png").string(); }

Ref<Image> FootageFrame(int n) {
  Ref<Image> img = Ref<Image>::Adopt(new Image(kWidth, kHeight));
  std::mt19937 random{unsigned(n)};
  for (int y = 0; y < kHeight; ++y)
    for (int x = 0; x < kWidth; ++x) {
      const uint32_t noise = random() & 0x0F0F0F;
      const uint32_t r = (x + 4 * n) * 255 / (kWidth + 4 * kFrames), g = y * 255 / kHeight, b = (x + y) * 255 / (kWidth + kHeight);
      img->Row(y)[x] = 0xFF000000u | ((r << 16 | g << 8 | b) ^ noise);
    }
  return img;
}

void MakeFolder() {
  char name[] = "/tmp/kestrion-render-bench-XXXXXX";
  if (!::mkdtemp(name)) {
    std::perror("kestrion render bench: cannot make a temporary folder");
    std::exit(1);
  }
  g_folder = name;
  ClipParameter clip(InPattern());
  for (int n = 1; n <= kFrames; ++n)
    if (!clip.WriteFrame(n, FootageFrame(n).get(), nullptr)) {
      std::fprintf(stderr, "kestrion render bench: %s\n", clip.LastError().c_str());
      std::exit(1);
    }
  std::ofstream(g_folder / "merge.json") << R"({"kestrion": 1, "range": [1, )" << kFrames << R"(], "tools": {
    "Loader1": {"class": "Loader", "inputs": {"Filename": "in/plate.####.png"}},
    "Merge1": {"class": "Merge", "inputs": {"Image": "Loader1", "Foreground": "Loader1"}},
    "Saver1": {"class": "Saver", "inputs": {"Filename": "out/merge.####.png", "Field Mode": "Full frames", "Image": "Merge1"}}
  }})";
}

void CountFrames(benchmark::State& state) {
  state.counters["fps"] = benchmark::Counter(double(kFrames) * double(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_DecodeEncode(benchmark::State& state) {
  ClipParameter in(InPattern()), out((g_folder / "copy" / "plate.####.png").string());
  for (auto _ : state)
    for (int f = 0; f < kFrames; ++f) {
      const Ref<Image> img = Ref<Image>::Adopt(in.ReadFrame(f, nullptr, nullptr));
      if (!img || !out.WriteFrame(in.FirstNumber() + f, img.get(), nullptr)) {
        state.SkipWithError("a frame could not be read or written");
        return;
      }
    }
  CountFrames(state);
}

void BM_RenderFlow(benchmark::State& state) {
  cli::RenderOptions options;
  options.flow = (g_folder / "merge.json").string();
  // The command's progress lines would drown the table.
  const int saved_stderr = ::dup(STDERR_FILENO), quiet = ::open("/dev/null", O_WRONLY);
  ::dup2(quiet, STDERR_FILENO);
  int status = 0;
  for (auto _ : state)
    if ((status = cli::RenderFlow(options)) != cli::status::Done) break;
  ::dup2(saved_stderr, STDERR_FILENO);
  ::close(saved_stderr);
  ::close(quiet);
  if (status != cli::status::Done) state.SkipWithError(("the render ended with status " + std::to_string(status)).c_str());
  CountFrames(state);
}

// The CPU column is the whole process's (every thread's): on a busy machine, where the frames
// in flight have no spare core to use, it tells more than the wall-clock time.
BENCHMARK(BM_DecodeEncode)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime()->Iterations(3);
BENCHMARK(BM_RenderFlow)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime()->Iterations(3);

}  // namespace
}  // namespace kestrion

int main(int argc, char** argv) {
  kestrion::MakeFolder();
  const int status = kestrion::bench::RunWithToolModule(argc, argv);
  std::error_code ec;
  std::filesystem::remove_all(kestrion::g_folder, ec);
  return status;
}

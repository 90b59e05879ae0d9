// The tools next to the nearest OpenCV operation (their partner) in the same process, on the
// same 1920 x 1080 BGRA frames, with 1 and 2 threads (the argument: the host's worker threads
// for a tool, cv::setNumThreads for its partner), and after the runs a table of the ratios
// tool Mpx/s / partner Mpx/s. A copy of the frame in row bands is the line to read them by.
// The tools take their output frames from the host's pool of pixel memory, which a render of
// frames of one size reuses; so the partners keep their output (and scratch) frames from run
// to run, and neither side pays for fresh pages. A pair is one entry of kPairs.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "bench/bench_tools.h"

namespace kestrion {
namespace {

using namespace bench;

// An image's pixels as a BGRA matrix (the host's words are B, G, R, A in memory).
cv::Mat AsMat(const Image& img) {
  cv::Mat mat(img.Height(), img.Width(), CV_8UC4);
  for (int y = 0; y < img.Height(); ++y) std::memcpy(mat.ptr(y), img.Row(y), size_t(img.Width()) * 4);
  return mat;
}

// `fg` over `bg` with fg's straight alpha, in integers, rows shared out among OpenCV's threads.
void Over(const cv::Mat& fg, const cv::Mat& bg, cv::Mat& out) {
  out.create(bg.size(), CV_8UC4);
  cv::parallel_for_(cv::Range(0, bg.rows), [&](const cv::Range& rows) {
    for (int y = rows.start; y < rows.end; ++y) {
      const uint8_t *f = fg.ptr(y), *b = bg.ptr(y);
      uint8_t* o = out.ptr(y);
      for (int x = 0; x < bg.cols * 4; x += 4) {
        const int a = f[x + 3], inv = 255 - a;
        for (int c = 0; c < 3; ++c) o[x + c] = uint8_t((f[x + c] * a + b[x + c] * inv) >> 8);
        o[x + 3] = uint8_t(a + ((b[x + 3] * inv) >> 8));
      }
    }
  });
}

using Partner = void (*)(const cv::Mat& bg, const cv::Mat& fg, cv::Mat& out, cv::Mat& scratch);

// The keyer's nearest chain: to YCrCb, a range test on the three channels, a box blur of the
// matte `Box` pixels wide.
template <int Box>
void KeyChain(const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) {
  cv::Mat ycc, matte;
  cv::cvtColor(bg, ycc, cv::COLOR_BGR2YCrCb);
  cv::inRange(ycc, cv::Scalar(40, 40, 40), cv::Scalar(200, 200, 200), matte);
  cv::blur(matte, out, cv::Size(Box, Box));
}

// Vortex's swirl as an OpenCV program writes it, at the tool's defaults (centre in the middle,
// size 0.5, angle 180, power 2): maps worked out per pixel in single precision, in the same
// rows as the tool's formula and in the same timed run, then remapped bilinearly, edges repeated.
void VortexRemap(const cv::Mat& bg, cv::Mat& out) {
  static volatile float power = 2.0f;  // a value the program reads, as the tool reads its input
  const float exponent = power;
  cv::Mat map_x(bg.size(), CV_32FC1), map_y(bg.size(), CV_32FC1);
  const float cx = bg.cols * 0.5f, cy = bg.rows * 0.5f, radius = bg.cols * 0.25f, angle = float(CV_PI);
  cv::parallel_for_(cv::Range(0, bg.rows), [&](const cv::Range& rows) {
    for (int y = rows.start; y < rows.end; ++y) {
      float *mx = map_x.ptr<float>(y), *my = map_y.ptr<float>(y);
      const float dy = float(y) - cy;
      for (int x = 0; x < bg.cols; ++x) {
        const float dx = float(x) - cx, r = std::sqrt(dx * dx + dy * dy), f = (radius - r) / radius;
        if (f <= 0) {
          mx[x] = float(x);
          my[x] = float(y);
          continue;
        }
        const float theta = std::pow(f, exponent) * angle + std::atan2(dy, dx);
        mx[x] = std::cos(theta) * r + cx;
        my[x] = std::sin(theta) * r + cy;
      }
    }
  });
  cv::remap(bg, out, map_x, map_y, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
}

// The polar conversions about the middle, out to the farthest corner, nearest pixel.
void WarpPolar(const cv::Mat& bg, cv::Mat& out, int flags) {
  const cv::Point2f centre(bg.cols * 0.5f, bg.rows * 0.5f);
  const double farthest = std::sqrt(double(centre.x) * centre.x + double(centre.y) * centre.y);
  cv::warpPolar(bg, out, bg.size(), centre, farthest, int(cv::INTER_NEAREST) | int(cv::WARP_POLAR_LINEAR) | flags);
}

// The warps: Transform at 30 degrees and size 1.2, the positioners at their default corners,
// Resize to half size.
const ToolCase kTransformRotated{"Transform", {{"Size", 1.2}, {"Aspect", 1.0}, {"Angle", 30.0}}, false};
const ToolCase kCornerPin{"CornerPin", {}, false};
const ToolCase kPerspectivePin{"PerspectivePin", {}, false};
const ToolCase kResizeHalf{"Resize", {{"Width", kWidth / 2}, {"Height", kHeight / 2}}, false};
// Vortex at its defaults; Coordinate Space both ways.
const ToolCase kVortex{"Vortex", {{"Size", 0.5}, {"Angle", 180}, {"Power", 2}}, false};
const ToolCase kRectangularToPolar{"CoordSpace", {{"Shape", 0}}, false};
const ToolCase kPolarToRectangular{"CoordSpace", {{"Shape", 1}}, false};

// The positioners' default corners, top left, top right, bottom left, bottom right, in pixels.
std::vector<cv::Point2f> DefaultCorners(const cv::Mat& frame) {
  const auto at = [&](float x, float y) { return cv::Point2f(x * float(frame.cols), y * float(frame.rows)); };
  return {at(0.1f, 0.1f), at(0.9f, 0.0f), at(0.0f, 0.7f), at(1.0f, 0.9f)};
}
std::vector<cv::Point2f> FrameCorners(const cv::Mat& frame) {
  const float w = float(frame.cols), h = float(frame.rows);
  return {{0, 0}, {w, 0}, {0, h}, {w, h}};
}

struct Pair {
  const char* tool_name;
  const ToolCase& tool;
  const char* partner_name;
  Partner partner;
};

const Pair kPairs[] = {
    {"BM_BooleansAdd", kBooleansAdd, "BM_CvAdd", [](const cv::Mat& bg, const cv::Mat& fg, cv::Mat& out, cv::Mat&) { cv::add(bg, fg, out); }},
    // The same operation without the blend, the work cv::add does.
    {"BM_BooleansAddUnblended", kBooleansAddUnblended, "BM_CvAdd",
     [](const cv::Mat& bg, const cv::Mat& fg, cv::Mat& out, cv::Mat&) { cv::add(bg, fg, out); }},
    {"BM_BooleansAnd", kBooleansAnd, "BM_CvBitwiseAnd",
     [](const cv::Mat& bg, const cv::Mat& fg, cv::Mat& out, cv::Mat&) { cv::bitwise_and(bg, fg, out); }},
    {"BM_DissolveDissolve", kDissolveDissolve, "BM_CvAddWeighted",
     [](const cv::Mat& bg, const cv::Mat& fg, cv::Mat& out, cv::Mat&) { cv::addWeighted(bg, 0.6, fg, 0.4, 0.0, out); }},
    {"BM_ColorGain", kColorGain, "BM_CvLut",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) {
       static const cv::Mat table = [] {
         cv::Mat t(1, 256, CV_8UC4);
         for (int i = 0; i < 256; ++i) t.at<cv::Vec4b>(i) = {uint8_t(255 - i), uint8_t(i / 2), uint8_t(i), uint8_t(i)};
         return t;
       }();
       cv::LUT(bg, table, out);
     }},
    {"BM_ColorSpaceToHLS", kColorSpaceToHLS, "BM_CvCvtColorToHLS",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) { cv::cvtColor(bg, out, cv::COLOR_BGR2HLS); }},
    {"BM_ColorSpaceToYUV", kColorSpaceToYUV, "BM_CvCvtColorToYUV",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) { cv::cvtColor(bg, out, cv::COLOR_BGR2YUV); }},
    {"BM_MergeStraight", kMergeStraight, "BM_PlainOver", [](const cv::Mat& bg, const cv::Mat& fg, cv::Mat& out, cv::Mat&) { Over(fg, bg, out); }},
    {"BM_MergeRotated", kMergeRotated, "BM_CvWarpAffineOver",
     [](const cv::Mat& bg, const cv::Mat& fg, cv::Mat& out, cv::Mat& turned) {
       const cv::Mat turn = cv::getRotationMatrix2D(cv::Point2f(fg.cols / 2.0f, fg.rows / 2.0f), 30.0, 1.3);
       cv::warpAffine(fg, turned, turn, bg.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar::all(0));
       Over(turned, bg, out);
     }},
    // The matte blur of 10 is a box of radius 60 here: against a box of that radius over the
    // frame's four channels, and over its alpha alone (taken out once, outside the timing).
    {"BM_MatteControlBlur10", kMatteControlBlur10, "BM_CvBlur121", [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) {
       cv::blur(bg, out, cv::Size(121, 121));
     }},
    {"BM_MatteControlBlur10", kMatteControlBlur10, "BM_CvBlur121Alpha",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) {
       static const cv::Mat alpha = [&] {
         cv::Mat a;
         cv::extractChannel(bg, a, 3);
         return a;
       }();
       cv::blur(alpha, out, cv::Size(121, 121));
     }},
    // The keyer at its defaults blurs the matte by a 3 x 3 box and 1 x 1 blended; with a matte
    // blur of 10 it blurs it twice more, by 121 x 121 and 123 x 123 blended.
    {"BM_KeyerDefaults", kKeyerDefaults, "BM_CvKeyChain3", KeyChain<3>},
    {"BM_KeyerBlur10", kKeyerBlur10, "BM_CvKeyChain121", KeyChain<121>},
    {"BM_TransformRotated", kTransformRotated, "BM_CvWarpAffine",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) {
       const cv::Mat turn = cv::getRotationMatrix2D(cv::Point2f(bg.cols / 2.0f, bg.rows / 2.0f), 30.0, 1.2);
       cv::warpAffine(bg, out, turn, bg.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar::all(0));
     }},
    {"BM_CornerPin", kCornerPin, "BM_CvWarpPerspectiveOnto",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) {
       const cv::Mat onto = cv::getPerspectiveTransform(FrameCorners(bg), DefaultCorners(bg));
       cv::warpPerspective(bg, out, onto, bg.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar::all(0));
     }},
    {"BM_PerspectivePin", kPerspectivePin, "BM_CvWarpPerspectiveFrom",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) {
       const cv::Mat from = cv::getPerspectiveTransform(DefaultCorners(bg), FrameCorners(bg));
       cv::warpPerspective(bg, out, from, bg.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar::all(0));
     }},
    {"BM_ResizeHalf", kResizeHalf, "BM_CvResizeArea",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) {
       cv::resize(bg, out, cv::Size(bg.cols / 2, bg.rows / 2), 0, 0, cv::INTER_AREA);
     }},
    // Blur size 1.0 is a radius of 6 pixels on these frames: a 13 x 13 box, a 13-tap triangle.
    {"BM_BlurBox", kBlurBox, "BM_CvBlur",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) { cv::blur(bg, out, cv::Size(13, 13)); }},
    {"BM_BlurBartlett", kBlurBartlett, "BM_CvSepFilterTriangle",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) {
       static const cv::Mat triangle = [] {
         cv::Mat k(1, 13, CV_32F);
         for (int d = -6; d <= 6; ++d) k.at<float>(d + 6) = float(7 - std::abs(d)) / 49.0f;
         return k;
       }();
       cv::sepFilter2D(bg, out, -1, triangle, triangle);
     }},
    {"BM_FilterMedian3", kFilterMedian3, "BM_CvMedianBlur3",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) { cv::medianBlur(bg, out, 3); }},
    {"BM_FilterMedian5", kFilterMedian5, "BM_CvMedianBlur5",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) { cv::medianBlur(bg, out, 5); }},
    {"BM_FilterSobel", kFilterSobel, "BM_CvSobelMagnitude",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) {
       cv::Mat gx, gy, magnitude;
       cv::Sobel(bg, gx, CV_32F, 1, 0);
       cv::Sobel(bg, gy, CV_32F, 0, 1);
       cv::magnitude(gx.reshape(1), gy.reshape(1), magnitude);
       magnitude.reshape(4).convertTo(out, CV_8U);
     }},
    {"BM_FilterLaplacian", kFilterLaplacian, "BM_CvLaplacian",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) { cv::Laplacian(bg, out, -1); }},
    {"BM_CustomFilter3", kCustomFilter3, "BM_CvFilter2D3",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) {
       cv::filter2D(bg, out, -1, cv::Mat::ones(3, 3, CV_32F) / 9.0);
     }},
    {"BM_CustomFilter7", kCustomFilter7, "BM_CvFilter2D7",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) {
       cv::filter2D(bg, out, -1, cv::Mat::ones(7, 7, CV_32F) / 49.0);
     }},
    {"BM_Vortex", kVortex, "BM_CvRemapVortex", [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) { VortexRemap(bg, out); }},
    {"BM_RectangularToPolar", kRectangularToPolar, "BM_CvWarpPolar",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) { WarpPolar(bg, out, 0); }},
    {"BM_PolarToRectangular", kPolarToRectangular, "BM_CvWarpPolarInverse",
     [](const cv::Mat& bg, const cv::Mat&, cv::Mat& out, cv::Mat&) { WarpPolar(bg, out, cv::WARP_INVERSE_MAP); }},
};

void RunPartner(benchmark::State& state, Partner partner) {
  static const cv::Mat bg = AsMat(*Background()), fg = AsMat(*Foreground());
  cv::setNumThreads(int(state.range(0)));
  cv::Mat out, scratch;
  for (auto _ : state) {
    partner(bg, fg, out, scratch);
    benchmark::DoNotOptimize(out.data);
  }
  CountMegapixels(state);
  state.counters["threads"] = cv::getNumThreads();
}

// Prints the runs as the console does and keeps each one's Mpx/s by name and argument: the
// median where repetitions give one (--benchmark_repetitions, for a busy machine).
class RatioTable : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      const auto it = run.counters.find("Mpx/s");
      if (it == run.counters.end() || (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median")) continue;
      rates_[{run.run_name.function_name, run.run_name.args}] = it->second.value;
    }
  }

  void Print() const {
    std::printf("\n%-24s %7s %9s  %-24s %9s %7s\n", "tool", "threads", "Mpx/s", "partner", "Mpx/s", "ratio");
    for (const Pair& pair : kPairs)
      for (const char* threads : {"1", "2"}) {
        const auto tool = rates_.find({pair.tool_name, threads}), partner = rates_.find({pair.partner_name, threads});
        if (tool == rates_.end() || partner == rates_.end()) continue;
        std::printf("%-24s %7s %9.1f  %-24s %9.1f %7.2f\n", pair.tool_name, threads, tool->second, pair.partner_name,
                    partner->second, tool->second / partner->second);
      }
    for (const char* threads : {"1", "2"})
      if (auto copy = rates_.find({"BM_Memcpy", threads}); copy != rates_.end())
        std::printf("%-24s %7s %9.1f\n", "memcpy", threads, copy->second);
  }

 private:
  std::map<std::pair<std::string, std::string>, double> rates_;
};

}  // namespace
}  // namespace kestrion

int main(int argc, char** argv) {
  using namespace kestrion;
  std::set<std::string> tools, partners;  // a tool with two partners, or a partner of two tools, runs once
  for (const Pair& pair : kPairs) {
    if (tools.insert(pair.tool_name).second)
      benchmark::RegisterBenchmark(pair.tool_name, [&pair](benchmark::State& s) { bench::RunTool(s, pair.tool); })
          ->Arg(1)->Arg(2)->UseRealTime();
    if (!partners.insert(pair.partner_name).second) continue;
    benchmark::RegisterBenchmark(pair.partner_name, [&pair](benchmark::State& s) { RunPartner(s, pair.partner); })
        ->Arg(1)->Arg(2)->UseRealTime();
  }
  benchmark::RegisterBenchmark("BM_Memcpy", bench::BM_Memcpy)->Arg(1)->Arg(2)->UseRealTime();
  RatioTable table;
  const int status = bench::RunWithToolModule(argc, argv, &table);
  if (status == 0) table.Print();
  return status;
}
